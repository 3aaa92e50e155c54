// The sandbox service: extension tokens that grant a process access to a file,
// and whether a process runs in a sandbox.
//
// A token is an opaque string issued for one path and one extension class;
// whoever holds it may consume it to obtain a handle for the grant, and
// release the handle again. Tokens are bound to the issuing machine's
// current boot: they cannot be forged or altered, and stop being accepted
// after a reboot.
//
// Failures are error values of the domain SandboxService::kErrorDomain
// ("POSIX") whose code is the errno of the failure; the Linux implementation also leaves that errno set.
// Implementations are thread-safe; nothing calls back.
#pragma once

#include "base/Result.h"
#include "platform/PosixError.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tv::platform {

// Extension class of read-only file access for applications.
inline constexpr const char* kSandboxExtensionClassAppReadOnly = "app-read-only";
// Issue flag: resolve the path to its canonical form (symbolic links, "." and
// ".." resolved; the file must exist) and grant that path.
inline constexpr std::uint32_t kSandboxExtensionCanonical = 1u << 1;

class SandboxService {
public:
    static constexpr const char* kErrorDomain = kPosixErrorDomain;

    virtual ~SandboxService() = default;

    // A token granting `extensionClass` access to `path`. Without
    // kSandboxExtensionCanonical the path must be absolute and is granted as
    // written. Fails with realpath's errno when the path cannot be
    // canonicalised, with EINVAL for a relative path, a path containing a NUL
    // byte or a class the token format cannot carry.
    virtual Result<std::string> issueFileExtension(std::string_view extensionClass, std::string_view path,
                                                   std::uint32_t flags) = 0;

    // The token issueFileExtension() with kSandboxExtensionCanonical gives
    // for `canonicalPath`, which the caller already holds in canonical form
    // (absolute, without symbolic links, "." or ".."): it is granted as
    // written, without being resolved again. The default resolves it all
    // the same.
    virtual Result<std::string> issueFileExtensionForCanonicalPath(std::string_view extensionClass,
                                                                   std::string_view canonicalPath)
    {
        return issueFileExtension(extensionClass, canonicalPath, kSandboxExtensionCanonical);
    }

    // Consumes a token into the calling process: a positive handle for the
    // grant. Fails with EINVAL for a token that is not well formed and EPERM
    // for one that this service did not issue (or that was altered).
    virtual Result<std::int64_t> consumeExtension(std::string_view token) = 0;

    // Ends the grant behind a handle; the handle is unknown afterwards. Fails
    // with EINVAL for a handle that is not known.
    virtual MaybeError releaseExtension(std::int64_t handle) = 0;

    // Whether the process runs in a sandbox. A process that is gone or cannot
    // be inspected counts as not sandboxed.
    virtual bool isProcessSandboxed(pid_t pid) = 0;
};

// The process-wide sandbox service: the one installed with
// setSandboxService(), else a LinuxSandboxService in the runtime directory
// of PlatformConfig::load(), made on first use; null when that configuration
// cannot be loaded.
std::shared_ptr<SandboxService> sandboxService();
// Installs `service` as the process-wide one (null: back to the default) and
// returns the previous one.
std::shared_ptr<SandboxService> setSandboxService(std::shared_ptr<SandboxService> service);

} // namespace tv::platform
