#include "platform/registry/LinuxApplicationRegistry.h"

#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"
#include "platform/registry/RegistryWatcher.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

constexpr const char* kLogCategory = "registry";

// What a record built from the row shows, beyond identity: a change of any
// of these in place is announced. The registration flag alone is not.
bool sameFacts(const StoredPlugIn& a, const StoredPlugIn& b)
{
    return a.applicationPath == b.applicationPath && a.info == b.info && a.entitlements == b.entitlements;
}

RegistryIndex::Locations locationsOf(const PlatformConfig& config)
{
    // Compared with canonical bundle paths, so canonical itself: a relative
    // or symbolically linked root still contains what lies under it.
    std::string volume = RegistryScanner::canonicalBundlePath(config.systemVolumeRoot);
    if (!volume.empty() && volume.back() != '/')
        volume += '/';
    return RegistryIndex::Locations{volume, config.containersRoot};
}

std::vector<RegistryPlugInRecordPtr> recordsWithUuids(const RegistryIndex& index, const std::set<Uuid>& uuids)
{
    std::vector<RegistryPlugInRecordPtr> records;
    for (const Uuid& uuid : uuids)
        if (auto record = index.plugInWithUuid(uuid))
            records.push_back(std::move(record));
    std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a->bundlePath < b->bundlePath; });
    return records;
}

} // namespace

Result<std::shared_ptr<LinuxApplicationRegistry>> LinuxApplicationRegistry::create(
    const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
    std::shared_ptr<CodeSigningService> codeSigning, std::shared_ptr<ExtensionSdkRegistry> sdks,
    InitialScan initialScan)
{
    auto db = RegistryDatabase::open(config.registryDatabase);
    if (!db)
        return db.error();
    const bool heldPlugIns = (*db)->heldPlugIns();
    std::shared_ptr<LinuxApplicationRegistry> registry(new LinuxApplicationRegistry(
        config, std::move(bundles), std::move(codeSigning), std::move(sdks), std::move(*db)));
    // A store with plug-ins is served as it stands until the watcher has
    // compared it with the disk; an empty one has nothing to serve. Its rows
    // are read when first needed (loadStored()).
    if (initialScan == InitialScan::WhenWatching && heldPlugIns) {
        registry->scanWhenWatching_ = true;
        return registry;
    }
    // No observer can be attached yet: this scan is not announced.
    registry->rescan();
    return registry;
}

LinuxApplicationRegistry::LinuxApplicationRegistry(const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
                                                   std::shared_ptr<CodeSigningService> codeSigning,
                                                   std::shared_ptr<ExtensionSdkRegistry> sdks,
                                                   std::unique_ptr<RegistryDatabase> db)
    : config_(config),
      scanner_(config, std::move(bundles), std::move(codeSigning)),
      sdks_(std::move(sdks)),
      locations_(locationsOf(config)),
      db_(std::move(db))
{
}

void LinuxApplicationRegistry::loadStored()
{
    if (loaded_.load(std::memory_order_acquire))
        return;
    std::lock_guard load(loadMutex_);
    if (loaded_.load(std::memory_order_relaxed))
        return;
    // No change has run (each loads first and waits here), so db_ has no
    // other user, and stored_ no reader.
    stored_ = std::make_shared<const StoredRegistry>(db_->read());
    loaded_.store(true, std::memory_order_release);
}

LinuxApplicationRegistry::~LinuxApplicationRegistry()
{
    // The watcher's thread calls into this object: it goes first.
    watcher_.reset();
}

std::string LinuxApplicationRegistry::canonicalBundlePath(const std::string& pathOrUrl)
{
    return RegistryScanner::canonicalBundlePath(pathOrUrl);
}

// MARK: - Lookups

std::shared_ptr<const RegistryIndex> LinuxApplicationRegistry::makeIndex(
    std::shared_ptr<const StoredRegistry> stored) const
{
    return std::make_shared<const RegistryIndex>(std::move(stored), locations_, sdks_);
}

std::shared_ptr<const RegistryIndex> LinuxApplicationRegistry::index()
{
    loadStored();
    std::lock_guard lock(stateMutex_);
    if (!index_)
        index_ = makeIndex(stored_);
    return index_;
}

std::vector<RegistryPlugInRecordPtr> LinuxApplicationRegistry::allPlugIns()
{
    return index()->allPlugIns();
}

RegistryPlugInRecordPtr LinuxApplicationRegistry::plugInWithUuid(const Uuid& uuid)
{
    return index()->plugInWithUuid(uuid);
}

RegistryPlugInRecordPtr LinuxApplicationRegistry::plugInAtPath(const std::string& pathOrUrl)
{
    return index()->plugInAtPath(canonicalBundlePath(pathOrUrl));
}

RegistryApplicationRecordPtr LinuxApplicationRegistry::applicationAtPath(const std::string& pathOrUrl)
{
    return index()->applicationAtPath(canonicalBundlePath(pathOrUrl));
}

std::vector<RegistryPlugInRecordPtr> LinuxApplicationRegistry::plugInsOfApplication(
    const RegistryApplicationRecord& application)
{
    auto current = index();
    std::vector<RegistryPlugInRecordPtr> plugIns;
    for (const Uuid& uuid : application.plugInUuids)
        if (auto plugIn = current->plugInWithUuid(uuid))
            plugIns.push_back(std::move(plugIn));
    return plugIns;
}

std::optional<std::vector<RegistryPlugInRecordPtr>> LinuxApplicationRegistry::queryPlugIns(
    const Value& query, const RegistryPlugInFilter& filter)
{
    auto candidates = index()->candidates(query);
    if (!candidates)
        return std::nullopt;
    if (filter)
        std::erase_if(*candidates, [&](const RegistryPlugInRecordPtr& p) { return !filter(*p); });
    return candidates;
}

// MARK: - Changes

void LinuxApplicationRegistry::rescan()
{
    std::lock_guard lock(changeMutex_);
    loadStored();
    if (MaybeError error = reconcile(scanner_.scanDisk(*stored_), std::nullopt))
        platformLog(LogLevel::Error, kLogCategory, "rescan not recorded: %{public}s", error->localizedDescription());
}

MaybeError LinuxApplicationRegistry::registerPlugIn(const std::string& pathOrUrl)
{
    const std::string path = canonicalBundlePath(pathOrUrl);
    std::lock_guard lock(changeMutex_);
    loadStored();
    if (MaybeError full = checkRegistrationRoom(path))
        return full;
    // A bundle inside a known application's "PlugIns" belongs to it at once,
    // not only after the next scan.
    RegistryScanner::Candidate candidate{path, RegistryScanner::containingApplicationPath(path, stored_->applications),
                                         true};
    std::string whyNot;
    std::optional<StoredPlugIn> fresh = scanner_.readPlugIn(candidate, &whyNot);
    if (!fresh)
        return registryError(kRegistryErrorNotAPlugIn, "cannot register " + pathOrUrl + ": " + whyNot);
    RegistryScanner::Scan scan;
    scan.plugIns.push_back(std::move(*fresh));
    return reconcile(scan, path);
}

MaybeError LinuxApplicationRegistry::checkRegistrationRoom(const std::string& path) const
{
    // Counted per owner of the bundle directory: a user can only make
    // bundles of their own, so one user's registrations cannot crowd out
    // another's. Registering a path that is known refreshes it, and costs
    // nothing more. The owners are read when a bundle is registered, which
    // is rare, rather than kept in the store.
    struct stat bundle{};
    if (::stat(path.c_str(), &bundle) != 0)
        return std::nullopt; // not a bundle: refused as such by the reader
    std::size_t owned = 0;
    for (const StoredPlugIn& p : stored_->plugIns) {
        if (p.path == path)
            return std::nullopt;
        struct stat other{};
        if (p.registeredByPath && ::stat(p.path.c_str(), &other) == 0 && other.st_uid == bundle.st_uid)
            ++owned;
    }
    if (owned < config_.maxRegisteredPerUser)
        return std::nullopt;
    TvError refused = registryError(kRegistryErrorLimit, "cannot register " + path + ": uid " +
                                                             std::to_string(bundle.st_uid) + " owns " +
                                                             std::to_string(owned) +
                                                             " bundles registered by path, the most allowed");
    platformLog(LogLevel::Default, kLogCategory, "%{public}s", *refused.description);
    return refused;
}

MaybeError LinuxApplicationRegistry::unregisterPlugIn(const std::string& pathOrUrl)
{
    const std::string path = canonicalBundlePath(pathOrUrl);
    std::lock_guard lock(changeMutex_);
    loadStored();
    if (std::none_of(stored_->plugIns.begin(), stored_->plugIns.end(),
                     [&](const StoredPlugIn& p) { return p.path == path; }))
        return registryError(kRegistryErrorNotRegistered, "no plug-in is registered at " + pathOrUrl);
    return reconcile(RegistryScanner::Scan{}, path);
}

void LinuxApplicationRegistry::dropCaches()
{
    // The rows in memory are what the store holds; only the index built
    // from them is a cache. Never waits for a change in progress.
    std::lock_guard state(stateMutex_);
    index_.reset();
}

void LinuxApplicationRegistry::addObserver(std::weak_ptr<ApplicationRegistryObserver> observer)
{
    announcer_.addObserver(std::move(observer));
}

void LinuxApplicationRegistry::waitForAnnouncements()
{
    announcer_.waitUntilDelivered();
}

void LinuxApplicationRegistry::createDataContainer(const Uuid& uuid)
{
    const std::string container = RegistryIndex::dataContainerPath(config_.containersRoot, uuid);
    std::error_code ec;
    fs::create_directories(fs::path(container).parent_path().parent_path(), ec);
    if (::mkdir(container.c_str(), 0700) != 0 && errno != EEXIST)
        platformLog(LogLevel::Error, kLogCategory, "cannot create data container: %{public}s",
                    posixError(errno, container).localizedDescription());
}

MaybeError LinuxApplicationRegistry::reconcile(const RegistryScanner::Scan& scan,
                                               const std::optional<std::string>& scope)
{
    auto inScope = [&](const std::string& path) { return !scope || *scope == path; };
    std::map<std::string, const StoredPlugIn*> freshAt;
    for (const StoredPlugIn& p : scan.plugIns)
        if (inScope(p.path))
            freshAt.emplace(p.path, &p);

    // Applications first: a plug-in whose application changed shows other
    // facts (placeholder flag, names) even when its own row did not change.
    RegistryChanges changes;
    std::set<std::string> changedApplications;
    if (scan.coversApplications) {
        std::map<std::string, const StoredApplication*> storedApps;
        for (const StoredApplication& a : stored_->applications)
            storedApps.emplace(a.path, &a);
        for (const StoredApplication& a : scan.applications) {
            auto it = storedApps.find(a.path);
            if (it == storedApps.end() || !(it->second->info == a.info)) {
                changes.storedApplications.push_back(a);
                changedApplications.insert(a.path);
            }
            if (it != storedApps.end())
                storedApps.erase(it);
        }
        for (const auto& [path, app] : storedApps)
            changes.removedApplications.push_back(path);
    }

    std::set<Uuid> uninstalled;
    std::set<Uuid> installed;
    std::set<Uuid> refreshed;
    auto install = [&](StoredPlugIn p) {
        p.uuid = Uuid::random();
        p.registered = Date::now();
        installed.insert(p.uuid);
        changes.storedPlugIns.push_back(std::move(p));
    };
    for (const StoredPlugIn& old : stored_->plugIns) {
        if (!inScope(old.path))
            continue;
        auto it = freshAt.find(old.path);
        if (it == freshAt.end()) {
            changes.removedPlugIns.push_back(old.uuid);
            uninstalled.insert(old.uuid);
            continue;
        }
        const StoredPlugIn& fresh = *it->second;
        if (fresh.identifier == old.identifier && fresh.version == old.version) {
            // A row of the old schema is stored again to record its
            // extension point; quietly, as nothing about it changed.
            if (!sameFacts(fresh, old) || fresh.registeredByPath != old.registeredByPath || !old.extensionPoint) {
                StoredPlugIn kept = fresh;
                kept.uuid = old.uuid;
                kept.registered = old.registered;
                changes.storedPlugIns.push_back(std::move(kept));
            }
            if (!sameFacts(fresh, old) || changedApplications.count(fresh.applicationPath))
                refreshed.insert(old.uuid);
            // A container removed behind the registry's back comes back empty.
            createDataContainer(old.uuid);
        } else {
            changes.removedPlugIns.push_back(old.uuid);
            uninstalled.insert(old.uuid);
            install(fresh);
        }
        freshAt.erase(it);
    }
    for (const auto& [path, fresh] : freshAt)
        install(*fresh);
    if (changes.empty())
        return std::nullopt;

    if (MaybeError error = db_->apply(changes)) {
        platformLog(LogLevel::Error, kLogCategory, "%{public}s", error->localizedDescription());
        return error;
    }
    for (const Uuid& uuid : installed)
        createDataContainer(uuid);

    StoredRegistry next;
    {
        std::map<Uuid, const StoredPlugIn*> replaced;
        for (const StoredPlugIn& p : changes.storedPlugIns)
            replaced.emplace(p.uuid, &p);
        const std::set<Uuid> removed(changes.removedPlugIns.begin(), changes.removedPlugIns.end());
        for (const StoredPlugIn& p : stored_->plugIns)
            if (!removed.count(p.uuid) && !replaced.count(p.uuid))
                next.plugIns.push_back(p);
        next.plugIns.insert(next.plugIns.end(), changes.storedPlugIns.begin(), changes.storedPlugIns.end());
        std::sort(next.plugIns.begin(), next.plugIns.end(),
                  [](const StoredPlugIn& a, const StoredPlugIn& b) { return a.path < b.path; });
        next.applications = scan.coversApplications ? scan.applications : stored_->applications;
    }
    auto previous = index();
    auto nextStored = std::make_shared<const StoredRegistry>(std::move(next));
    auto nextIndex = makeIndex(nextStored);
    {
        std::lock_guard lock(stateMutex_);
        stored_ = std::move(nextStored);
        index_ = nextIndex;
    }

    std::set<Uuid> leavingUuids = uninstalled;
    leavingUuids.insert(refreshed.begin(), refreshed.end());
    std::set<Uuid> arrivingUuids = installed;
    arrivingUuids.insert(refreshed.begin(), refreshed.end());
    std::vector<RegistryPlugInRecordPtr> leaving = recordsWithUuids(*previous, leavingUuids);
    std::vector<RegistryPlugInRecordPtr> arriving = recordsWithUuids(*nextIndex, arrivingUuids);
    for (const auto& record : leaving)
        if (!refreshed.count(record->uuid))
            platformLog(LogLevel::Info, kLogCategory, "uninstalled plug-in %@ (%@) %{public}@ at %@",
                        record->plugInIdentifier, record->bundleVersion, record->uuid.string(), record->bundlePath);
    for (const auto& record : arriving)
        platformLog(LogLevel::Info, kLogCategory, "%{public}s plug-in %@ (%@) %{public}@ at %@",
                    refreshed.count(record->uuid) ? "refreshed" : "installed", record->plugInIdentifier,
                    record->bundleVersion, record->uuid.string(), record->bundlePath);
    // Queued under the change lock so that announcements keep the order of
    // the changes; delivered on the callback thread with no lock held.
    announcer_.announce(std::move(leaving), std::move(arriving));
    return std::nullopt;
}

// MARK: - Watching

std::vector<std::string> LinuxApplicationRegistry::watchedDirectories()
{
    std::vector<std::string> dirs(config_.applicationRoots.begin(), config_.applicationRoots.end());
    // Every application and plug-in bundle directory, recorded or not: a
    // bundle whose Info.vlist arrives after its directory (and after the
    // rescan the directory caused) is recorded once the file lands.
    auto addPlugInsIn = [&](const std::string& dir) {
        dirs.push_back(dir);
        for (const std::string& plugIn : RegistryScanner::bundlesIn(dir, ".vext"))
            dirs.push_back(canonicalBundlePath(plugIn));
    };
    if (!config_.systemPlugInsDir.empty())
        addPlugInsIn(config_.systemPlugInsDir);
    for (const std::string& root : config_.applicationRoots)
        for (std::string app : RegistryScanner::bundlesIn(root, ".app")) {
            app = canonicalBundlePath(app);
            dirs.push_back(app);
            addPlugInsIn(app + "/PlugIns");
        }
    loadStored();
    std::lock_guard lock(stateMutex_);
    for (const StoredApplication& app : stored_->applications) {
        dirs.push_back(app.path);
        dirs.push_back(app.path + "/PlugIns");
    }
    // A bundle replaced in place (a new Info.vlist renamed over the old one)
    // changes only its own directory.
    for (const StoredPlugIn& p : stored_->plugIns)
        dirs.push_back(p.path);
    return dirs;
}

MaybeError LinuxApplicationRegistry::startWatching(std::chrono::milliseconds settle)
{
    std::lock_guard lock(changeMutex_);
    if (watcher_)
        return std::nullopt;
    // A scan that changes nothing builds no index. The watcher's thread,
    // which runs at a lowered priority, builds it after the scan, so that the
    // first lookup after start does not pay for it (10,000 plug-ins: about
    // 15 ms) unless it comes before the first scan has ended.
    auto watcher = RegistryWatcher::start(
        settle, [this] { return watchedDirectories(); },
        [this] {
            rescan();
            index();
        },
        scanWhenWatching_);
    if (!watcher)
        return watcher.error();
    watcher_ = std::move(*watcher);
    return std::nullopt;
}

} // namespace tv::platform
