// LinuxJobManager: the job manager as an in-process table. Registrations are
// kept in memory (a host process id means nothing after a restart), at most
// `maxServices` of them and `maxPerUid` for the hosts of one user, so one
// user's hosts cannot take the table from the others. When a registration
// does not fit, those of hosts that have exited are dropped first. Starting
// plug-in processes on a host's behalf is not done yet; the table is what
// such a launcher will read.
//
// Thread-safe: the table is guarded by a mutex; completions are scheduled on
// the caller's queue after the table was changed, never run inline.
#pragma once

#include "platform/jobs/JobManager.h"

#include <map>
#include <mutex>
#include <tuple>

namespace tv::platform {

class LinuxJobManager final : public JobManager {
public:
    explicit LinuxJobManager(std::size_t maxServices = 4096, std::size_t maxPerUid = 1024)
        : maxServices_(maxServices), maxPerUid_(maxPerUid)
    {
    }

    // JobManager
    int addExternalService(ExternalService service) override;
    void removeExternalService(const std::string& bundleIdentifier, const std::string& bundleVersion,
                               std::shared_ptr<SerialQueue> queue, Completion completion) override;
    std::vector<ExternalService> externalServices() const override;

private:
    using Key = std::tuple<pid_t, std::string, std::string>;

    // Drops the registrations of hosts that no longer run.
    void dropExitedHostsLocked();
    bool fitsLocked(uid_t uid) const;

    const std::size_t maxServices_;
    const std::size_t maxPerUid_;
    mutable std::mutex mutex_;
    std::map<Key, ExternalService> services_;
};

} // namespace tv::platform
