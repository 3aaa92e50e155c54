#include "tvd/TvDatabase.h"

#include "Tarvik/TvLog.h"
#include "tvd/TvdPlugIn.h"

namespace tv {

namespace {
// A plug-in that carries this entitlement is elected when its record is
// first built, unless the user already chose.
constexpr const char* kAutoElectEntitlement = "com.veltra.developer.auto-elect-plugin";
} // namespace

std::shared_ptr<TvDatabase> TvDatabase::initWithDatabase(const char* location,
                                                         std::shared_ptr<platform::ApplicationRegistry> workspace)
{
    std::shared_ptr<TvDatabase> db(new TvDatabase());
    if (!db->setupWithDatabase(location, std::move(workspace), db))
        return nullptr;
    return db;
}

bool TvDatabase::setupWithDatabase(const char* location, std::shared_ptr<platform::ApplicationRegistry> workspace,
                                   std::weak_ptr<platform::ApplicationRegistryObserver> self)
{
    if (!workspace)
        return false;
    workspace_ = std::move(workspace);
    if (location)
        location_ = std::string(location);
    sync_ = SerialQueue::create("TvDatabase");
    workspace_->addObserver(std::move(self));
    return true;
}

std::shared_ptr<TvdPlugIn> TvDatabase::plugInForProxy(const platform::RegistryPlugInRecordPtr& proxy)
{
    if (!proxy)
        return nullptr;
    std::shared_ptr<TvdPlugIn> result;
    sync_->sync([&] {
        auto it = cache_.find(proxy->uuid);
        result = it != cache_.end() ? it->second : createPlugInForProxy(proxy);
    });
    return result;
}

std::shared_ptr<TvdPlugIn> TvDatabase::createPlugInForProxy(const platform::RegistryPlugInRecordPtr& proxy)
{
    sync_->assertCurrent("TvDatabase::createPlugInForProxy");
    auto plugIn = TvdPlugIn::initWithRSData(proxy);
    if (!plugIn)
        return nullptr;
    if (plugIn->hasEntitlement(kAutoElectEntitlement))
        autoElect(*plugIn);
    purgeCachesToLimit(cacheLimit());
    cache_.insert_or_assign(proxy->uuid, plugIn);
    return plugIn;
}

void TvDatabase::purgeCachesToLimit(std::uint32_t limit)
{
    sync_->assertCurrent("TvDatabase::purgeCachesToLimit");
    if (cache_.size() <= limit)
        return;
    TvLog::ops().info("purging cache for %d > %d", cache_.size(), limit);
    cache_.clear();
    workspace_->dropCaches();
}

std::shared_ptr<TvdPlugIn> TvDatabase::findPlugIn(const Uuid& uuid)
{
    std::shared_ptr<TvdPlugIn> result;
    sync_->sync([&] {
        if (auto it = cache_.find(uuid); it != cache_.end()) {
            result = it->second;
            return;
        }
        if (auto proxy = workspace_->plugInWithUuid(uuid)) {
            result = createPlugInForProxy(proxy);
            return;
        }
        TvLog::ops().info("Rostra cannot find plug-in with UUID:%{public}@", uuid.string());
    });
    return result;
}

std::shared_ptr<TvdPlugIn> TvDatabase::findPlugInAtPath(const Value& url)
{
    if (auto proxy = workspace_->plugInAtPath(url.urlPath()))
        return findPlugIn(proxy->uuid);
    TvLog::ops().info("Rostra cannot find plug-in at path:%@", url.urlPath());
    return nullptr;
}

std::optional<std::vector<std::shared_ptr<TvdPlugIn>>> TvDatabase::plugInsWithinApplication(const Value& url)
{
    auto application = workspace_->applicationAtPath(url.urlPath());
    if (!application)
        return std::nullopt;
    auto proxies = workspace_->plugInsOfApplication(*application);
    if (proxies.empty())
        return std::nullopt;
    std::vector<std::shared_ptr<TvdPlugIn>> plugIns;
    for (const auto& proxy : proxies)
        if (auto plugIn = plugInForProxy(proxy))
            plugIns.push_back(std::move(plugIn));
    return plugIns;
}

MaybeError TvDatabase::addPlugIn(const Value& url)
{
    if (workspace_->registerPlugIn(url.urlPath()))
        return makeError(2, "Rostra failed to register the plug-in");
    return std::nullopt;
}

MaybeError TvDatabase::removePlugIn(const Value& url)
{
    if (workspace_->unregisterPlugIn(url.urlPath()))
        return makeError(2, "Rostra failed to deregister the plug-in");
    return std::nullopt;
}

std::size_t TvDatabase::cachedCount()
{
    std::size_t count = 0;
    sync_->sync([&] { count = cache_.size(); });
    return count;
}

void TvDatabase::autoElect(TvdPlugIn& plugIn)
{
    sync_->assertCurrent("TvDatabase::autoElect");
    (void)plugIn;
}

void TvDatabase::pluginsDidInstall(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns)
{
    for (const auto& p : plugIns)
        TvLog::ops().notice("plug-in INSTALLED:%@ %@(%@) %{public}@ %@", p->bundleIdentifier, p->plugInIdentifier,
                            p->bundleVersion, p->uuid.string(), p->bundlePath);
}

void TvDatabase::pluginsWillUninstall(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns)
{
    sync_->sync([&] {
        for (const auto& p : plugIns) {
            TvLog::ops().notice("plug-in UNINSTALLED:%@ %@(%@) %{public}@ %@", p->bundleIdentifier,
                                p->plugInIdentifier, p->bundleVersion, p->uuid.string(), p->bundlePath);
            cache_.erase(p->uuid);
        }
    });
    if (auto d = delegate())
        d->removedPlugIns(plugIns);
}

} // namespace tv
