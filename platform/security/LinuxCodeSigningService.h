// LinuxCodeSigningService: entitlements from vlist files that only a
// trusted owner can have written.
//
// An executable inside a bundle (as the bundle service finds it, walking up
// from the executable) takes its entitlements from "Entitlements.vlist" at
// the bundle's root: a dictionary from entitlement name to value. An
// executable in no bundle can be given entitlements by the administrator in
// the drop-in directory: every "*.vlist" file there is a dictionary
//   { "Executable": "/absolute/path", "Entitlements": { name: value, ... } }
// and the files naming the executable (compared in canonical form) are
// merged in file-name order, a later file's entitlement replacing an
// earlier one's. Drop-ins never apply to an executable inside a bundle, so
// that a bundle's entitlements have one source.
//
// Trust: a file counts only when it, the directory holding it (the bundle
// directory or the drop-in directory), the executable and the executable's
// directory are owned by root or by the daemon's effective user and are not
// writable by group or others. Anything else could have been written or
// swapped by someone other than the administrator or the bundle's installer.
// A file that fails these checks, changes while it is read, cannot be parsed
// or is not a dictionary is ignored with a line in the platform log
// (category "codesign"); the executable then has no entitlements from it.
//
// A task reads the executable of the audit token's process through the
// process-information service (checked against the token's pidfd) and takes
// a snapshot of its entitlements. When the executable cannot be read the
// task carries that error and answers every lookup with it.
//
// Thread-safe: the service holds no mutable state; tasks are immutable.
#pragma once

#include "platform/process/BundleService.h"
#include "platform/security/CodeSigningService.h"
#include "platform/process/ProcessInfo.h"
#include "platform/formats/VlistFileReader.h"

#include <memory>
#include <string>

namespace tv::platform {

class LinuxCodeSigningService final : public CodeSigningService {
public:
    // An empty `dropInDir` gives no drop-ins.
    LinuxCodeSigningService(std::shared_ptr<ProcessInfo> processInfo, std::shared_ptr<BundleService> bundles,
                            std::string dropInDir, VlistFileReader readVlist = systemVlistFileReader());

    // CodeSigningService
    std::shared_ptr<CodeSigningTask> createTask(const AuditToken& token) override;
    Value entitlementValueForKey(const CodeSigningTask& task, std::string_view key, MaybeError* error) override;
    Result<Value> entitlementsOfExecutable(const std::string& path) override;

private:
    Value bundleEntitlements(const std::string& bundleDir);
    Value dropInEntitlements(const std::string& executable);
    // The file's value when it counts (see above), else null after logging.
    Value readTrustedFile(const std::string& file, const std::string& directory);

    std::shared_ptr<ProcessInfo> processInfo_;
    std::shared_ptr<BundleService> bundles_;
    std::string dropInDir_;
    VlistFileReader readVlist_;
};

} // namespace tv::platform
