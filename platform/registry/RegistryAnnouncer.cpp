#include "platform/registry/RegistryAnnouncer.h"

namespace tv::platform {

RegistryAnnouncer::RegistryAnnouncer() : callbacks_(SerialQueue::create("ApplicationRegistry.callbacks")) {}

RegistryAnnouncer::~RegistryAnnouncer() = default;

void RegistryAnnouncer::addObserver(std::weak_ptr<ApplicationRegistryObserver> observer)
{
    std::lock_guard lock(mutex_);
    observers_.push_back(std::move(observer));
}

std::vector<std::weak_ptr<ApplicationRegistryObserver>> RegistryAnnouncer::observers()
{
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
    return observers_;
}

void RegistryAnnouncer::announce(std::vector<RegistryPlugInRecordPtr> leaving,
                                 std::vector<RegistryPlugInRecordPtr> arriving)
{
    if (leaving.empty() && arriving.empty())
        return;
    // The observers are those added before the change: one added later
    // hears only of later changes, as if the change had been announced at
    // once.
    callbacks_->async([observers = observers(), leaving = std::move(leaving), arriving = std::move(arriving)] {
        for (const auto& weak : observers)
            if (auto observer = weak.lock(); observer && !leaving.empty())
                observer->pluginsWillUninstall(leaving);
        for (const auto& weak : observers)
            if (auto observer = weak.lock(); observer && !arriving.empty())
                observer->pluginsDidInstall(arriving);
    });
}

void RegistryAnnouncer::waitUntilDelivered()
{
    callbacks_->sync([] {});
}

} // namespace tv::platform
