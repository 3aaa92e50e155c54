#include "platform/registry/LinuxApplicationRegistry.h"

#include "platform/process/LinuxBundleService.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "platform/formats/Vlist.h"
#include "tests/support/FakeClientIdentity.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

// Records what the registry announces, and what lookups answered at that
// moment.
class RecordingObserver final : public ApplicationRegistryObserver {
public:
    explicit RecordingObserver(ApplicationRegistry* registry = nullptr) : registry_(registry) {}

    void pluginsDidInstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        std::lock_guard lock(mutex_);
        for (const auto& p : plugIns) {
            installed.push_back(p);
            if (registry_)
                foundWhenInstalled.push_back(registry_->plugInWithUuid(p->uuid) != nullptr);
        }
        if (registry_)
            reentryError = registry_->registerPlugIn(plugIns.front()->bundlePath);
        changed_.notify_all();
    }
    void pluginsWillUninstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        std::lock_guard lock(mutex_);
        for (const auto& p : plugIns) {
            uninstalled.push_back(p);
            if (registry_)
                foundWhenUninstalling.push_back(registry_->plugInWithUuid(p->uuid) != nullptr);
        }
        changed_.notify_all();
    }
    // Waits (at most five seconds) until `count` installs have been seen.
    bool waitForInstalls(std::size_t count)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return installed.size() >= count; });
    }
    void clear()
    {
        std::lock_guard lock(mutex_);
        installed.clear();
        uninstalled.clear();
    }

    std::vector<RegistryPlugInRecordPtr> installed;
    std::vector<RegistryPlugInRecordPtr> uninstalled;
    std::vector<bool> foundWhenInstalled;
    std::vector<bool> foundWhenUninstalling;
    MaybeError reentryError;

private:
    ApplicationRegistry* registry_;
    std::mutex mutex_;
    std::condition_variable changed_;
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
        bundles_ = std::make_shared<LinuxBundleService>();
        codeSigning_ = std::make_shared<LinuxCodeSigningService>(std::make_shared<test::FakeProcessInfo>(), bundles_,
                                                                 std::string());
    }

    std::shared_ptr<LinuxApplicationRegistry> open()
    {
        auto registry = LinuxApplicationRegistry::create(config_, bundles_, codeSigning_);
        EXPECT_TRUE(registry.ok()) << (registry.ok() ? "" : registry.error().localizedDescription());
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
                            const std::string& extensionPoint)
    {
        return writeBundle(relative, Value{{"KbBundleIdentifier", Value(identifier)},
                                           {"KbBundleVersion", Value(version)},
                                           {"KbBundleExecutable", Value("main")},
                                           {"KoExtension", Value{{"KoExtensionPointIdentifier", Value(extensionPoint)}}}});
    }

    test::FakeVlistFiles files_;
    PlatformConfig config_;
    std::shared_ptr<LinuxBundleService> bundles_;
    std::shared_ptr<LinuxCodeSigningService> codeSigning_;
};

std::vector<std::string> pathsOf(const std::vector<RegistryPlugInRecordPtr>& records)
{
    std::vector<std::string> paths;
    for (const auto& r : records)
        paths.push_back(r->bundlePath);
    return paths;
}

TEST_F(LinuxApplicationRegistryTest, ScanRecordsApplicationsAndPlugInsWithEveryField)
{
    const std::string app = writeBundle("Applications/Example.app",
                                        Value{{"KbBundleIdentifier", Value("com.example.app")},
                                              {"KbBundleDisplayName", Value("Example")},
                                              {"KbBundleExecutable", Value("example")}});
    const Value shareExtension{{"KoExtensionPointIdentifier", Value("com.veltra.share")},
                               {"KoExtensionIdentifier", Value("com.example.app.share-ext")},
                               {"KoExtensionAttributes", Value{{"Kind", Value("text")}}}};
    const std::string share = writeBundle("Applications/Example.app/PlugIns/Share.vext",
                                          Value{{"KbBundleIdentifier", Value("com.example.app.share")},
                                                {"KbBundleVersion", Value("7")},
                                                {"KbBundleShortVersionString", Value("1.2")},
                                                {"KbBundleName", Value("Share")},
                                                {"KbBundleExecutable", Value("share")},
                                                {"KoExtension", shareExtension}});
    ASSERT_FALSE(writeVlistFileAtomically(share + "/Entitlements.vlist",
                                          Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}}));
    writePlugIn("Applications/Example.app/PlugIns/Another.vext", "com.example.app.another", "1", "com.veltra.share");
    const std::string system = writeBundle("System/Library/PlugIns/Sys.vext",
                                           Value{{"KbBundleIdentifier", Value("com.veltra.sys")},
                                                 {"KbBundleShortVersionString", Value("3.0")},
                                                 {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("com.veltra.x")}}}});
    writeBundle("Applications/Placeholder.app",
                Value{{"KbBundleIdentifier", Value("com.example.wip")}, {"KbApplicationIsPlaceholder", Value(true)}});
    // Not counted: no Info.vlist, a plug-in dictionary that is not one, no identifier.
    files_.makeDirectory("Applications/Empty.app");
    writeBundle("Applications/Example.app/PlugIns/Broken.vext",
                Value{{"KbBundleIdentifier", Value("com.example.broken")}, {"KoExtension", Value("text")}});
    writeBundle("System/Library/PlugIns/Nameless.vext", Value{{"KoExtension", Value::emptyDictionary()}});

    test::LogCapture log;
    const Date before = Date::now();
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("skipping plug-in"), 2u);
    EXPECT_EQ(log.countContaining("skipping application"), 1u);

    EXPECT_EQ(pathsOf(registry->allPlugIns()),
              (std::vector<std::string>{app + "/PlugIns/Another.vext", share, system}));

    auto record = registry->plugInAtPath(share);
    ASSERT_TRUE(record);
    EXPECT_EQ(registry->plugInAtPath("file://" + share + "/"), record);
    EXPECT_EQ(registry->plugInWithUuid(record->uuid), record);
    // The extension's own identifier wins over the bundle's, which is kept.
    EXPECT_EQ(record->plugInIdentifier, "com.example.app.share-ext");
    EXPECT_EQ(record->originalIdentifier, "com.example.app.share");
    EXPECT_EQ(record->bundleVersion, "7");
    EXPECT_GE(record->registrationDate, before);
    EXPECT_FALSE(record->onSystemVolume);
    EXPECT_EQ(record->entitlements, (Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}}));
    EXPECT_EQ(record->localizedShortName, "Share");
    EXPECT_EQ(record->plugInDictionary, shareExtension);
    EXPECT_EQ(record->extensionPointIdentifier, "com.veltra.share");
    EXPECT_FALSE(record->registeredByPath);
    ASSERT_TRUE(record->containingApplication);
    EXPECT_EQ(record->containingApplication->bundlePath, app);

    // The data container exists, private to the daemon's user.
    EXPECT_EQ(record->dataContainerPath, config_.containersRoot + "/Data/PlugIn/" + record->uuid.string() + "/");
    struct stat st;
    ASSERT_EQ(::stat(record->dataContainerPath.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFDIR | 0700u);

    // No extension identifier nor bundle version: the bundle's identifier and short version.
    auto sys = registry->plugInAtPath(system);
    ASSERT_TRUE(sys);
    EXPECT_EQ(sys->plugInIdentifier, "com.veltra.sys");
    EXPECT_EQ(sys->bundleVersion, "3.0");
    EXPECT_TRUE(sys->onSystemVolume);
    EXPECT_FALSE(sys->containingApplication);
    EXPECT_EQ(sys->entitlements, Value::emptyDictionary());

    auto application = registry->applicationAtPath("file://" + app);
    ASSERT_TRUE(application);
    EXPECT_EQ(application->localizedName, "Example");
    EXPECT_EQ(pathsOf(registry->plugInsOfApplication(*application)),
              (std::vector<std::string>{app + "/PlugIns/Another.vext", share}));
    auto placeholder = registry->applicationAtPath(files_.path("Applications/Placeholder.app"));
    ASSERT_TRUE(placeholder);
    EXPECT_TRUE(placeholder->isPlaceholder);
    EXPECT_TRUE(placeholder->plugInUuids.empty());
    EXPECT_FALSE(registry->applicationAtPath(files_.path("Applications/Empty.app")));
    EXPECT_FALSE(registry->plugInAtPath(files_.path("Applications/Example.app/PlugIns/Broken.vext")));

    // Dropping caches rebuilds the same records from the store.
    registry->dropCaches();
    auto again = registry->plugInAtPath(share);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->uuid, record->uuid);
    EXPECT_EQ(again->entitlements, record->entitlements);
    EXPECT_EQ(registry->allPlugIns().size(), 3u);
}

TEST_F(LinuxApplicationRegistryTest, UuidsSurviveRestartsAndChangeWithIdentifierOrVersion)
{
    const std::string a = writePlugIn("Applications/A.app/PlugIns/A.vext", "com.a", "1", "p");
    writeBundle("Applications/A.app", Value{{"KbBundleIdentifier", Value("com.a.app")}});
    const std::string b = writePlugIn("System/Library/PlugIns/B.vext", "com.b", "1", "p");
    const std::string c = writePlugIn("System/Library/PlugIns/C.vext", "com.c", "1", "p");

    Uuid uuidA, uuidB, uuidC;
    Date registeredA;
    {
        auto registry = open();
        ASSERT_TRUE(registry);
        ASSERT_EQ(registry->allPlugIns().size(), 3u);
        uuidA = registry->plugInAtPath(a)->uuid;
        uuidB = registry->plugInAtPath(b)->uuid;
        uuidC = registry->plugInAtPath(c)->uuid;
        registeredA = registry->plugInAtPath(a)->registrationDate;
    }
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(registry->plugInAtPath(a)->uuid, uuidA);
    EXPECT_EQ(registry->plugInAtPath(a)->registrationDate, registeredA);
    EXPECT_EQ(registry->plugInAtPath(b)->uuid, uuidB);
    ASSERT_TRUE(registry->plugInAtPath(a)->containingApplication);

    auto observer = std::make_shared<RecordingObserver>(registry.get());
    registry->addObserver(observer);

    // A new version is a new installation; a changed bundle name is not.
    writePlugIn("System/Library/PlugIns/B.vext", "com.b", "2", "p");
    writeBundle("Applications/A.app/PlugIns/A.vext",
                Value{{"KbBundleIdentifier", Value("com.a")},
                      {"KbBundleVersion", Value("1")},
                      {"KbBundleName", Value("Renamed")},
                      {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("p")}}}});
    fs::remove_all(c);
    const std::string d = writePlugIn("System/Library/PlugIns/D.vext", "com.d", "1", "p");
    registry->rescan();

    EXPECT_EQ(registry->plugInAtPath(a)->uuid, uuidA);
    EXPECT_EQ(registry->plugInAtPath(a)->localizedName, "Renamed");
    auto newB = registry->plugInAtPath(b);
    ASSERT_TRUE(newB);
    EXPECT_NE(newB->uuid, uuidB);
    EXPECT_EQ(newB->bundleVersion, "2");
    EXPECT_FALSE(registry->plugInWithUuid(uuidB));
    EXPECT_FALSE(registry->plugInAtPath(c));

    std::vector<Uuid> gone;
    for (const auto& r : observer->uninstalled)
        gone.push_back(r->uuid);
    EXPECT_EQ(gone, (std::vector<Uuid>{uuidB, uuidC}));
    EXPECT_EQ(pathsOf(observer->installed), (std::vector<std::string>{b, d}));
    // Leaving records are still found while they are announced, arriving ones
    // already are; an observer cannot change the registry from a callback.
    EXPECT_EQ(observer->foundWhenUninstalling, (std::vector<bool>{true, true}));
    EXPECT_EQ(observer->foundWhenInstalled, (std::vector<bool>{true, true}));
    ASSERT_TRUE(observer->reentryError);
    EXPECT_EQ(observer->reentryError->code, EDEADLK);

    // A rescan that finds nothing new tells nothing.
    observer->clear();
    registry->rescan();
    EXPECT_TRUE(observer->installed.empty());
    EXPECT_TRUE(observer->uninstalled.empty());

    // Removing the application removes its plug-ins and its record.
    fs::remove_all(files_.path("Applications/A.app"));
    registry->rescan();
    EXPECT_FALSE(registry->applicationAtPath(files_.path("Applications/A.app")));
    EXPECT_EQ(pathsOf(observer->uninstalled), (std::vector<std::string>{a}));
}

TEST_F(LinuxApplicationRegistryTest, RegistrationByPathIsCheckedAndPersists)
{
    const std::string loose = writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_TRUE(registry->allPlugIns().empty());
    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);

    // Refusals change nothing.
    files_.makeDirectory("Elsewhere/Plain.vext");
    writeBundle("Elsewhere/NoExtension.vext", Value{{"KbBundleIdentifier", Value("com.none")}});
    writeBundle("Elsewhere/WrongSuffix.bundle",
                Value{{"KbBundleIdentifier", Value("com.w")}, {"KoExtension", Value::emptyDictionary()}});
    for (const char* bad : {"Elsewhere/Plain.vext", "Elsewhere/NoExtension.vext", "Elsewhere/WrongSuffix.bundle",
                            "Elsewhere/Missing.vext"}) {
        MaybeError error = registry->registerPlugIn(files_.path(bad));
        ASSERT_TRUE(error) << bad;
        EXPECT_EQ(error->code, EINVAL) << bad;
    }
    MaybeError unknown = registry->unregisterPlugIn(loose);
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->code, ENOENT);
    EXPECT_TRUE(registry->allPlugIns().empty());
    EXPECT_TRUE(observer->installed.empty());

    ASSERT_FALSE(registry->registerPlugIn("file://" + loose));
    auto record = registry->plugInAtPath(loose);
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->registeredByPath);
    EXPECT_FALSE(record->containingApplication);
    EXPECT_EQ(pathsOf(observer->installed), (std::vector<std::string>{loose}));
    // Registering again refreshes without a new installation.
    ASSERT_FALSE(registry->registerPlugIn(loose));
    EXPECT_EQ(registry->plugInAtPath(loose)->uuid, record->uuid);
    EXPECT_EQ(observer->installed.size(), 1u);

    // The registration outlives the process, with its UUID.
    registry.reset();
    registry = open();
    ASSERT_TRUE(registry);
    ASSERT_TRUE(registry->plugInAtPath(loose));
    EXPECT_EQ(registry->plugInAtPath(loose)->uuid, record->uuid);
    registry->addObserver(observer);

    // Re-registering after an upgrade in place is a new installation.
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "2", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    EXPECT_NE(registry->plugInAtPath(loose)->uuid, record->uuid);
    ASSERT_EQ(observer->uninstalled.size(), 1u);
    EXPECT_EQ(observer->uninstalled[0]->uuid, record->uuid);

    ASSERT_FALSE(registry->unregisterPlugIn(loose + "/"));
    EXPECT_FALSE(registry->plugInAtPath(loose));
    EXPECT_EQ(observer->uninstalled.size(), 2u);
    registry.reset();
    registry = open();
    ASSERT_TRUE(registry);
    EXPECT_TRUE(registry->allPlugIns().empty());

    // A registered bundle that vanishes is uninstalled by the next scan.
    ASSERT_FALSE(registry->registerPlugIn(loose));
    fs::remove_all(loose);
    registry->rescan();
    EXPECT_TRUE(registry->allPlugIns().empty());
    // Unregistering works for a path whose bundle is already gone.
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    fs::remove_all(loose);
    EXPECT_FALSE(registry->unregisterPlugIn(loose));
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
        return found ? pathsOf(*found) : std::vector<std::string>{"<none>"};
    };
    const std::vector<std::string> all{edit, other, share1, share2};
    EXPECT_EQ(query(Value()), all);
    EXPECT_EQ(query(Value::emptyDictionary()), all);
    EXPECT_EQ(query(Value("com.share")), (std::vector<std::string>{"<none>"}));

    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value("com.share")}}),
              (std::vector<std::string>{share1, share2}));
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value("=com.edit")}}), (std::vector<std::string>{edit}));
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value(Array{Value("com.share"), Value("com.edit"),
                                                                     Value("com.share")})}}),
              (std::vector<std::string>{edit, share1, share2}));
    EXPECT_TRUE(query(Value{{"KoExtensionPointIdentifier", Value("com.none")}}).empty());
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value("com.share")}, {"KoExtensionIdentifier", Value("com.s2")}}),
              (std::vector<std::string>{share2}));
    // Patterns the registry does not evaluate itself narrow nothing.
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value("<>com.share")}}), all);
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value(true)}, {"SomeAttribute", Value("x")}}), all);

    // The filter sees each candidate record and decides.
    std::vector<std::string> seen;
    auto kept = query(Value{{"KoExtensionPointIdentifier", Value("com.share")}},
                      [&](const RegistryPlugInRecord& r) {
                          seen.push_back(r.plugInIdentifier);
                          return r.plugInIdentifier == "com.s1";
                      });
    EXPECT_EQ(kept, (std::vector<std::string>{share1}));
    EXPECT_EQ(seen, (std::vector<std::string>{"com.s1", "com.s2"}));

    // The index follows changes.
    ASSERT_FALSE(registry->unregisterPlugIn(share1));
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value("com.share")}}), (std::vector<std::string>{share2}));
}

TEST_F(LinuxApplicationRegistryTest, DamagedStoreIsMovedAsideAndRebuilt)
{
    const std::string plugIn = writePlugIn("System/Library/PlugIns/S.vext", "com.s", "1", "p");
    files_.writeText("state/registry.sqlite", std::string(8192, 'x'));

    test::LogCapture log;
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("moved aside"), 1u);
    EXPECT_TRUE(fs::exists(config_.registryDatabase + ".corrupt"));
    ASSERT_TRUE(registry->plugInAtPath(plugIn));
    const Uuid uuid = registry->plugInAtPath(plugIn)->uuid;

    // The rebuilt store is an ordinary one from then on.
    registry.reset();
    log.clear();
    registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("moved aside"), 0u);
    EXPECT_EQ(registry->plugInAtPath(plugIn)->uuid, uuid);

    // A location where no store can be made is an error, not a crash.
    files_.writeText("blocker", "file");
    config_.registryDatabase = files_.path("blocker/registry.sqlite");
    EXPECT_FALSE(LinuxApplicationRegistry::create(config_, bundles_, codeSigning_).ok());
}

TEST_F(LinuxApplicationRegistryTest, WatcherNoticesNewPlugIns)
{
    writeBundle("Applications/A.app", Value{{"KbBundleIdentifier", Value("com.a.app")}});
    files_.makeDirectory("Applications/A.app/PlugIns");
    auto registry = open();
    ASSERT_TRUE(registry);
    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);
    ASSERT_FALSE(registry->startWatching(std::chrono::milliseconds(20)));

    const std::string inApp = writePlugIn("Applications/A.app/PlugIns/New.vext", "com.new", "1", "p");
    ASSERT_TRUE(observer->waitForInstalls(1));
    ASSERT_TRUE(registry->plugInAtPath(inApp));
    EXPECT_EQ(registry->plugInAtPath(inApp)->containingApplication->bundlePath, files_.path("Applications/A.app"));

    // An application installed later is followed too, down to its plug-ins.
    writeBundle("Applications/B.app", Value{{"KbBundleIdentifier", Value("com.b.app")}});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!registry->applicationAtPath(files_.path("Applications/B.app")) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_TRUE(registry->applicationAtPath(files_.path("Applications/B.app")));
    const std::string inB = writePlugIn("Applications/B.app/PlugIns/Late.vext", "com.late", "1", "p");
    ASSERT_TRUE(observer->waitForInstalls(2));
    EXPECT_TRUE(registry->plugInAtPath(inB));
}

} // namespace
} // namespace tv::platform
