// Read-only file grants for resources that another process is to open.
#pragma once

#include "base/Value.h"
#include "platform/security/SandboxService.h"

#include <optional>
#include <string>
#include <string_view>

namespace tv {

// A token from `sandbox` granting read-only access to the file that the file
// URL `url` names, resolved to its canonical path. On failure: absent, with
// errno set to the error number of the failure (EINVAL for a value that is
// not a file URL), for the caller to read right away.
std::optional<std::string> fileReadGrant(const Value& url, platform::SandboxService& sandbox);

// The same through the process-wide sandbox service (platform::sandboxService());
// ENOSYS when there is none.
std::optional<std::string> fileReadGrant(const Value& url);

// A token from `sandbox` granting read-only access to `canonicalPath`, a
// path the caller holds in canonical form: granted as written, without
// being resolved again, and marked as canonical like fileReadGrant()'s
// tokens. Failures as fileReadGrant().
std::optional<std::string> canonicalFileReadGrant(std::string_view canonicalPath, platform::SandboxService& sandbox);

} // namespace tv
