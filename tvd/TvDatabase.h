// TvDatabase: the daemon's registry of installed plug-ins. The server is a
// TvDatabase and its own delegate.
//
// The platform's application registry (`workspace`) is the source of truth
// for installed plug-ins. The database keeps a cache of daemon records
// (TvdPlugIn) built from the registry's records, keyed by plug-in UUID; it
// forwards registration and deregistration of bundles to the registry, and
// observes the registry for installs (logged) and uninstalls (dropped from
// the cache, then told to the delegate).
//
// The cache is bounded by `cacheLimit`: a record creation that finds more
// entries than the limit first empties the whole cache (and the registry's
// own caches), so the cache never holds more than cacheLimit + 1 records.
// There is no partial eviction.
//
// Queue: the serial queue "TvDatabase" guards the cache. plugInForProxy(),
// findPlugIn() and the cache part of pluginsWillUninstall() enter it
// synchronously; createPlugInForProxy(), purgeCachesToLimit() run only on it
// and check that they do. Entering it from work already on it is refused as
// an internal-consistency failure, so nothing that runs on it may call back
// into these operations.
//
// Thread-safety: every public operation may be called from any thread except
// the database queue itself.
#pragma once

#include "base/SerialQueue.h"
#include "base/TvError.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "platform/registry/ApplicationRegistry.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tv {

class TvDatabaseDelegate;
class TvdPlugIn;

class TvDatabase : public platform::ApplicationRegistryObserver {
public:
    ~TvDatabase() override = default;

    // A database over `workspace` whose annotation file lives at `location`
    // (null: the default location). Null when the database cannot be set up.
    static std::shared_ptr<TvDatabase> initWithDatabase(const char* location,
                                                        std::shared_ptr<platform::ApplicationRegistry> workspace);

    // --- Records ------------------------------------------------------------

    // The cached record for the registry record, or a new one. Null when no
    // record can be built from it.
    std::shared_ptr<TvdPlugIn> plugInForProxy(const platform::RegistryPlugInRecordPtr& proxy);
    // Builds, elects (auto-elect entitlement), purges to the limit and caches
    // a record. REQUIRES: on the database queue.
    std::shared_ptr<TvdPlugIn> createPlugInForProxy(const platform::RegistryPlugInRecordPtr& proxy);
    // Empties the cache and the registry's caches when the cache holds more
    // than `limit` records. REQUIRES: on the database queue.
    void purgeCachesToLimit(std::uint32_t limit);

    // The record of the installed plug-in with this UUID; null (logged) when
    // the registry knows none.
    std::shared_ptr<TvdPlugIn> findPlugIn(const Uuid& uuid);
    // The record of the plug-in whose bundle is at the file URL `url`; null
    // (logged) when the registry knows none there.
    std::shared_ptr<TvdPlugIn> findPlugInAtPath(const Value& url);
    // The records of the plug-ins of the application at the file URL `url`,
    // in the registry's order, leaving out those that cannot be built. None
    // (not an empty list) when there is no such application or it has no
    // plug-ins.
    std::optional<std::vector<std::shared_ptr<TvdPlugIn>>> plugInsWithinApplication(const Value& url);

    // Asks the registry to register (or unregister) the plug-in bundle at
    // `url` (a file URL). None on success; on refusal an error with code 2.
    // The cache is not touched: an uninstall reaches it through the
    // registry's notification.
    MaybeError addPlugIn(const Value& url);
    MaybeError removePlugIn(const Value& url);

    // Stores "election" 1 in the plug-in's annotation unless it already
    // holds a non-zero "election". REQUIRES: on the database queue.
    void autoElect(TvdPlugIn& plugIn);

    // Number of cached records (diagnostics, tests, benchmarks).
    std::size_t cachedCount();

    // --- Registry observation -----------------------------------------------

    void pluginsDidInstall(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns) override;
    void pluginsWillUninstall(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns) override;

    // --- Properties ---------------------------------------------------------

    const std::shared_ptr<platform::ApplicationRegistry>& workspace() const { return workspace_; }

    std::shared_ptr<TvDatabaseDelegate> delegate() const { return delegate_.load().lock(); }
    void setDelegate(std::weak_ptr<TvDatabaseDelegate> delegate) { delegate_.store(std::move(delegate)); }

    // Cache size above which the next record creation empties the cache; 0
    // until the server sets it.
    std::uint32_t cacheLimit() const { return cacheLimit_.load(); }
    void setCacheLimit(std::uint32_t limit) { cacheLimit_.store(limit); }

    const std::optional<std::string>& databaseLocation() const { return location_; }
    const std::shared_ptr<SerialQueue>& syncQueue() const { return sync_; }

protected:
    TvDatabase() = default;
    // The failable part of construction, shared with subclasses. `self` is
    // this database, registered (weakly) as the registry's observer.
    bool setupWithDatabase(const char* location, std::shared_ptr<platform::ApplicationRegistry> workspace,
                           std::weak_ptr<platform::ApplicationRegistryObserver> self);

private:
    std::atomic<std::weak_ptr<TvDatabaseDelegate>> delegate_;
    std::atomic<std::uint32_t> cacheLimit_{0};
    std::optional<std::string> location_;
    std::shared_ptr<platform::ApplicationRegistry> workspace_;
    std::shared_ptr<SerialQueue> sync_;
    std::unordered_map<Uuid, std::shared_ptr<TvdPlugIn>> cache_; // only on sync_
};

// Told about plug-ins that the application registry is uninstalling, after
// they left the cache and outside the database queue.
class TvDatabaseDelegate {
public:
    virtual ~TvDatabaseDelegate() = default;
    virtual void removedPlugIns(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns) = 0;
};

} // namespace tv
