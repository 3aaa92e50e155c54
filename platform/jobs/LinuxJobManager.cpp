#include "platform/jobs/LinuxJobManager.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace tv::platform {

int LinuxJobManager::addExternalService(ExternalService service)
{
    if (service.hostPid <= 0 || service.bundleIdentifier.empty() || service.executablePath.empty() ||
        service.executablePath.front() != '/' || !service.launchDescription.isDictionary())
        return EINVAL;
    Key key{service.hostPid, service.bundleIdentifier, service.bundleVersion};
    std::lock_guard lock(mutex_);
    auto it = services_.find(key);
    if (it != services_.end()) {
        it->second = std::move(service);
        return 0;
    }
    if (!fitsLocked(service.hostUid)) {
        dropExitedHostsLocked();
        if (!fitsLocked(service.hostUid))
            return ENOSPC;
    }
    services_.emplace(std::move(key), std::move(service));
    return 0;
}

bool LinuxJobManager::fitsLocked(uid_t uid) const
{
    if (services_.size() >= maxServices_)
        return false;
    auto ofUid = std::count_if(services_.begin(), services_.end(),
                               [uid](const auto& entry) { return entry.second.hostUid == uid; });
    return static_cast<std::size_t>(ofUid) < maxPerUid_;
}

void LinuxJobManager::dropExitedHostsLocked()
{
    // A signal 0 reports whether the process exists (EPERM: it does, under
    // another user). A reused process id keeps a stale entry alive until that
    // process exits too.
    std::erase_if(services_, [](const auto& entry) {
        return ::kill(std::get<0>(entry.first), 0) == -1 && errno == ESRCH;
    });
}

void LinuxJobManager::removeExternalService(const std::string& bundleIdentifier, const std::string& bundleVersion,
                                            std::shared_ptr<SerialQueue> queue, Completion completion)
{
    bool removed = false;
    {
        std::lock_guard lock(mutex_);
        for (auto it = services_.begin(); it != services_.end();) {
            if (it->second.bundleIdentifier == bundleIdentifier && it->second.bundleVersion == bundleVersion) {
                it = services_.erase(it);
                removed = true;
            } else {
                ++it;
            }
        }
    }
    if (queue && completion)
        queue->async([completion = std::move(completion), result = removed ? 0 : ESRCH] { completion(result); });
}

std::vector<ExternalService> LinuxJobManager::externalServices() const
{
    std::lock_guard lock(mutex_);
    std::vector<ExternalService> out;
    out.reserve(services_.size());
    for (const auto& [key, service] : services_)
        out.push_back(service);
    return out;
}

} // namespace tv::platform
