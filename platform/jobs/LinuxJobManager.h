// LinuxJobManager: the job manager as an in-process table. Registrations are
// kept in memory for the life of the daemon (a host process id means nothing
// after a restart), at most `maxServices` of them. Starting plug-in
// processes on a host's behalf is not done yet; the table is what such a
// launcher will read.
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
    explicit LinuxJobManager(std::size_t maxServices = 4096) : maxServices_(maxServices) {}

    // JobManager
    int addExternalService(ExternalService service) override;
    void removeExternalService(const std::string& bundleIdentifier, const std::string& bundleVersion,
                               std::shared_ptr<SerialQueue> queue, Completion completion) override;
    std::vector<ExternalService> externalServices() const override;

private:
    using Key = std::tuple<pid_t, std::string, std::string>;

    std::size_t maxServices_;
    mutable std::mutex mutex_;
    std::map<Key, ExternalService> services_;
};

} // namespace tv::platform
