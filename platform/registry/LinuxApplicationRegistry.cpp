#include "platform/registry/LinuxApplicationRegistry.h"

#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"
#include "platform/registry/RegistryWatcher.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

constexpr const char* kLogCategory = "registry";

std::optional<std::string> stringOf(const Value& value)
{
    if (const std::string* s = value.asString())
        return *s;
    return std::nullopt;
}

// The entries of `dir` whose names end with `suffix` and that are
// directories (following symbolic links), in name order. A missing or
// unreadable directory has none.
std::vector<std::string> bundlesIn(const std::string& dir, std::string_view suffix)
{
    std::vector<std::string> found;
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    if (ec)
        return found;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec)
            break;
        const std::string name = it->path().filename().string();
        std::error_code statError;
        if (name.size() > suffix.size() && name.ends_with(suffix) && fs::is_directory(it->path(), statError))
            found.push_back(it->path().string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool sameStoredContents(const StoredPlugIn& a, const StoredPlugIn& b)
{
    return a.applicationPath == b.applicationPath && a.registeredByPath == b.registeredByPath && a.info == b.info &&
           a.entitlements == b.entitlements;
}

// Tells which thread is making a change, and forgets it again.
class ChangingThread {
public:
    explicit ChangingThread(std::atomic<std::thread::id>& slot) : slot_(slot)
    {
        slot_.store(std::this_thread::get_id());
    }
    ~ChangingThread() { slot_.store(std::thread::id()); }
    ChangingThread(const ChangingThread&) = delete;
    ChangingThread& operator=(const ChangingThread&) = delete;

private:
    std::atomic<std::thread::id>& slot_;
};

} // namespace

struct LinuxApplicationRegistry::Candidate {
    std::string path;
    std::string applicationPath;
    bool registeredByPath = false;
};

struct LinuxApplicationRegistry::Scan {
    // Applications are reconciled only when the scan covered the roots.
    bool coversApplications = false;
    std::vector<StoredApplication> applications;
    // Fresh readings: no UUID or registration date yet.
    std::vector<StoredPlugIn> plugIns;
};

Result<std::shared_ptr<LinuxApplicationRegistry>> LinuxApplicationRegistry::create(
    const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
    std::shared_ptr<CodeSigningService> codeSigning)
{
    auto db = RegistryDatabase::open(config.registryDatabase);
    if (!db)
        return db.error();
    auto stored = (*db)->load();
    if (!stored)
        return stored.error();
    std::shared_ptr<LinuxApplicationRegistry> registry(new LinuxApplicationRegistry(
        config, std::move(bundles), std::move(codeSigning), std::move(*db), std::move(*stored)));
    registry->rescan();
    return registry;
}

LinuxApplicationRegistry::LinuxApplicationRegistry(const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
                                                   std::shared_ptr<CodeSigningService> codeSigning,
                                                   std::unique_ptr<RegistryDatabase> db, StoredRegistry stored)
    : config_(config),
      bundles_(std::move(bundles)),
      codeSigning_(std::move(codeSigning)),
      db_(std::move(db)),
      stored_(std::move(stored))
{
}

LinuxApplicationRegistry::~LinuxApplicationRegistry()
{
    // The watcher's thread calls into this object: it goes first.
    watcher_.reset();
}

std::string LinuxApplicationRegistry::canonicalBundlePath(const std::string& pathOrUrl)
{
    std::string_view text = pathOrUrl;
    if (text.starts_with("file://"))
        text.remove_prefix(7);
    if (text.empty())
        return {};
    std::error_code ec;
    fs::path absolute = fs::absolute(fs::path(text), ec);
    if (ec)
        return {};
    fs::path canonical = fs::weakly_canonical(absolute, ec);
    std::string path = (ec ? absolute.lexically_normal() : canonical).string();
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

// MARK: - Lookups

std::shared_ptr<const RegistryIndex> LinuxApplicationRegistry::index()
{
    std::lock_guard lock(stateMutex_);
    if (!index_) {
        std::string volume = config_.systemVolumeRoot;
        if (!volume.empty() && volume.back() != '/')
            volume += '/';
        index_ = std::make_shared<const RegistryIndex>(stored_, RegistryIndex::Locations{volume, config_.containersRoot});
    }
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

bool LinuxApplicationRegistry::reentered() const
{
    return changingThread_.load() == std::this_thread::get_id();
}

void LinuxApplicationRegistry::rescan()
{
    if (reentered()) {
        platformLog(LogLevel::Error, kLogCategory, "refused a rescan from inside a registry notification");
        return;
    }
    std::lock_guard lock(changeMutex_);
    ChangingThread changing(changingThread_);
    if (MaybeError error = reconcile(scanDisk(), std::nullopt))
        platformLog(LogLevel::Error, kLogCategory, "rescan not recorded: %{public}s", error->localizedDescription());
}

MaybeError LinuxApplicationRegistry::registerPlugIn(const std::string& pathOrUrl)
{
    if (reentered())
        return makeError(EDEADLK, "cannot register a plug-in from inside a registry notification");
    const std::string path = canonicalBundlePath(pathOrUrl);
    std::lock_guard lock(changeMutex_);
    ChangingThread changing(changingThread_);

    Candidate candidate{path, {}, true};
    for (const StoredPlugIn& p : stored_.plugIns)
        if (p.path == path)
            candidate.applicationPath = p.applicationPath;
    std::string whyNot;
    std::optional<StoredPlugIn> fresh = readPlugIn(candidate, &whyNot);
    if (!fresh)
        return makeError(EINVAL, "cannot register " + pathOrUrl + ": " + whyNot);
    Scan scan;
    scan.plugIns.push_back(std::move(*fresh));
    return reconcile(scan, path);
}

MaybeError LinuxApplicationRegistry::unregisterPlugIn(const std::string& pathOrUrl)
{
    if (reentered())
        return makeError(EDEADLK, "cannot unregister a plug-in from inside a registry notification");
    const std::string path = canonicalBundlePath(pathOrUrl);
    std::lock_guard lock(changeMutex_);
    ChangingThread changing(changingThread_);

    if (std::none_of(stored_.plugIns.begin(), stored_.plugIns.end(),
                     [&](const StoredPlugIn& p) { return p.path == path; }))
        return makeError(ENOENT, "no plug-in is registered at " + pathOrUrl);
    return reconcile(Scan{}, path);
}

void LinuxApplicationRegistry::dropCaches()
{
    if (reentered())
        return;
    std::lock_guard lock(changeMutex_);
    auto stored = db_->load();
    std::lock_guard state(stateMutex_);
    if (stored)
        stored_ = std::move(*stored);
    else
        platformLog(LogLevel::Error, kLogCategory, "cannot reload the registry: %{public}s",
                    stored.error().localizedDescription());
    index_.reset();
}

void LinuxApplicationRegistry::addObserver(std::weak_ptr<ApplicationRegistryObserver> observer)
{
    std::lock_guard lock(stateMutex_);
    observers_.push_back(std::move(observer));
}

void LinuxApplicationRegistry::notify(bool install, const std::vector<RegistryPlugInRecordPtr>& plugIns)
{
    if (plugIns.empty())
        return;
    std::vector<std::shared_ptr<ApplicationRegistryObserver>> observers;
    {
        std::lock_guard lock(stateMutex_);
        std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
        for (const auto& weak : observers_)
            if (auto observer = weak.lock())
                observers.push_back(std::move(observer));
    }
    for (const auto& observer : observers) {
        if (install)
            observer->pluginsDidInstall(plugIns);
        else
            observer->pluginsWillUninstall(plugIns);
    }
}

LinuxApplicationRegistry::Scan LinuxApplicationRegistry::scanDisk()
{
    Scan scan;
    scan.coversApplications = true;
    std::vector<Candidate> candidates;
    std::map<std::string, std::size_t> candidateAt;
    auto add = [&](const std::string& path, const std::string& applicationPath, bool byPath) {
        const std::string canonical = canonicalBundlePath(path);
        auto [it, added] = candidateAt.emplace(canonical, candidates.size());
        if (added)
            candidates.push_back(Candidate{canonical, applicationPath, byPath});
        else
            candidates[it->second].registeredByPath |= byPath;
    };

    std::map<std::string, bool> applicationSeen;
    for (const std::string& root : config_.applicationRoots) {
        for (const std::string& appDir : bundlesIn(root, ".app")) {
            auto handle = bundles_->openBundleDirectory(appDir);
            std::optional<std::string> path = handle ? bundles_->bundlePath(*handle) : std::nullopt;
            Value info = handle ? bundles_->infoDictionary(*handle) : Value();
            if (!path || !info.isDictionary()) {
                platformLog(LogLevel::Info, kLogCategory, "skipping application %@: no readable Info.vlist dictionary",
                            appDir);
                continue;
            }
            if (!applicationSeen.emplace(*path, true).second)
                continue;
            scan.applications.push_back(StoredApplication{*path, info});
            for (const std::string& plugIn : bundlesIn(*path + "/PlugIns", ".vext"))
                add(plugIn, *path, false);
        }
    }
    if (!config_.systemPlugInsDir.empty())
        for (const std::string& plugIn : bundlesIn(config_.systemPlugInsDir, ".vext"))
            add(plugIn, {}, false);
    for (const StoredPlugIn& p : stored_.plugIns)
        if (p.registeredByPath)
            add(p.path, applicationSeen.count(p.applicationPath) ? p.applicationPath : std::string(), true);

    for (const Candidate& candidate : candidates) {
        std::string whyNot;
        if (auto fresh = readPlugIn(candidate, &whyNot))
            scan.plugIns.push_back(std::move(*fresh));
        else
            platformLog(LogLevel::Info, kLogCategory, "skipping plug-in %@: %@", candidate.path, whyNot);
    }
    return scan;
}

std::optional<StoredPlugIn> LinuxApplicationRegistry::readPlugIn(const Candidate& candidate, std::string* whyNot)
{
    if (!candidate.path.ends_with(".vext") || candidate.path.ends_with("/.vext")) {
        *whyNot = "not a .vext bundle";
        return std::nullopt;
    }
    auto handle = bundles_->openBundleDirectory(candidate.path);
    if (!handle) {
        *whyNot = "not a bundle directory with an Info.vlist";
        return std::nullopt;
    }
    Value info = bundles_->infoDictionary(*handle);
    if (!info.isDictionary()) {
        *whyNot = "Info.vlist is not a readable dictionary";
        return std::nullopt;
    }
    const Value& extension = info["KoExtension"];
    if (!extension.isDictionary()) {
        *whyNot = "Info.vlist has no KoExtension dictionary";
        return std::nullopt;
    }
    StoredPlugIn p;
    p.path = candidate.path;
    p.applicationPath = candidate.applicationPath;
    p.registeredByPath = candidate.registeredByPath;
    p.identifier = stringOf(extension["KoExtensionIdentifier"]).value_or(stringOf(info["KbBundleIdentifier"]).value_or(""));
    if (p.identifier.empty()) {
        *whyNot = "no KoExtensionIdentifier or KbBundleIdentifier";
        return std::nullopt;
    }
    p.version = stringOf(info["KbBundleVersion"]).value_or(stringOf(info["KbBundleShortVersionString"]).value_or(""));
    p.entitlements = Value::emptyDictionary();
    if (std::optional<std::string> executable = bundles_->executablePath(*handle)) {
        Result<Value> entitlements = codeSigning_->entitlementsOfExecutable(*executable);
        if (entitlements && entitlements->isDictionary())
            p.entitlements = std::move(*entitlements);
        else if (!entitlements)
            platformLog(LogLevel::Info, kLogCategory, "no entitlements for %@: %{public}s", *executable,
                        entitlements.error().localizedDescription());
    }
    p.info = std::move(info);
    return p;
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

MaybeError LinuxApplicationRegistry::reconcile(const Scan& scan, const std::optional<std::string>& scope)
{
    auto inScope = [&](const std::string& path) { return !scope || *scope == path; };
    std::map<std::string, const StoredPlugIn*> freshAt;
    for (const StoredPlugIn& p : scan.plugIns)
        if (inScope(p.path))
            freshAt.emplace(p.path, &p);

    RegistryChanges changes;
    std::vector<Uuid> uninstalled;
    std::vector<Uuid> installed;
    auto install = [&](StoredPlugIn p) {
        p.uuid = Uuid::random();
        p.registered = Date::now();
        installed.push_back(p.uuid);
        changes.storedPlugIns.push_back(std::move(p));
    };
    for (const StoredPlugIn& old : stored_.plugIns) {
        if (!inScope(old.path))
            continue;
        auto it = freshAt.find(old.path);
        if (it == freshAt.end()) {
            changes.removedPlugIns.push_back(old.uuid);
            uninstalled.push_back(old.uuid);
            continue;
        }
        const StoredPlugIn& fresh = *it->second;
        if (fresh.identifier == old.identifier && fresh.version == old.version) {
            if (!sameStoredContents(fresh, old)) {
                StoredPlugIn refreshed = fresh;
                refreshed.uuid = old.uuid;
                refreshed.registered = old.registered;
                changes.storedPlugIns.push_back(std::move(refreshed));
            }
            // A container removed behind the registry's back comes back empty.
            createDataContainer(old.uuid);
        } else {
            changes.removedPlugIns.push_back(old.uuid);
            uninstalled.push_back(old.uuid);
            install(fresh);
        }
        freshAt.erase(it);
    }
    for (const auto& [path, fresh] : freshAt)
        install(*fresh);

    if (scan.coversApplications) {
        std::map<std::string, const StoredApplication*> storedApps;
        for (const StoredApplication& a : stored_.applications)
            storedApps.emplace(a.path, &a);
        for (const StoredApplication& a : scan.applications) {
            auto it = storedApps.find(a.path);
            if (it == storedApps.end() || !(it->second->info == a.info))
                changes.storedApplications.push_back(a);
            if (it != storedApps.end())
                storedApps.erase(it);
        }
        for (const auto& [path, app] : storedApps)
            changes.removedApplications.push_back(path);
    }
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
        for (const StoredPlugIn& p : stored_.plugIns) {
            const bool removed = std::find(changes.removedPlugIns.begin(), changes.removedPlugIns.end(), p.uuid) !=
                                 changes.removedPlugIns.end();
            if (!removed && !replaced.count(p.uuid))
                next.plugIns.push_back(p);
        }
        next.plugIns.insert(next.plugIns.end(), changes.storedPlugIns.begin(), changes.storedPlugIns.end());
        std::sort(next.plugIns.begin(), next.plugIns.end(),
                  [](const StoredPlugIn& a, const StoredPlugIn& b) { return a.path < b.path; });
        next.applications = scan.coversApplications ? scan.applications : stored_.applications;
    }
    std::string volume = config_.systemVolumeRoot;
    if (!volume.empty() && volume.back() != '/')
        volume += '/';
    auto nextIndex = std::make_shared<const RegistryIndex>(next, RegistryIndex::Locations{volume, config_.containersRoot});

    // Uninstalls are announced while lookups still find the old records.
    auto previous = index();
    std::vector<RegistryPlugInRecordPtr> leaving;
    for (const Uuid& uuid : uninstalled)
        if (auto record = previous->plugInWithUuid(uuid))
            leaving.push_back(std::move(record));
    for (const auto& record : leaving)
        platformLog(LogLevel::Info, kLogCategory, "uninstalling plug-in %@ (%@) %{public}@ at %@",
                    record->plugInIdentifier, record->bundleVersion, record->uuid.string(), record->bundlePath);
    notify(false, leaving);

    {
        std::lock_guard lock(stateMutex_);
        stored_ = std::move(next);
        index_ = nextIndex;
    }

    std::vector<RegistryPlugInRecordPtr> arriving;
    for (const Uuid& uuid : installed)
        if (auto record = nextIndex->plugInWithUuid(uuid))
            arriving.push_back(std::move(record));
    std::sort(arriving.begin(), arriving.end(), [](const auto& a, const auto& b) { return a->bundlePath < b->bundlePath; });
    for (const auto& record : arriving)
        platformLog(LogLevel::Info, kLogCategory, "installed plug-in %@ (%@) %{public}@ at %@",
                    record->plugInIdentifier, record->bundleVersion, record->uuid.string(), record->bundlePath);
    notify(true, arriving);
    return std::nullopt;
}

// MARK: - Watching

std::vector<std::string> LinuxApplicationRegistry::watchedDirectories() const
{
    std::vector<std::string> dirs(config_.applicationRoots.begin(), config_.applicationRoots.end());
    if (!config_.systemPlugInsDir.empty())
        dirs.push_back(config_.systemPlugInsDir);
    std::lock_guard lock(stateMutex_);
    for (const StoredApplication& app : stored_.applications) {
        dirs.push_back(app.path);
        dirs.push_back(app.path + "/PlugIns");
    }
    // A bundle replaced in place (a new Info.vlist renamed over the old one)
    // changes only its own directory.
    for (const StoredPlugIn& p : stored_.plugIns)
        dirs.push_back(p.path);
    return dirs;
}

MaybeError LinuxApplicationRegistry::startWatching(std::chrono::milliseconds settle)
{
    std::lock_guard lock(changeMutex_);
    if (watcher_)
        return std::nullopt;
    auto watcher = RegistryWatcher::start(
        settle, [this] { return watchedDirectories(); }, [this] { rescan(); });
    if (!watcher)
        return watcher.error();
    watcher_ = std::move(*watcher);
    return std::nullopt;
}

} // namespace tv::platform
