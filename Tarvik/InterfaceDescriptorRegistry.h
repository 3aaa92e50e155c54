// InterfaceDescriptorRegistry: the process's interface descriptors by name.
//
// A name is taken once a descriptor is registered under it or allocated
// under it and not yet registered. allocate() reserves a free name for a
// descriptor that its caller completes (adopted descriptors) and then
// registers; dropping the allocated descriptor without registering it frees
// the name again. Registered descriptors stay for the life of the registry.
//
// Thread-safe. lookUpAwaitingPending() is the one operation that blocks: it
// waits for a name allocated by another thread to be registered or given up.
#pragma once

#include "Tarvik/InterfaceDescriptor.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace tv {

class InterfaceDescriptorRegistry {
public:
    // The process-wide registry.
    static InterfaceDescriptorRegistry& shared();

    InterfaceDescriptorRegistry() = default;
    InterfaceDescriptorRegistry(const InterfaceDescriptorRegistry&) = delete;
    InterfaceDescriptorRegistry& operator=(const InterfaceDescriptorRegistry&) = delete;

    // The descriptor registered under `name`, or null (also while the name is
    // only allocated).
    std::shared_ptr<const InterfaceDescriptor> lookUp(std::string_view name) const;

    // As lookUp(), but when `name` is allocated and not yet registered, waits
    // until it is registered (returns it) or given up (returns null).
    std::shared_ptr<const InterfaceDescriptor> lookUpAwaitingPending(std::string_view name) const;

    // A new, unregistered descriptor reserving `name`; null when the name is
    // taken.
    std::shared_ptr<InterfaceDescriptor> allocate(std::string name, std::set<std::string, std::less<>> messages = {});

    // Registers `descriptor`: one that allocate() returned, or one built
    // directly whose name is free. Returns false, registering nothing, when
    // the name is taken by another descriptor. Registering a descriptor twice
    // is an internal inconsistency.
    bool registerDescriptor(const std::shared_ptr<InterfaceDescriptor>& descriptor);

    // Gives up an allocation: the name is free again. Nothing happens for a
    // descriptor that is not pending here.
    void abandon(const InterfaceDescriptor& descriptor);

private:
    struct Entry {
        std::shared_ptr<const InterfaceDescriptor> registered;
        // The allocated descriptor while the name is pending; an expired
        // pointer means its allocator dropped it.
        std::weak_ptr<InterfaceDescriptor> pending;
        const InterfaceDescriptor* pendingRaw = nullptr;
    };
    // REQUIRES: mutex_ held.
    static bool isPending(const Entry& entry);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Entry, std::less<>> entries_;
};

} // namespace tv
