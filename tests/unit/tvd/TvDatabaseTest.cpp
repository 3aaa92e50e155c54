// TvDatabase: the record cache and its purge, lookups,
// install and uninstall announcements, automatic election, and discovery:
// election normalisation, the election filter and the records skipped.
#include "tvd/TvDatabase.h"

#include "base/InternalInconsistency.h"
#include "platform/formats/Vlist.h"
#include "platform/notify/LinuxNotificationService.h"
#include "tests/support/FakeApplicationRegistry.h"
#include "tests/support/FakeContainerService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdPlugIn.h"

#include <gtest/gtest.h>

#include <set>

namespace tv {
namespace {

using platform::RegistryPlugInRecordPtr;
using test::LogCapture;

struct RecordingDelegate : TvDatabaseDelegate {
    void removedPlugIns(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        calls.push_back(plugIns);
        onRemoved();
    }
    std::function<void()> onRemoved;
    std::vector<std::vector<RegistryPlugInRecordPtr>> calls;
};

class TvDatabaseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        TvdAnnotationStore::Services store;
        store.containers = std::make_shared<test::FakeContainerService>();
        db = TvDatabase::initWithDatabase(dir.file("Annotations").c_str(), registry, store, notifications);
        ASSERT_TRUE(db);
    }
    RegistryPlugInRecordPtr add()
    {
        auto r = test::makePlugInRecord("/apps/A.app/PlugIns/P" + std::to_string(registry->plugIns.size()) + ".vext");
        registry->plugIns.push_back(r);
        return r;
    }
    // A record the database cannot build a plug-in from.
    RegistryPlugInRecordPtr addBroken()
    {
        auto r = add();
        std::const_pointer_cast<platform::RegistryPlugInRecord>(r)->dataContainerPath.clear();
        return r;
    }

    test::TempDir dir;
    std::shared_ptr<platform::LinuxNotificationService> notifications =
        std::make_shared<platform::LinuxNotificationService>(dir.path());
    std::shared_ptr<test::FakeApplicationRegistry> registry = std::make_shared<test::FakeApplicationRegistry>();
    std::shared_ptr<TvDatabase> db;
};

TEST_F(TvDatabaseTest, PurgeEmptiesTheWholeCacheBeforeTheInsertionPastTheLimit)
{
    LogCapture log;
    for (int i = 0; i < 3; ++i) // limit zero: every creation after the first purges
        ASSERT_TRUE(db->findPlugIn(add()->uuid));
    EXPECT_EQ(log.count("purging cache for 1 > 0"), 2u);
    db->setCacheLimit(2);
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(db->findPlugIn(add()->uuid));
    EXPECT_EQ(db->cachedCount(), 3u);
    EXPECT_EQ(registry->cacheDrops, 2);
    auto fourth = add();
    ASSERT_TRUE(db->findPlugIn(fourth->uuid));
    EXPECT_EQ(log.count("purging cache for 3 > 2"), 1u);
    EXPECT_EQ(db->cachedCount(), 1u);
    EXPECT_EQ(registry->cacheDrops, 3);
    // The survivor is the fourth, shared by every lookup without asking the registry.
    int lookups = registry->uuidLookups;
    auto found = db->findPlugIn(fourth->uuid);
    EXPECT_EQ(db->findPlugInAtPath(Value::fileURL(fourth->bundlePath)), found);
    EXPECT_EQ(db->plugInForProxy(fourth), found);
    EXPECT_EQ(registry->uuidLookups, lookups);
}

TEST_F(TvDatabaseTest, UnknownPlugInsAreLoggedAndAbsentAlsoWithinAnApplication)
{
    LogCapture log;
    Uuid unknown = Uuid::random();
    EXPECT_FALSE(db->findPlugIn(unknown));
    EXPECT_EQ(log.count("Rostra cannot find plug-in with UUID:" + unknown.string()), 1u);
    EXPECT_FALSE(db->findPlugInAtPath(Value::fileURL("/nowhere/X.vext")));
    EXPECT_EQ(log.count("Rostra cannot find plug-in at path:/nowhere/X.vext"), 1u);
    auto good = add();
    auto broken = addBroken();
    EXPECT_FALSE(db->findPlugIn(broken->uuid));
    EXPECT_EQ(db->cachedCount(), 0u); // a record that cannot be built is not cached

    auto app = std::make_shared<platform::RegistryApplicationRecord>();
    app->bundlePath = "/apps/A.app";
    app->plugInUuids = {broken->uuid, good->uuid};
    auto empty = std::make_shared<platform::RegistryApplicationRecord>();
    empty->bundlePath = "/apps/Empty.app";
    registry->applications = {app, empty};

    auto plugIns = db->plugInsWithinApplication(Value::fileURL("/apps/A.app"));
    ASSERT_TRUE(plugIns && plugIns->size() == 1u);
    EXPECT_EQ((*plugIns)[0]->uuid(), good->uuid);
    EXPECT_FALSE(db->plugInsWithinApplication(Value::fileURL("/apps/Empty.app")));
    EXPECT_FALSE(db->plugInsWithinApplication(Value::fileURL("/apps/None.app")));

    app->plugInUuids = {broken->uuid}; // only unbuildable plug-ins: an empty list, not none
    EXPECT_TRUE(db->plugInsWithinApplication(Value::fileURL("/apps/A.app"))->empty());
}

TEST_F(TvDatabaseTest, InstallsAreLoggedUninstallsLeaveTheCacheThenReachTheDelegate)
{
    db->setCacheLimit(100);
    auto delegate = std::make_shared<RecordingDelegate>();
    db->setDelegate(delegate);
    auto cached = add();
    auto never = add();
    ASSERT_TRUE(db->findPlugIn(cached->uuid));

    LogCapture log; // the install and uninstall lines are checked end to end
    registry->notifyInstall({cached});
    EXPECT_EQ(db->cachedCount(), 1u);

    // The delegate runs outside the database queue: it may look records up.
    std::shared_ptr<TvdPlugIn> seenByDelegate;
    delegate->onRemoved = [&] { seenByDelegate = db->findPlugIn(never->uuid); };
    registry->notifyUninstall({cached, never});
    EXPECT_EQ(log.countContaining("plug-in UNINSTALLED:"), 2u);
    ASSERT_EQ(delegate->calls.size(), 1u);
    EXPECT_EQ(delegate->calls[0], (std::vector<RegistryPlugInRecordPtr>{cached, never}));
    EXPECT_TRUE(seenByDelegate);
    // The uninstalled record left the cache: the next lookup asks the registry.
    int lookups = registry->uuidLookups;
    db->findPlugIn(cached->uuid);
    EXPECT_EQ(registry->uuidLookups, lookups + 1);
}

TEST_F(TvDatabaseTest, TheDatabaseQueueIsNotReEntrant)
{
    auto r = add();
    EXPECT_THROW(db->createPlugInForProxy(r), TvInternalInconsistency);
    EXPECT_THROW(db->purgeCachesToLimit(0), TvInternalInconsistency);
    EXPECT_THROW(db->syncQueue()->sync([&] { db->findPlugIn(r->uuid); }), TvInternalInconsistency);
    EXPECT_EQ(db->cachedCount(), 0u);
}

TEST_F(TvDatabaseTest, AutoElectionStoresAChoiceOnlyWhereNoneStandsAndPostsNothing)
{
    db->setCacheLimit(100);
    // Identifier, the annotation before the record is built, "election" after.
    const std::tuple<const char*, Value, Value> cases[] = {
        {"com.example.fresh", Value(), Value(std::int64_t{1})},
        {"com.example.unchosen", Value{{"election", Value(std::int64_t{0})}, {"extension", Value{{"k", "v"}}}},
         Value(std::int64_t{1})},
        {"com.example.chosen", Value{{"election", Value(std::int64_t{2})}}, Value(std::int64_t{2})},
        {"com.example.unsigned", Value{{"election", Value(std::uint64_t{5})}}, Value(std::uint64_t{5})},
        {"com.example.double", Value{{"election", Value(2.0)}}, Value(2.0)},
        {"com.example.boolean", Value{{"election", Value(true)}}, Value(std::int64_t{1})}, // not a number
    };
    for (const auto& [identifier, stored, expected] : cases) {
        SCOPED_TRACE(identifier);
        auto r = test::makePlugInRecord(std::string("/apps/A.app/PlugIns/") + identifier + ".vext", identifier);
        r->entitlements = Value{{"com.veltra.developer.auto-elect-plugin", Value("yes")}};
        registry->plugIns.push_back(r);
        if (!stored.isNull())
            db->setAnnotationForPlugIn(stored, *TvdPlugIn::initWithRSData(r));
        auto plugIn = db->findPlugIn(r->uuid);
        ASSERT_TRUE(plugIn);
        EXPECT_EQ(db->annotationForPlugIn(*plugIn)["election"], expected);
    }
    // The unchosen one kept its other keys; the choice is in the file.
    Value file = *platform::readVlistFile(dir.file("Annotations"));
    EXPECT_EQ(file["data"]["com.example.unchosen"]["extension"], (Value{{"k", "v"}}));
    EXPECT_EQ(file["data"]["com.example.fresh"]["election"], Value(std::int64_t{1}));
    EXPECT_EQ(notifications->state(kAnnotationChangeNotification), 0u);

    EXPECT_TRUE(db->annotationForPlugIn(*db->findPlugIn(add()->uuid)).isNull()); // no entitlement, nothing stored

    db->notifyAnnotationChange();
    db->notifyAnnotationChange();
    EXPECT_EQ(notifications->state(kAnnotationChangeNotification), 2u);
}


using Ids = std::set<std::string>;

// Discovery: the server is the registry database; its registry is a fake.
class TvDatabaseFindTest : public ::testing::Test {
protected:
    std::shared_ptr<platform::RegistryPlugInRecord> add(const std::string& id, Value entitlements = Value())
    {
        auto r = test::makePlugInRecord("/apps/A.app/PlugIns/" + id + ".vext", id);
        if (!entitlements.isNull())
            r->entitlements = entitlements;
        h.registry->plugIns.push_back(r);
        return r;
    }
    void elect(const std::string& id, std::int64_t election)
    {
        h.server->setAnnotationForPlugIn(Value{{"election", Value(election)}}, *TvdPlugIn::initWithRSData(add(id)));
    }
    Ids found(const Value& query)
    {
        Ids ids;
        auto plugIns = h.server->findPlugIns(query);
        for (const auto& p : plugIns.value())
            ids.insert(*p->identifier());
        return ids;
    }

    test::ServerHarness h;
};

TEST_F(TvDatabaseFindTest, FilterComparesTheLowByteOfStoredOrAutomaticElections)
{
    elect("stored1", 1);
    elect("stored257", 257);
    elect("storedMinus1", -1);
    add("none");
    add("auto", Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}});
    add("autoText", Value{{"com.veltra.developer.auto-elect-plugin", Value("yes")}}); // not a number
    // Filtered by the election stored under the identifier it replaces.
    add("replacer", Value{{kReplacePlugInEntitlement, Value("stored1")}});

    const Ids all{"stored1", "stored257", "storedMinus1", "none", "auto", "autoText", "replacer"};
    // A valid election list filters; an invalid one (an element that is not a
    // string starting with "=" or a letter or digit) filters nothing.
    const std::pair<Value, Ids> cases[] = {
        {Value("=1"), {"stored1", "stored257", "auto", "replacer"}},
        {Value("255"), {"storedMinus1"}},
        {Value(Array{Value("0"), Value("=1")}), {"stored1", "stored257", "none", "auto", "autoText", "replacer"}},
        {Value("="), {}},
        {Value("\xC3\xA9"), {}}, // a letter, but no election
        {Value(Array{Value("=1"), Value("-1")}), all},
        {Value(Array{Value("=1"), Value("")}), all},
        {Value(Array{Value("=1"), Value(std::int64_t{1})}), all},
        {Value(std::int64_t{1}), all},
    };
    for (const auto& [elections, expected] : cases)
        EXPECT_EQ(found(Value{{"KoUserElection", elections}, {"KoExtensionPointIdentifier", Value("p")}}), expected)
            << elections.description();
    EXPECT_EQ(h.registry->lastQuery["KoExtensionPointIdentifier"], Value("p")); // handed on unchanged
}

TEST_F(TvDatabaseFindTest, SkipsRecordsWithoutBundleInPlaceholdersOrInNonApplicationsOnce)
{
    test::LogCapture log;
    add("kept");
    add("noUrl")->bundleUrl = Value();
    auto placeholder = std::make_shared<platform::RegistryApplicationRecord>();
    placeholder->bundlePath = "/apps/B.app";
    placeholder->isPlaceholder = true;
    add("placeholder")->containingApplication = placeholder;
    auto folder = std::make_shared<platform::RegistryApplicationRecord>();
    folder->bundlePath = "/apps/Folder";
    add("folder")->containingApplication = folder;
    h.registry->plugIns.push_back(h.registry->plugIns.front()); // reported twice
    EXPECT_EQ(found(Value()), Ids{"kept"});
    EXPECT_EQ(found(Value{{"KoExtensionIdentifier", Value("x")}}), Ids{"kept"});
    EXPECT_EQ(log.count("RS reported containingBundle is not an application"), 2u);
    EXPECT_EQ(log.countContaining("with nil bundleURL"), 2u);
    EXPECT_EQ(log.countContaining("because its app is a placeholder"), 2u);
    h.registry->queryFails = true;
    EXPECT_FALSE(h.server->findPlugIns(Value{{"KoExtensionIdentifier", Value("kept")}}));
}

} // namespace
} // namespace tv
