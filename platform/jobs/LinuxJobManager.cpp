#include "platform/jobs/LinuxJobManager.h"

#include <cerrno>

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
    if (services_.size() >= maxServices_)
        return ENOSPC;
    services_.emplace(std::move(key), std::move(service));
    return 0;
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
