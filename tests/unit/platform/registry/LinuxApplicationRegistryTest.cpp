#include "platform/registry/LinuxApplicationRegistry.h"

#include "base/SerialQueue.h"
#include "platform/formats/Vlist.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "tests/support/FakeClientIdentity.h"
#include "tests/support/FakeExtensionSdkRegistry.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <fstream>
#include <set>
#include <sqlite3.h>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

using Paths = std::vector<std::string>;

Paths pathsOf(const std::vector<RegistryPlugInRecordPtr>& records)
{
    Paths paths;
    for (const auto& r : records)
        paths.push_back(r->bundlePath);
    return paths;
}

// Records what the registry announces, on which thread, and whether lookups
// found the arriving records at that moment. `onUninstall` runs inside the
// uninstall callback.
struct RecordingObserver final : ApplicationRegistryObserver {
    explicit RecordingObserver(ApplicationRegistry* registry = nullptr) : registry(registry) {}
    void pluginsDidInstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
        for (const auto& p : plugIns) {
            installed.push_back(p);
            foundWhenInstalled.push_back(registry && registry->plugInWithUuid(p->uuid));
        }
    }
    void pluginsWillUninstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        if (onUninstall)
            onUninstall();
        std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
        uninstalled.insert(uninstalled.end(), plugIns.begin(), plugIns.end());
    }
    std::size_t count(bool installs) { std::lock_guard lock(mutex); return (installs ? installed : uninstalled).size(); }

    ApplicationRegistry* registry;
    std::mutex mutex;
    std::vector<RegistryPlugInRecordPtr> installed, uninstalled;
    std::vector<bool> foundWhenInstalled;
    std::set<std::thread::id> threads;
    std::function<void()> onUninstall;
};

class LinuxApplicationRegistryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        config_.applicationRoots = {files_.makeDirectory("Applications")};
        config_.systemVolumeRoot = files_.makeDirectory("System") + "/";
        config_.systemPlugInsDir = files_.makeDirectory("System/Library/PlugIns");
        config_.registryDatabase = files_.path("state/registry.sqlite");
        config_.containersRoot = files_.path("containers");
    }

    using Scan = LinuxApplicationRegistry::InitialScan;
    std::shared_ptr<LinuxApplicationRegistry> open(Scan scan = Scan::AtOpen)
    {
        auto registry = LinuxApplicationRegistry::create(config_, bundles_, codeSigning_, sdks_, scan);
        EXPECT_TRUE(registry.ok());
        return registry.ok() ? *registry : nullptr;
    }

    // A bundle directory with an executable and the given Info.vlist.
    std::string writeBundle(const std::string& relative, const Value& info)
    {
        const std::string dir = files_.makeDirectory(relative);
        EXPECT_FALSE(writeVlistFileAtomically(dir + "/Info.vlist", info));
        if (const std::string* exe = info["KbBundleExecutable"].asString())
            files_.writeText(relative + "/" + *exe, "#!/bin/sh\n", 0755);
        return dir;
    }

    std::string writePlugIn(const std::string& relative, const std::string& identifier, const std::string& version,
                            const std::string& extensionPoint, const Value& extra = Value::emptyDictionary())
    {
        Value extension{{"KoExtensionPointIdentifier", Value(extensionPoint)}};
        for (const auto& [key, value] : *extra.asDictionary())
            extension = extension.with(key, value);
        return writeBundle(relative, Value{{"KbBundleIdentifier", Value(identifier)}, {"KbBundleVersion", Value(version)},
                                           {"KbBundleExecutable", Value("main")}, {"KoExtension", extension}});
    }
    std::string writeApp(const std::string& name) { return writeBundle("Applications/" + name, Value{{"KbBundleIdentifier", Value("com." + name)}}); }

    // Runs `statement` on the store; the first column of its first row as
    // text ("" when there is none or it is NULL).
    std::string sql(const char* statement)
    {
        sqlite3* db = nullptr;
        EXPECT_EQ(sqlite3_open(config_.registryDatabase.c_str(), &db), SQLITE_OK);
        std::string first;
        sqlite3_stmt* stmt = nullptr;
        const char* rest = statement;
        while (rest && *rest && sqlite3_prepare_v2(db, rest, -1, &stmt, &rest) == SQLITE_OK && stmt) {
            const int rc = sqlite3_step(stmt);
            EXPECT_TRUE(rc == SQLITE_ROW || rc == SQLITE_DONE) << sqlite3_errmsg(db);
            if (rc == SQLITE_ROW && sqlite3_column_text(stmt, 0))
                first = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
            sqlite3_finalize(stmt);
        }
        sqlite3_close(db);
        return first;
    }

    test::FakeVlistFiles files_;
    PlatformConfig config_;
    std::shared_ptr<LinuxBundleService> bundles_ = std::make_shared<LinuxBundleService>();
    std::shared_ptr<LinuxCodeSigningService> codeSigning_ =
        std::make_shared<LinuxCodeSigningService>(std::make_shared<test::FakeProcessInfo>(), bundles_, std::string());
    std::shared_ptr<test::FakeExtensionSdkRegistry> sdks_ = std::make_shared<test::FakeExtensionSdkRegistry>();
};

TEST_F(LinuxApplicationRegistryTest, ScanRecordsApplicationsAndPlugIns)
{
    const std::string app = writeBundle("Applications/Example.app", Value{{"KbBundleIdentifier", Value("com.example.app")},
                                                                          {"KbBundleDisplayName", Value("Example")}});
    const std::string share = writePlugIn("Applications/Example.app/PlugIns/Share.vext", "com.example.app.share", "7",
                                          "com.veltra.share", Value{{"KoExtensionIdentifier", Value("com.example.app.share-ext")}});
    const Value entitlements{{"com.veltra.developer.auto-elect-plugin", Value(true)}};
    ASSERT_FALSE(writeVlistFileAtomically(share + "/Entitlements.vlist", entitlements));
    // No usable bundle version: the short one, whatever its form.
    const std::string system = writeBundle("System/Library/PlugIns/Sys.vext",
                                           Value{{"KbBundleIdentifier", Value("com.veltra.sys")}, {"KbBundleVersion", Value(true)},
                                                 {"KbBundleShortVersionString", Value(3)},
                                                 {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("com.veltra.x")}}}});
    // Not counted: no Info.vlist, a plug-in dictionary that is not one, no identifier.
    files_.makeDirectory("Applications/Empty.app");
    writeBundle("Applications/Example.app/PlugIns/Broken.vext",
                Value{{"KbBundleIdentifier", Value("com.example.broken")}, {"KoExtension", Value("text")}});
    writeBundle("System/Library/PlugIns/Nameless.vext", Value{{"KoExtension", Value::emptyDictionary()}});
    // The system volume root is compared in canonical form.
    fs::create_directory_symlink(files_.path("System"), files_.path("SystemLink"));
    config_.systemVolumeRoot = files_.path("SystemLink/");
    test::LogCapture log;
    const Date before = Date::now();
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("skipping plug-in"), 2u);
    EXPECT_EQ(log.countContaining("skipping application"), 1u);
    EXPECT_EQ(pathsOf(registry->allPlugIns()), (Paths{share, system}));

    auto record = registry->plugInAtPath(share);
    ASSERT_TRUE(record);
    // The extension's own identifier wins over the bundle's, which is kept.
    EXPECT_EQ(record->plugInIdentifier + " " + record->originalIdentifier, "com.example.app.share-ext com.example.app.share");
    EXPECT_GE(record->registrationDate, before);
    EXPECT_EQ(std::tuple(record->bundleVersion, record->onSystemVolume, record->entitlements), std::tuple("7", false, entitlements));
    EXPECT_EQ(record->containingApplication->bundlePath, app);
    auto sys = registry->plugInAtPath(system);
    EXPECT_EQ(std::tuple(sys->bundleVersion, sys->onSystemVolume, sys->entitlements),
              std::tuple("3", true, Value::emptyDictionary()));

    // The data container exists, private to the daemon's user.
    EXPECT_EQ(record->dataContainerPath, config_.containersRoot + "/Data/PlugIn/" + record->uuid.string() + "/");
    struct stat st;
    ASSERT_EQ(::stat(record->dataContainerPath.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFDIR | 0700u);

    auto application = registry->applicationAtPath("file://" + app);
    ASSERT_TRUE(application && application->localizedName == "Example");
    EXPECT_EQ(pathsOf(registry->plugInsOfApplication(*application)), (Paths{share}));
    EXPECT_FALSE(registry->applicationAtPath(files_.path("Applications/Empty.app")));
}

TEST_F(LinuxApplicationRegistryTest, ScopesAnswerTheDictionariesCompletedWithSdkDefaults)
{
    sdks_->set("com.share", Value{{"SdkTop", Value("sdk")},
                                  {"KoExtension", Value{{"CleanTimeout", Value(30)},
                                                        {"KoExtensionAttributes", Value{{"Kind", Value("sdk")}, {"SdkOnly", Value(1)}}}}}});
    const std::string withSdk = writePlugIn("System/Library/PlugIns/S.vext", "com.s", "1", "com.share",
                                            Value{{"CleanTimeout", Value(5)}, {"KoExtensionAttributes", Value{{"Kind", Value("own")}}}});
    const std::string bare = writeBundle("System/Library/PlugIns/B.vext",
                                         Value{{"KbBundleIdentifier", Value("com.b")}, {"KbBundleShortVersionString", Value("2.3")},
                                               {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("com.bare")},
                                                                     {"KoExtensionAttributes", Value("junk")}}}});
    auto registry = open();
    ASSERT_TRUE(registry);
    auto s = registry->plugInAtPath(withSdk);
    auto b = registry->plugInAtPath(bare);
    ASSERT_TRUE(s && b);

    enum Scope { Info, PlugIn, Attribute };
    const std::tuple<const RegistryPlugInRecord*, Scope, const char*, Value> cases[] = {
        {s.get(), Info, "SdkTop", Value("sdk")}, // only the SDK sets it
        {s.get(), Info, "KbBundleIdentifier", Value("com.s")},
        {s.get(), PlugIn, "CleanTimeout", Value(30)}, // the SDK wins this one
        {s.get(), Attribute, "Kind", Value("own")},   // the plug-in wins the rest
        {s.get(), Attribute, "SdkOnly", Value(1)},
        {s.get(), Attribute, "KoExtensionVersion", Value("1")},
        {s.get(), Attribute, "KoExtensionPointIdentifier", Value("com.share")}, // plug-in keys answer too
        {b.get(), Attribute, "KoExtensionVersion", Value("2.3")},
        {b.get(), PlugIn, "KoExtensionAttributes", Value{{"KoExtensionVersion", Value("2.3")}}},
        {b.get(), Attribute, "Missing", Value()},
    };
    for (const auto& [record, scope, key, expected] : cases) {
        const Value& found = scope == Info ? record->infoValue(key)
                             : scope == PlugIn ? record->plugInValue(key) : record->attributeValue(key);
        EXPECT_EQ(found, expected) << record->plugInIdentifier << " " << scope << " " << key;
    }
}

TEST_F(LinuxApplicationRegistryTest, UuidsSurviveRestartsAndEveryChangeIsAnnouncedOnOneThread)
{
    const std::string a = writePlugIn("Applications/A.app/PlugIns/A.vext", "com.a", "1", "p");
    writeApp("A.app");
    const std::string b = writePlugIn("System/Library/PlugIns/B.vext", "com.b", "1", "p");
    const std::string c = writePlugIn("System/Library/PlugIns/C.vext", "com.c", "1", "p");
    const auto scanned = open()->allPlugIns();
    ASSERT_EQ(scanned.size(), 3u);
    auto registry = open(); // a second run reads what the first stored
    auto oldA = registry->plugInAtPath(a), oldB = registry->plugInAtPath(b), oldC = registry->plugInAtPath(c);
    ASSERT_TRUE(oldA && oldB && oldC);
    // Records made from the stored, still encoded rows answer as the scan's did.
    for (const auto& [fresh, stored] : {std::pair(scanned[0], oldA), std::pair(scanned[1], oldB)})
        EXPECT_EQ(std::tuple(fresh->uuid, fresh->infoDictionary, fresh->plugInDictionary, fresh->entitlements),
                  std::tuple(stored->uuid, stored->infoDictionary, stored->plugInDictionary, stored->entitlements));
    auto observer = std::make_shared<RecordingObserver>(registry.get());
    registry->addObserver(observer);

    // A new version is a new installation; a bundle changed in place keeps
    // its UUID but is announced, so that caches drop what they knew.
    writePlugIn("System/Library/PlugIns/B.vext", "com.b", "2", "p");
    writePlugIn("Applications/A.app/PlugIns/A.vext", "com.a", "1", "p", Value{{"KoExtensionAttributes", Value{{"New", Value(1)}}}});
    fs::remove_all(c);
    const std::string d = writePlugIn("System/Library/PlugIns/D.vext", "com.d", "1", "p");
    registry->rescan();
    registry->waitForAnnouncements();
    auto newA = registry->plugInAtPath(a);
    ASSERT_TRUE(newA);
    EXPECT_EQ(std::tuple(newA->uuid, newA->registrationDate, newA->attributeValue("New")),
              std::tuple(oldA->uuid, oldA->registrationDate, Value(1)));
    EXPECT_NE(registry->plugInAtPath(b)->uuid, oldB->uuid);
    EXPECT_FALSE(registry->plugInWithUuid(oldB->uuid));
    EXPECT_FALSE(registry->plugInAtPath(c));
    // The records given are those that were looked up before, and after.
    EXPECT_EQ(observer->uninstalled, (std::vector<RegistryPlugInRecordPtr>{oldA, oldB, oldC}));
    EXPECT_EQ(pathsOf(observer->installed), (Paths{a, b, d}));
    EXPECT_EQ(observer->installed[0], newA);
    EXPECT_EQ(observer->foundWhenInstalled, (std::vector<bool>{true, true, true}));

    ASSERT_EQ(observer->threads.size(), 1u);
    EXPECT_NE(*observer->threads.begin(), std::this_thread::get_id());
}

TEST_F(LinuxApplicationRegistryTest, RegistrationByPathIsCheckedAndPersists)
{
    const std::string loose = writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    auto registry = open();
    ASSERT_TRUE(registry);
    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);

    // Refusals change nothing, and carry the registry's own error domain.
    files_.makeDirectory("Elsewhere/Plain.vext");
    writeBundle("Elsewhere/NoExtension.vext", Value{{"KbBundleIdentifier", Value("com.none")}});
    writeBundle("Elsewhere/WrongSuffix.bundle", Value{{"KbBundleIdentifier", Value("com.w")}, {"KoExtension", Value::emptyDictionary()}});
    files_.writeText("Elsewhere/Hostile.vext/Info.vlist", "<vlist><dict><key>a</key>" + std::string(64, '<'));
    for (const char* bad : {"Plain.vext", "NoExtension.vext", "WrongSuffix.bundle", "Missing.vext", "Hostile.vext"}) {
        MaybeError error = registry->registerPlugIn(files_.path(std::string("Elsewhere/") + bad));
        ASSERT_TRUE(error) << bad;
        EXPECT_EQ(std::tuple(error->domain, error->code),
                  std::tuple(std::string(kApplicationRegistryErrorDomain), std::int64_t{kRegistryErrorNotAPlugIn}));
    }
    MaybeError unknown = registry->unregisterPlugIn(loose);
    ASSERT_TRUE(unknown);
    EXPECT_EQ(std::tuple(unknown->domain, unknown->code),
              std::tuple(std::string(kApplicationRegistryErrorDomain), std::int64_t{kRegistryErrorNotRegistered}));
    EXPECT_TRUE(registry->allPlugIns().empty());

    ASSERT_FALSE(registry->registerPlugIn("file://" + loose));
    auto record = registry->plugInAtPath(loose);
    ASSERT_TRUE(record && record->registeredByPath);
    ASSERT_FALSE(registry->registerPlugIn(loose)); // refreshes, no new installation
    EXPECT_EQ(registry->plugInAtPath(loose)->uuid, record->uuid);
    registry->waitForAnnouncements();
    EXPECT_EQ(pathsOf(observer->installed), (Paths{loose}));

    // The registration outlives the process, with its UUID; re-registering
    // after an upgrade in place is a new installation.
    registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(registry->plugInAtPath(loose)->uuid, record->uuid);
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "2", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    EXPECT_NE(registry->plugInAtPath(loose)->uuid, record->uuid);
    ASSERT_FALSE(registry->unregisterPlugIn(loose + "/"));
    EXPECT_FALSE(registry->plugInAtPath(loose));

    // One owner registers at most maxRegisteredPerUser bundles by path; a
    // known path refreshes, and unregistering makes room again.
    config_.maxRegisteredPerUser = 2;
    registry = open();
    const std::string second = writePlugIn("Elsewhere/Second.vext", "com.second", "1", "p");
    const std::string third = writePlugIn("Elsewhere/Third.vext", "com.third", "1", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    ASSERT_FALSE(registry->registerPlugIn(second));
    MaybeError full = registry->registerPlugIn(third);
    ASSERT_TRUE(full);
    EXPECT_EQ(full->code, std::int64_t{kRegistryErrorLimit});
    EXPECT_FALSE(registry->plugInAtPath(third));
    EXPECT_FALSE(registry->registerPlugIn(second));
    ASSERT_FALSE(registry->unregisterPlugIn(second));
    EXPECT_FALSE(registry->registerPlugIn(third));

    // A registered bundle that vanishes is uninstalled by the next scan.
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    fs::remove_all(loose);
    fs::remove_all(third);
    registry->rescan();
    EXPECT_TRUE(open()->allPlugIns().empty());
}

TEST_F(LinuxApplicationRegistryTest, QueriesSelectByExtensionPointAndFilter)
{
    const std::string share1 = writePlugIn("System/Library/PlugIns/S1.vext", "com.s1", "1", "com.share");
    const std::string share2 = writePlugIn("System/Library/PlugIns/S2.vext", "com.s2", "1", "com.share");
    const std::string edit = writePlugIn("System/Library/PlugIns/E.vext", "com.e", "1", "com.edit");
    const std::string other = writePlugIn("System/Library/PlugIns/O.vext", "com.o", "1", "com.other");
    auto registry = open();
    ASSERT_TRUE(registry);
    auto query = [&](const Value& q, RegistryPlugInFilter filter = {}) {
        auto found = registry->queryPlugIns(q, filter);
        return found ? pathsOf(*found) : Paths{"<none>"};
    };
    auto point = [](Value v) { return Value{{"KoExtensionPointIdentifier", v}}; };
    const Paths all{edit, other, share1, share2};
    const std::pair<Value, Paths> cases[] = {
        {Value(), all},
        {Value::emptyDictionary(), all},
        {Value("com.share"), {"<none>"}},
        {point(Value("com.share")), {share1, share2}},
        {point(Value("=com.edit")), {edit}},
        {point(Value(Array{Value("com.share"), Value("com.edit"), Value("com.share")})), {edit, share1, share2}},
        {point(Value("com.none")), {}},
        {point(Value("com.share")).with("KoExtensionIdentifier", Value("com.s2")), {share2}},
        // Patterns the registry does not evaluate itself narrow nothing.
        {point(Value("<>com.share")), all},
        {point(Value(true)).with("SomeAttribute", Value("x")), all},
    };
    for (const auto& [q, expected] : cases)
        EXPECT_EQ(query(q), expected) << q.description();

    // The filter sees only the candidates of the extension point, and decides.
    std::vector<std::string> seen;
    auto kept = query(point(Value("com.share")), [&](const RegistryPlugInRecord& r) {
        seen.push_back(r.plugInIdentifier);
        return r.plugInIdentifier == "com.s1";
    });
    EXPECT_EQ(kept, (Paths{share1}));
    EXPECT_EQ(seen, (std::vector<std::string>{"com.s1", "com.s2"}));
}

TEST_F(LinuxApplicationRegistryTest, DamagedStoreIsMovedAsideAndRebuilt)
{
    const std::string plugIn = writePlugIn("System/Library/PlugIns/S.vext", "com.s", "1", "p");
    files_.writeText("state/registry.sqlite", std::string(8192, 'x'));
    test::LogCapture log;
    auto registry = open();
    ASSERT_TRUE(registry && registry->plugInAtPath(plugIn));
    EXPECT_EQ(log.countContaining("moved aside"), 1u);
    EXPECT_TRUE(fs::exists(config_.registryDatabase + ".corrupt"));
    const Uuid uuid = registry->plugInAtPath(plugIn)->uuid;
    registry = open(); // the rebuilt store is an ordinary one from then on
    EXPECT_EQ(log.countContaining("moved aside"), 1u);
    EXPECT_EQ(registry->plugInAtPath(plugIn)->uuid, uuid);

    files_.writeText("blocker", "file"); // no store can be made there
    config_.registryDatabase = files_.path("blocker/registry.sqlite");
    EXPECT_FALSE(LinuxApplicationRegistry::create(config_, bundles_, codeSigning_).ok());
}

// A store of the first schema (no extension point column) is upgraded in
// place at open: its plug-ins keep their UUIDs and are found by extension
// point at once, and the first scan records their extension points quietly.
TEST_F(LinuxApplicationRegistryTest, StoreOfTheFirstSchemaIsUpgradedInPlace)
{
    const std::string plugIn = writePlugIn("System/Library/PlugIns/S.vext", "com.s", "1", "com.share");
    const Uuid uuid = open()->plugInAtPath(plugIn)->uuid;
    sql("ALTER TABLE plugins DROP COLUMN extension_point; PRAGMA user_version = 1;");

    test::LogCapture log;
    auto registry = open(Scan::WhenWatching);
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("upgraded to schema version 2"), 1u);
    EXPECT_EQ(log.countContaining("moved aside"), 0u);
    auto found = registry->queryPlugIns(Value{{"KoExtensionPointIdentifier", Value("com.share")}}, {});
    ASSERT_TRUE(found && found->size() == 1u);
    EXPECT_EQ(found->front()->uuid, uuid);
    EXPECT_EQ(sql("SELECT quote(extension_point) FROM plugins"), "NULL");

    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);
    registry->rescan();
    registry->waitForAnnouncements();
    EXPECT_EQ(observer->count(true) + observer->count(false), 0u);
    EXPECT_EQ(sql("SELECT extension_point FROM plugins"), "com.share");
    registry = open(Scan::WhenWatching);
    EXPECT_EQ(registry->plugInAtPath(plugIn)->uuid, uuid);
    EXPECT_EQ(log.countContaining("upgraded to schema version"), 1u);
}

// Rows are read on first use, after open: damage found only then is
// handled there as at open, and a scan then records everything again.
TEST_F(LinuxApplicationRegistryTest, DamagedRowsFoundAfterOpenAreMovedAsideAndRebuilt)
{
    std::string plugIn;
    for (int i = 0; i < 60; ++i) // enough rows for several pages of the table
        plugIn = writePlugIn("System/Library/PlugIns/P" + std::to_string(i) + ".vext", "com.p" + std::to_string(i),
                             "1", "p");
    ASSERT_TRUE(open());
    // Garbage over the table's last leaf; its root and first leaf, which
    // open reads, stay intact.
    const int root = std::stoi(sql("SELECT rootpage FROM sqlite_master WHERE name = 'plugins'"));
    std::fstream file(config_.registryDatabase, std::ios::in | std::ios::out | std::ios::binary);
    unsigned char header[12];
    file.seekg(static_cast<std::streamoff>(root - 1) * 4096);
    file.read(reinterpret_cast<char*>(header), sizeof header);
    ASSERT_EQ(header[0], 0x05) << "the table fits one page";
    const unsigned last = (header[8] << 24) | (header[9] << 16) | (header[10] << 8) | header[11];
    file.seekp(static_cast<std::streamoff>(last - 1) * 4096);
    file.write(std::string(4096, 'x').data(), 4096);
    file.close();

    test::LogCapture log;
    auto registry = open(Scan::WhenWatching);
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("moved aside"), 0u);
    EXPECT_TRUE(registry->allPlugIns().empty());
    EXPECT_EQ(log.countContaining("moved aside"), 1u);
    EXPECT_TRUE(fs::exists(config_.registryDatabase + ".corrupt"));
    registry->rescan();
    ASSERT_EQ(registry->allPlugIns().size(), 60u);
    const Uuid uuid = registry->plugInAtPath(plugIn)->uuid;
    registry = open(Scan::WhenWatching);
    EXPECT_EQ(registry->plugInAtPath(plugIn)->uuid, uuid);
}

// The daemon's database drops the registry's caches on its own queue, and
// its uninstall callback waits for that queue: a purge queued while the
// watcher's rescan announces an uninstall must still go through.
TEST_F(LinuxApplicationRegistryTest, PurgeWhileTheWatcherRescansDoesNotDeadlock)
{
    const std::string plugIn = writePlugIn("System/Library/PlugIns/S.vext", "com.s", "1", "p");
    writePlugIn("System/Library/PlugIns/T.vext", "com.t", "1", "p");
    auto registry = open();
    ASSERT_TRUE(registry);
    auto databaseQueue = SerialQueue::create("TvDatabase");
    std::atomic<bool> purgedInTime{false};
    auto observer = std::make_shared<RecordingObserver>();
    observer->onUninstall = [&] {
        auto purged = std::make_shared<std::promise<void>>();
        databaseQueue->async([&, purged] {
            registry->dropCaches();
            purged->set_value();
        });
        purgedInTime = purged->get_future().wait_for(std::chrono::seconds(3)) == std::future_status::ready;
    };
    registry->addObserver(observer);
    ASSERT_FALSE(registry->startWatching(std::chrono::milliseconds(20)));
    fs::remove_all(plugIn);
    test::eventually([&] { return observer->count(false) > 0; });
    registry->waitForAnnouncements();
    ASSERT_EQ(pathsOf(observer->uninstalled), (Paths{plugIn}));
    EXPECT_TRUE(purgedInTime);
    EXPECT_EQ(registry->allPlugIns().size(), 1u);
    databaseQueue->sync([] {});
}

// A daemon with a stored registry answers from the store at once and leaves
// reading the bundles to the watcher, which announces what changed while it
// was down; an empty store is scanned before create() returns.
TEST_F(LinuxApplicationRegistryTest, FirstScanCanBeLeftToTheWatcher)
{
    const std::string kept = writePlugIn("System/Library/PlugIns/K.vext", "com.k", "1", "p");
    const std::string gone = writePlugIn("System/Library/PlugIns/G.vext", "com.g", "1", "p");
    ASSERT_EQ(open(Scan::WhenWatching)->allPlugIns().size(), 2u);

    fs::remove_all(gone);
    const std::string added = writePlugIn("System/Library/PlugIns/N.vext", "com.n", "1", "p");
    auto registry = open(Scan::WhenWatching);
    ASSERT_TRUE(registry);
    EXPECT_TRUE(registry->plugInAtPath(gone));
    EXPECT_FALSE(registry->plugInAtPath(added));

    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);
    ASSERT_FALSE(registry->startWatching(std::chrono::hours(1)));
    test::eventually([&] { return observer->count(true) > 0; });
    registry->waitForAnnouncements();
    EXPECT_EQ(pathsOf(observer->installed), (Paths{added}));
    EXPECT_EQ(pathsOf(observer->uninstalled), (Paths{gone}));
    EXPECT_TRUE(registry->plugInAtPath(kept));
    EXPECT_FALSE(registry->plugInAtPath(gone));
}

} // namespace
} // namespace tv::platform
