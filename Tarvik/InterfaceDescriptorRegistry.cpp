#include "Tarvik/InterfaceDescriptorRegistry.h"

#include "base/InternalInconsistency.h"

#include <chrono>

namespace tv {

InterfaceDescriptorRegistry& InterfaceDescriptorRegistry::shared()
{
    static InterfaceDescriptorRegistry& registry = *new InterfaceDescriptorRegistry;
    return registry;
}

bool InterfaceDescriptorRegistry::isPending(const Entry& entry)
{
    return !entry.registered && !entry.pending.expired();
}

std::shared_ptr<const InterfaceDescriptor> InterfaceDescriptorRegistry::lookUp(std::string_view name) const
{
    std::lock_guard lock(mutex_);
    auto it = entries_.find(name);
    return it == entries_.end() ? nullptr : it->second.registered;
}

std::shared_ptr<const InterfaceDescriptor> InterfaceDescriptorRegistry::lookUpAwaitingPending(
    std::string_view name) const
{
    std::unique_lock lock(mutex_);
    for (;;) {
        auto it = entries_.find(name);
        if (it == entries_.end())
            return nullptr;
        if (!isPending(it->second))
            return it->second.registered;
        // Registration and abandon() notify; an allocation dropped without
        // either is noticed by the periodic re-check.
        changed_.wait_for(lock, std::chrono::milliseconds(20));
    }
}

std::shared_ptr<InterfaceDescriptor> InterfaceDescriptorRegistry::allocate(
    std::string name, std::set<std::string, std::less<>> messages)
{
    std::lock_guard lock(mutex_);
    auto it = entries_.find(name);
    if (it != entries_.end() && (it->second.registered || isPending(it->second)))
        return nullptr;
    auto descriptor = std::make_shared<InterfaceDescriptor>(name, std::move(messages));
    Entry& entry = entries_[std::move(name)];
    entry.pending = descriptor;
    entry.pendingRaw = descriptor.get();
    return descriptor;
}

bool InterfaceDescriptorRegistry::registerDescriptor(const std::shared_ptr<InterfaceDescriptor>& descriptor)
{
    if (!descriptor)
        raiseInternalInconsistency("registering a null interface descriptor");
    if (descriptor->isRegistered())
        raiseInternalInconsistency("interface descriptor " + descriptor->name() + " registered twice");
    {
        std::lock_guard lock(mutex_);
        auto it = entries_.find(descriptor->name());
        if (it != entries_.end()) {
            Entry& entry = it->second;
            bool ours = !entry.registered && entry.pendingRaw == descriptor.get() && !entry.pending.expired();
            if (!ours && (entry.registered || isPending(entry)))
                return false;
        } else {
            it = entries_.emplace(descriptor->name(), Entry{}).first;
        }
        descriptor->markRegistered();
        it->second = Entry{descriptor, {}, nullptr};
    }
    changed_.notify_all();
    return true;
}

void InterfaceDescriptorRegistry::abandon(const InterfaceDescriptor& descriptor)
{
    {
        std::lock_guard lock(mutex_);
        auto it = entries_.find(descriptor.name());
        if (it == entries_.end() || it->second.registered || it->second.pendingRaw != &descriptor)
            return;
        entries_.erase(it);
    }
    changed_.notify_all();
}

} // namespace tv
