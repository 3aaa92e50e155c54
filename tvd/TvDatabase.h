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
// It owns the annotation store and is the only way to it; every use of the
// store runs on the database queue.
//
// Queue: the serial queue "TvDatabase" guards the cache and the store. plugInForProxy(),
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
#include "tvd/TvdAnnotationStore.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tv {

namespace platform {
class NotificationService;
}

// Posted whenever annotations or holds change.
inline constexpr const char* kAnnotationChangeNotification = "com.veltra.tarvik.annotation-change";

class TvDatabaseDelegate;
class TvdPlugIn;

class TvDatabase : public platform::ApplicationRegistryObserver {
public:
    ~TvDatabase() override = default;

    // A database over `workspace` whose annotation file lives at `location`
    // (null: the default location, found through `store`), posting the
    // annotation-change notification through `notifications` (null: not
    // posted). Null when the database cannot be set up.
    static std::shared_ptr<TvDatabase> initWithDatabase(
        const char* location, std::shared_ptr<platform::ApplicationRegistry> workspace,
        TvdAnnotationStore::Services store = {},
        std::shared_ptr<platform::NotificationService> notifications = nullptr);

    // --- Records ------------------------------------------------------------

    // The cached record for the registry record, or a new one. Null when no
    // record can be built from it.
    std::shared_ptr<TvdPlugIn> plugInForProxy(const platform::RegistryPlugInRecordPtr& proxy);
    // plugInForProxy() for each record, all in one pass on the database
    // queue (one entry per record, null where none can be built).
    std::vector<std::shared_ptr<TvdPlugIn>> plugInsForProxies(
        const std::vector<platform::RegistryPlugInRecordPtr>& proxies);
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

    // --- Discovery ------------------------------------------------------------

    // The candidate records for a host's query (its "rules", null or a
    // dictionary), each record once, in the registry's order; none when the
    // registry gave no list. The registry matches the query
    // (ApplicationRegistry::queryPlugIns); the database adds one filter, on
    // the user's elections, when the query's "KoUserElection" is a valid
    // election list (electionList()), and leaves out records without a
    // bundle URL, records in placeholder applications and records whose
    // container is not an application (logged). Runs on the caller's
    // thread and enters the database queue for each record and each
    // election read. REQUIRES: not on the database queue.
    std::optional<std::vector<std::shared_ptr<TvdPlugIn>>> findPlugIns(const Value& query);

    // The normalised "KoUserElection" of a query: a list of election values
    // as decimal text, or none (no election filtering) when the key is
    // absent, of another kind, or holds an element that is not a non-empty
    // string starting with "=" (dropped) or an alphanumeric character.
    static std::optional<std::vector<std::string>> electionList(const Value& query);
    // One element of "KoUserElection" normalised; none when invalid.
    static std::optional<std::string> normalizeElection(const Value& value);

    // --- Annotations ----------------------------------------------------------

    // The stored annotation of the plug-in (under its annotation key), or null.
    Value annotationForPlugIn(const TvdPlugIn& plugIn);
    // annotationForPlugIn() of each plug-in, in one pass on the database queue.
    std::vector<Value> annotationsForPlugIns(const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns);
    // Stores `annotation` merged over the plug-in's entry (null removes the
    // entry) and saves; a failed save is logged by the store, never returned.
    void setAnnotationForPlugIn(const Value& annotation, const TvdPlugIn& plugIn);
    // Posts "com.veltra.tarvik.annotation-change". Neither annotation
    // operation posts it: the request handlers do, once per request.
    void notifyAnnotationChange();

    // Stores "election" 1 in the plug-in's annotation unless it already
    // holds a non-zero "election". REQUIRES: on the database queue.
    void autoElect(TvdPlugIn& plugIn);

    // Number of cached records (diagnostics, tests, benchmarks), read
    // without entering the database queue.
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
                           std::weak_ptr<platform::ApplicationRegistryObserver> self,
                           TvdAnnotationStore::Services store,
                           std::shared_ptr<platform::NotificationService> notifications);

private:
    std::atomic<std::weak_ptr<TvDatabaseDelegate>> delegate_;
    std::atomic<std::uint32_t> cacheLimit_{0};
    std::optional<std::string> location_;
    // The registry's filter for an election list: true when the stored (or
    // auto-elect) election of the record, as its low byte in decimal, is in
    // the list.
    bool electionFilter(const platform::RegistryPlugInRecord& record, const std::vector<std::string>& elections);

    std::shared_ptr<platform::ApplicationRegistry> workspace_;
    std::shared_ptr<platform::NotificationService> notifications_;
    std::unique_ptr<TvdAnnotationStore> annotations_; // only on sync_
    std::shared_ptr<SerialQueue> sync_;
    std::unordered_map<Uuid, std::shared_ptr<TvdPlugIn>> cache_; // only on sync_
    // cache_.size(), readable without entering the queue.
    std::atomic<std::size_t> cachedCount_{0};
};

// Told about plug-ins that the application registry is uninstalling, after
// they left the cache and outside the database queue.
class TvDatabaseDelegate {
public:
    virtual ~TvDatabaseDelegate() = default;
    virtual void removedPlugIns(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns) = 0;
};

} // namespace tv
