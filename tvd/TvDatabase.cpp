#include "tvd/TvDatabase.h"

#include "Tarvik/TvLog.h"
#include "platform/notify/NotificationService.h"
#include "tvd/TvdPlugIn.h"

#include <clocale>
#include <cwctype>
#include <locale.h>
#include <unordered_set>

namespace tv {

namespace {
// A plug-in that carries this entitlement is elected when its record is
// first built, unless the user already chose.
constexpr const char* kAutoElectEntitlement = "com.veltra.developer.auto-elect-plugin";
constexpr const char* kUserElectionKey = "KoUserElection";

// The first code point of UTF-8 text; none when the text does not start
// with a well-formed sequence.
std::optional<char32_t> firstCodePoint(std::string_view text)
{
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(0);
    if (lead < 0x80)
        return lead;
    std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || lead >= 0xF8 || text.size() < length)
        return std::nullopt;
    char32_t cp = lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return std::nullopt;
        cp = (cp << 6) | (byte(i) & 0x3F);
    }
    return cp;
}

// Letters and digits in the Unicode sense; ASCII only when the C.UTF-8
// classification tables are not installed.
bool isAlphanumeric(char32_t cp)
{
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    if (cp < 0x80 || !utf8)
        return cp < 0x80 && std::isalnum(static_cast<int>(cp));
    return ::iswalnum_l(static_cast<wint_t>(cp), utf8) != 0;
}

std::string describeRecords(const std::vector<platform::RegistryPlugInRecordPtr>& records)
{
    Array list;
    list.reserve(records.size());
    for (const auto& r : records)
        list.push_back(Value(r->plugInIdentifier + " " + r->uuid.string() + " " + r->bundlePath));
    return Value(std::move(list)).description();
}

std::string describeRecord(const platform::RegistryPlugInRecord& r)
{
    return "<" + r.plugInIdentifier + " " + r.uuid.string() + " " + r.bundlePath + ">";
}

// A container that the registry reports must be an application bundle.
bool isApplication(const platform::RegistryApplicationRecord& container)
{
    const std::string& path = container.bundlePath;
    return path.size() > 4 && path.compare(path.size() - 4, 4, ".app") == 0;
}
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

std::vector<std::shared_ptr<TvdPlugIn>> TvDatabase::plugInsForProxies(
    const std::vector<platform::RegistryPlugInRecordPtr>& proxies)
{
    std::vector<std::shared_ptr<TvdPlugIn>> result(proxies.size());
    if (proxies.empty())
        return result;
    sync_->sync([&] {
        for (std::size_t i = 0; i < proxies.size(); ++i) {
            if (!proxies[i])
                continue;
            auto it = cache_.find(proxies[i]->uuid);
            result[i] = it != cache_.end() ? it->second : createPlugInForProxy(proxies[i]);
        }
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
    cachedCount_.store(cache_.size());
    return plugIn;
}

void TvDatabase::purgeCachesToLimit(std::uint32_t limit)
{
    sync_->assertCurrent("TvDatabase::purgeCachesToLimit");
    if (cache_.size() <= limit)
        return;
    TvLog::ops().info("purging cache for %d > %d", cache_.size(), limit);
    cache_.clear();
    cachedCount_.store(0);
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

std::optional<std::string> TvDatabase::normalizeElection(const Value& value)
{
    const std::string* text = value.asString();
    if (!text || text->empty())
        return std::nullopt;
    if ((*text)[0] == '=')
        return text->substr(1);
    auto first = firstCodePoint(*text);
    if (first && isAlphanumeric(*first))
        return *text;
    return std::nullopt;
}

std::optional<std::vector<std::string>> TvDatabase::electionList(const Value& query)
{
    const Value& elections = query[kUserElectionKey];
    if (const Array* list = elections.asArray()) {
        std::vector<std::string> result;
        result.reserve(list->size());
        for (const Value& element : *list) {
            auto normalized = normalizeElection(element);
            if (!normalized)
                return std::nullopt; // one bad element switches filtering off
            result.push_back(std::move(*normalized));
        }
        return result;
    }
    if (elections.isString()) {
        if (auto normalized = normalizeElection(elections))
            return std::vector<std::string>{std::move(*normalized)};
    }
    return std::nullopt;
}

bool TvDatabase::electionFilter(const platform::RegistryPlugInRecord& record,
                                const std::vector<std::string>& elections)
{
    const Value& replaced = record.entitlements[kReplacePlugInEntitlement];
    std::string key = replaced.isString() ? *replaced.asString() : record.plugInIdentifier;
    Value annotation;
    sync_->sync([&] { annotation = annotations_->annotationForIdentifier(key); });

    std::uint64_t election = 0;
    const Value& stored = annotation["election"];
    if (!stored.isNull()) {
        election = stored.asUInt() ? *stored.asUInt() : static_cast<std::uint64_t>(stored.integerValue());
    } else {
        const Value& autoElect = record.entitlements[kAutoElectEntitlement];
        election = (autoElect.isNumber() || autoElect.asBool()) && autoElect.boolValue() ? 1 : 0;
    }
    std::string text = std::to_string(static_cast<unsigned>(election & 0xFF));
    bool keep = false;
    for (const auto& e : elections)
        if (e == text) {
            keep = true;
            break;
        }
    TvLog::ops().debug("rs filter %@ -> %d", key, keep ? 1 : 0);
    return keep;
}

std::optional<std::vector<std::shared_ptr<TvdPlugIn>>> TvDatabase::findPlugIns(const Value& query)
{
    std::optional<std::vector<platform::RegistryPlugInRecordPtr>> records;
    const Dictionary* entries = query.asDictionary();
    if (!entries || entries->empty()) {
        records = workspace_->allPlugIns();
        if (TvLog::rs().enabled(LogLevel::Debug))
            TvLog::rs().debug("%d installedPlugins: %@", records->size(), describeRecords(*records));
    } else {
        auto elections = electionList(query);
        platform::RegistryPlugInFilter filter;
        if (elections)
            filter = [this, &elections](const platform::RegistryPlugInRecord& record) {
                return electionFilter(record, *elections);
            };
        records = workspace_->queryPlugIns(query, filter);
        if (TvLog::rs().enabled(LogLevel::Debug))
            TvLog::rs().debug("%d plugin(s) matching %@ = %@", records ? records->size() : 0, query,
                              records ? describeRecords(*records) : std::string("(null)"));
    }
    if (!records)
        return std::nullopt;
    std::size_t cachedBefore = cachedCount();

    // The records that qualify, each UUID once; their daemon records are
    // then obtained in one pass on the database queue.
    std::vector<platform::RegistryPlugInRecordPtr> wanted;
    std::unordered_set<Uuid> seen;
    wanted.reserve(records->size());
    seen.reserve(records->size());
    for (const auto& record : *records) {
        if (!record)
            continue;
        if (record->bundleUrl.isNull()) {
            TvLog::ops().info("skipping rs proxy %@ with nil bundleURL", describeRecord(*record));
            continue;
        }
        if (const auto& app = record->containingApplication) {
            if (!isApplication(*app)) {
                // A broken registry contract costs this record only.
                TvLog::ops().error("RS reported containingBundle is not an application");
                TvLog::ops().info("skipping rs proxy %@ in %@", describeRecord(*record), app->bundlePath);
                continue;
            }
            if (app->isPlaceholder) {
                TvLog::ops().info("skipping rs proxy %@ because its app is a placeholder", describeRecord(*record));
                continue;
            }
        }
        if (seen.insert(record->uuid).second)
            wanted.push_back(record);
    }
    std::vector<std::shared_ptr<TvdPlugIn>> result;
    result.reserve(wanted.size());
    for (auto& plugIn : plugInsForProxies(wanted))
        if (plugIn)
            result.push_back(std::move(plugIn));
    TvLog::ops().debug("RS reported %u plug-ins (cache %u/%u)", result.size(), cachedBefore, cachedCount());
    return result;
}

std::size_t TvDatabase::cachedCount()
{
    return cachedCount_.load();
}

Value TvDatabase::annotationForPlugIn(const TvdPlugIn& plugIn)
{
    Value result;
    sync_->sync([&] { result = annotations_->annotationForPlugIn(plugIn); });
    return result;
}

std::vector<Value> TvDatabase::annotationsForPlugIns(const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns)
{
    std::vector<Value> result(plugIns.size());
    if (plugIns.empty())
        return result;
    sync_->sync([&] {
        for (std::size_t i = 0; i < plugIns.size(); ++i)
            if (plugIns[i])
                result[i] = annotations_->annotationForPlugIn(*plugIns[i]);
    });
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
    if (election.integerValue() != 0)
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
        cachedCount_.store(cache_.size());
    });
    if (auto d = delegate())
        d->removedPlugIns(plugIns);
}

} // namespace tv
