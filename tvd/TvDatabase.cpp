#include "tvd/TvDatabase.h"

#include "Tarvik/TvLog.h"
#include "platform/notify/NotificationService.h"
#include "tvd/TvdPlugIn.h"

namespace tv {

namespace {
// A plug-in that carries this entitlement is elected when its record is
// first built, unless the user already chose.
constexpr const char* kAutoElectEntitlement = "com.veltra.developer.auto-elect-plugin";
} // namespace

std::shared_ptr<TvDatabase> TvDatabase::initWithDatabase(const char* location,
                                                         std::shared_ptr<platform::ApplicationRegistry> workspace,
                                                         TvdAnnotationStore::Services store,
                                                         std::shared_ptr<platform::NotificationService> notifications)
{
    std::shared_ptr<TvDatabase> db(new TvDatabase());
    if (!db->setupWithDatabase(location, std::move(workspace), db, std::move(store), std::move(notifications)))
        return nullptr;
    return db;
}

bool TvDatabase::setupWithDatabase(const char* location, std::shared_ptr<platform::ApplicationRegistry> workspace,
                                   std::weak_ptr<platform::ApplicationRegistryObserver> self,
                                   TvdAnnotationStore::Services store,
                                   std::shared_ptr<platform::NotificationService> notifications)
{
    if (!workspace)
        return false;
    workspace_ = std::move(workspace);
    if (location)
        location_ = std::string(location);
    annotations_ = TvdAnnotationStore::initWithDatabase(location_, std::move(store));
    if (!annotations_)
        return false;
    notifications_ = std::move(notifications);
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

Value TvDatabase::annotationForPlugIn(const TvdPlugIn& plugIn)
{
    Value result;
    sync_->sync([&] { result = annotations_->annotationForPlugIn(plugIn); });
    return result;
}

void TvDatabase::setAnnotationForPlugIn(const Value& annotation, const TvdPlugIn& plugIn)
{
    sync_->sync([&] { annotations_->setAnnotationForPlugIn(annotation, plugIn); });
}

void TvDatabase::notifyAnnotationChange()
{
    if (!notifications_)
        return;
    if (auto error = notifications_->post(kAnnotationChangeNotification))
        TvLog::ops().error("unable to post %{public}s: %{public}@", kAnnotationChangeNotification,
                           error->localizedDescription());
}

void TvDatabase::autoElect(TvdPlugIn& plugIn)
{
    sync_->assertCurrent("TvDatabase::autoElect");
    Value annotation = annotations_->annotationForPlugIn(plugIn);
    if (!annotation.isDictionary())
        annotation = Value(Dictionary{});
    // An existing choice, whatever it is, stands.
    const Value& election = annotation["election"];
    if ((election.asInt() && *election.asInt() != 0) || (election.asUInt() && *election.asUInt() != 0))
        return;
    annotations_->setAnnotationForPlugIn(annotation.with("election", Value(std::int64_t{1})), plugIn);
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
