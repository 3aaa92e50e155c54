// RegistryAnnouncer: delivers the application registry's install and
// uninstall announcements to its observers, in order, on one callback
// thread of its own.
//
// The registry queues an announcement while it still holds its change lock
// (so announcements keep the order of the changes) and the callback thread
// calls the observers later, with no registry lock held: an observer may
// wait for a thread that is itself waiting for the registry (the daemon's
// database queue purging the registry's caches) without a deadlock, and may
// even change the registry (the change is announced after the current
// announcement).
//
// Observers are held weakly; one that has been destroyed is skipped and
// forgotten. An announcement goes to the observers added before it was
// queued and still alive when it is delivered.
//
// Thread-safety: every operation may be called from any thread.
// waitUntilDelivered() must not be called from an observer's callback, nor
// from a thread that a callback may wait for.
#pragma once

#include "base/SerialQueue.h"
#include "platform/registry/ApplicationRegistry.h"

#include <memory>
#include <mutex>
#include <vector>

namespace tv::platform {

class RegistryAnnouncer {
public:
    RegistryAnnouncer();
    // Delivers what is still queued, then stops the callback thread.
    ~RegistryAnnouncer();
    RegistryAnnouncer(const RegistryAnnouncer&) = delete;
    RegistryAnnouncer& operator=(const RegistryAnnouncer&) = delete;

    void addObserver(std::weak_ptr<ApplicationRegistryObserver> observer);

    // Queues one change: pluginsWillUninstall(leaving), then
    // pluginsDidInstall(arriving); an empty list is not announced.
    void announce(std::vector<RegistryPlugInRecordPtr> leaving, std::vector<RegistryPlugInRecordPtr> arriving);

    // Returns once every announcement queued before the call was delivered.
    void waitUntilDelivered();

private:
    std::vector<std::weak_ptr<ApplicationRegistryObserver>> observers();

    std::mutex mutex_; // guards observers_
    std::vector<std::weak_ptr<ApplicationRegistryObserver>> observers_;
    std::shared_ptr<SerialQueue> callbacks_;
};

} // namespace tv::platform
