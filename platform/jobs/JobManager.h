// JobManager ("jobd"): the external services that plug-ins provide to host
// processes.
//
// The daemon registers a plug-in for one host process before the host uses
// it (the job manager later starts the plug-in's process on the host's
// behalf, with the launch description applied), and removes every
// registration of a bundle identifier and version when that plug-in is
// uninstalled. A registration is keyed by host process id, bundle identifier
// and bundle version; registering the same key again replaces it. A
// registration lasts while its host process lives.
//
// Results are errno numbers: 0 for success.
// Thread-safety: every operation may be called from any thread. Completions
// run on the queue the caller names.
#pragma once

#include "base/SerialQueue.h"
#include "base/Value.h"

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tv::platform {

// The key under which the job manager's extension properties name the bundle
// identifier of a plug-in instance.
inline constexpr const char* kJobExtensionBundleIdentifierKey = "ExtensionBundleIdentifier";

struct ExternalService {
    pid_t hostPid = 0;
    uid_t hostUid = 0;
    std::string bundleIdentifier;
    std::string bundleVersion;
    std::string executablePath;  // absolute
    Value launchDescription;     // a dictionary
};

class JobManager {
public:
    using Completion = std::function<void(int result)>;

    virtual ~JobManager() = default;

    // Registers `service`: 0, or EINVAL for a host pid that is not positive,
    // an empty bundle identifier, an executable path that is not absolute or
    // a launch description that is not a dictionary; ENOSPC when the table,
    // or the host's user's share of it, is full of hosts that still run.
    virtual int addExternalService(ExternalService service) = 0;

    // Removes every registration of `bundleIdentifier` at `bundleVersion`,
    // whatever its host, and calls `completion` on `queue` with 0 when
    // something was on record and ESRCH (3) otherwise. Returns at once.
    virtual void removeExternalService(const std::string& bundleIdentifier, const std::string& bundleVersion,
                                       std::shared_ptr<SerialQueue> queue, Completion completion) = 0;

    // The registrations on record, in key order (host pid, identifier,
    // version): for diagnostics and tests.
    virtual std::vector<ExternalService> externalServices() const = 0;
};

} // namespace tv::platform
