#include "tvd/TvDatabase.h"

#include "base/InternalInconsistency.h"
#include "tests/support/FakeApplicationRegistry.h"
#include "tests/support/FakeContainerService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/TestDaemon.h"
#include "platform/notify/LinuxNotificationService.h"
#include "platform/formats/Vlist.h"
#include "tvd/TvdPlugIn.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

using platform::RegistryPlugInRecordPtr;
using test::LogCapture;

class RecordingDelegate : public TvDatabaseDelegate {
public:
    std::function<void(const std::vector<RegistryPlugInRecordPtr>&)> onRemoved;
    std::vector<std::vector<RegistryPlugInRecordPtr>> calls;
    void removedPlugIns(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        calls.push_back(plugIns);
        if (onRemoved)
            onRemoved(plugIns);
    }
};

class TvDatabaseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        TvdAnnotationStore::Services store;
        auto containers = std::make_shared<test::FakeContainerService>();
        containers->path = dir.file("container");
        store.containers = containers;
        db = TvDatabase::initWithDatabase(dir.file("Annotations").c_str(), registry, store, notifications);
        ASSERT_TRUE(db);
    }
    RegistryPlugInRecordPtr add(const std::string& path = "")
    {
        auto r = test::makePlugInRecord(path.empty() ? "/apps/A.app/PlugIns/P" + std::to_string(next_++) + ".vext"
                                                     : path);
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
    int next_ = 0;
};

TEST_F(TvDatabaseTest, PurgeEmptiesTheWholeCacheBeforeTheInsertionPastTheLimit)
{
    db->setCacheLimit(2);
    LogCapture log;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(db->findPlugIn(add()->uuid));
    EXPECT_EQ(db->cachedCount(), 3u);
    EXPECT_EQ(registry->cacheDrops, 0);

    auto fourth = add();
    ASSERT_TRUE(db->findPlugIn(fourth->uuid));
    EXPECT_EQ(log.count("purging cache for 3 > 2"), 1u);
    EXPECT_EQ(db->cachedCount(), 1u);
    EXPECT_EQ(registry->cacheDrops, 1);

    // The survivor is the fourth: found without asking the registry.
    int lookups = registry->uuidLookups;
    EXPECT_TRUE(db->findPlugIn(fourth->uuid));
    EXPECT_EQ(registry->uuidLookups, lookups);
}

TEST_F(TvDatabaseTest, WithLimitZeroEveryCreationAfterTheFirstPurges)
{
    LogCapture log;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(db->findPlugIn(add()->uuid));
    EXPECT_EQ(log.count("purging cache for 1 > 0"), 2u);
    EXPECT_EQ(db->cachedCount(), 1u);
}

TEST_F(TvDatabaseTest, LookupsShareOneCachedRecord)
{
    db->setCacheLimit(100);
    auto r = add();
    auto byUuid = db->findPlugIn(r->uuid);
    ASSERT_TRUE(byUuid);
    EXPECT_EQ(db->findPlugIn(r->uuid), byUuid);
    EXPECT_EQ(db->findPlugInAtPath(Value::fileURL(r->bundlePath)), byUuid);
    EXPECT_EQ(db->plugInForProxy(r), byUuid);
    EXPECT_EQ(registry->uuidLookups, 1);
}

TEST_F(TvDatabaseTest, UnknownPlugInsAreLoggedAndAbsent)
{
    LogCapture log;
    Uuid unknown = Uuid::random();
    EXPECT_FALSE(db->findPlugIn(unknown));
    EXPECT_EQ(log.count("Rostra cannot find plug-in with UUID:" + unknown.string()), 1u);
    EXPECT_FALSE(db->findPlugInAtPath(Value::fileURL("/nowhere/X.vext")));
    EXPECT_EQ(log.count("Rostra cannot find plug-in at path:/nowhere/X.vext"), 1u);

    // A record that cannot be built is not cached.
    auto broken = addBroken();
    EXPECT_FALSE(db->findPlugIn(broken->uuid));
    EXPECT_EQ(db->cachedCount(), 0u);
}

TEST_F(TvDatabaseTest, PlugInsWithinApplication)
{
    auto good = add();
    auto broken = addBroken();
    auto app = std::make_shared<platform::RegistryApplicationRecord>();
    app->bundlePath = "/apps/A.app";
    app->plugInUuids = {broken->uuid, good->uuid};
    auto empty = std::make_shared<platform::RegistryApplicationRecord>();
    empty->bundlePath = "/apps/Empty.app";
    registry->applications = {app, empty};

    auto plugIns = db->plugInsWithinApplication(Value::fileURL("/apps/A.app"));
    ASSERT_TRUE(plugIns);
    ASSERT_EQ(plugIns->size(), 1u);
    EXPECT_EQ((*plugIns)[0]->uuid(), good->uuid);
    EXPECT_FALSE(db->plugInsWithinApplication(Value::fileURL("/apps/Empty.app")));
    EXPECT_FALSE(db->plugInsWithinApplication(Value::fileURL("/apps/None.app")));

    // Only unbuildable plug-ins: an empty list, not none.
    app->plugInUuids = {broken->uuid};
    plugIns = db->plugInsWithinApplication(Value::fileURL("/apps/A.app"));
    ASSERT_TRUE(plugIns);
    EXPECT_TRUE(plugIns->empty());
}

TEST_F(TvDatabaseTest, RegistrationRefusalsAreCodeTwo)
{
    registry->refused.insert("/r/X.vext");
    auto refused = db->addPlugIn(Value::fileURL("/r/X.vext"));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 2);
    EXPECT_EQ(refused->description, "Rostra failed to register the plug-in");
    EXPECT_FALSE(db->addPlugIn(Value::fileURL("/r/Y.vext")));
    EXPECT_FALSE(db->removePlugIn(Value::fileURL("/r/Y.vext")));
    auto missing = db->removePlugIn(Value::fileURL("/r/Y.vext"));
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->code, 2);
    EXPECT_EQ(missing->description, "Rostra failed to deregister the plug-in");
}

TEST_F(TvDatabaseTest, InstallsAreLoggedUninstallsLeaveTheCacheThenReachTheDelegate)
{
    db->setCacheLimit(100);
    auto delegate = std::make_shared<RecordingDelegate>();
    db->setDelegate(delegate);
    auto cached = add();
    auto never = add();
    ASSERT_TRUE(db->findPlugIn(cached->uuid));

    LogCapture log;
    registry->notifyInstall({cached});
    EXPECT_EQ(log.count("plug-in INSTALLED:com.example.p com.example.p(1) " + cached->uuid.string() + " " +
                        cached->bundlePath),
              1u);
    EXPECT_EQ(db->cachedCount(), 1u);

    // The delegate runs outside the database queue: it may look records up.
    std::shared_ptr<TvdPlugIn> seenByDelegate;
    delegate->onRemoved = [&](const auto&) { seenByDelegate = db->findPlugIn(never->uuid); };
    registry->notifyUninstall({cached, never});
    EXPECT_EQ(log.count("plug-in UNINSTALLED:com.example.p com.example.p(1) " + cached->uuid.string() + " " +
                        cached->bundlePath),
              1u);
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
    struct Case {
        const char* identifier;
        Value stored;   // the annotation before the record is built
        Value expected; // "election" after
    };
    const Case cases[] = {
        {"com.example.fresh", Value(), Value(std::int64_t{1})},
        {"com.example.unchosen", Value{{"election", Value(std::int64_t{0})}, {"extension", Value{{"k", "v"}}}},
         Value(std::int64_t{1})},
        {"com.example.chosen", Value{{"election", Value(std::int64_t{2})}}, Value(std::int64_t{2})},
        {"com.example.unsigned", Value{{"election", Value(std::uint64_t{5})}}, Value(std::uint64_t{5})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.identifier);
        auto r = test::makePlugInRecord(std::string("/apps/A.app/PlugIns/") + c.identifier + ".vext", c.identifier);
        r->entitlements = Value{{"com.veltra.developer.auto-elect-plugin", Value("yes")}};
        registry->plugIns.push_back(r);
        auto unbuilt = TvdPlugIn::initWithRSData(r);
        if (!c.stored.isNull())
            db->setAnnotationForPlugIn(c.stored, *unbuilt);
        auto plugIn = db->findPlugIn(r->uuid);
        ASSERT_TRUE(plugIn);
        EXPECT_EQ(db->annotationForPlugIn(*plugIn)["election"], c.expected);
    }
    // The unchosen one kept its other keys; the choice is in the file.
    Value file = *platform::readVlistFile(dir.file("Annotations"));
    EXPECT_EQ(file["data"]["com.example.unchosen"]["extension"], (Value{{"k", "v"}}));
    EXPECT_EQ(file["data"]["com.example.fresh"]["election"], Value(std::int64_t{1}));
    EXPECT_EQ(notifications->state(kAnnotationChangeNotification), 0u);

    // Without the entitlement nothing is stored.
    auto plain = db->findPlugIn(add()->uuid);
    ASSERT_TRUE(plain);
    EXPECT_TRUE(db->annotationForPlugIn(*plain).isNull());

    db->notifyAnnotationChange();
    db->notifyAnnotationChange();
    EXPECT_EQ(notifications->state(kAnnotationChangeNotification), 2u);
}

} // namespace
} // namespace tv
