#include "platform/registry/LinuxApplicationRegistry.h"

#include "base/SerialQueue.h"
#include "platform/formats/Vlist.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "tests/support/FakeClientIdentity.h"
#include "tests/support/FakeExtensionSdkRegistry.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

// Records what the registry announces, on which thread, and whether lookups
// found the arriving records at that moment. `onUninstall` runs inside the
// uninstall callback.
class RecordingObserver final : public ApplicationRegistryObserver {
public:
    explicit RecordingObserver(ApplicationRegistry* registry = nullptr) : registry_(registry) {}

    void pluginsDidInstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        std::lock_guard lock(mutex_);
        threads.insert(std::this_thread::get_id());
        for (const auto& p : plugIns) {
            installed.push_back(p);
            if (registry_)
                foundWhenInstalled.push_back(registry_->plugInWithUuid(p->uuid) != nullptr);
        }
        changed_.notify_all();
    }
    void pluginsWillUninstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) override
    {
        if (onUninstall)
            onUninstall();
        std::lock_guard lock(mutex_);
        threads.insert(std::this_thread::get_id());
        uninstalled.insert(uninstalled.end(), plugIns.begin(), plugIns.end());
        changed_.notify_all();
    }
    // Waits (at most five seconds) until `count` installs have been seen.
    bool waitForInstalls(std::size_t count)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return installed.size() >= count; });
    }
    std::size_t uninstalledCount()
    {
        std::lock_guard lock(mutex_);
        return uninstalled.size();
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
    std::set<std::thread::id> threads;
    std::function<void()> onUninstall;

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
        sdks_ = std::make_shared<test::FakeExtensionSdkRegistry>();
    }

    std::shared_ptr<LinuxApplicationRegistry> open()
    {
        auto registry = LinuxApplicationRegistry::create(config_, bundles_, codeSigning_, sdks_);
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
                            const std::string& extensionPoint, const Value& extra = Value::emptyDictionary())
    {
        Value extension{{"KoExtensionPointIdentifier", Value(extensionPoint)}};
        for (const auto& [key, value] : *extra.asDictionary())
            extension = extension.with(key, value);
        return writeBundle(relative, Value{{"KbBundleIdentifier", Value(identifier)},
                                           {"KbBundleVersion", Value(version)},
                                           {"KbBundleExecutable", Value("main")},
                                           {"KoExtension", extension}});
    }

    test::FakeVlistFiles files_;
    PlatformConfig config_;
    std::shared_ptr<LinuxBundleService> bundles_;
    std::shared_ptr<LinuxCodeSigningService> codeSigning_;
    std::shared_ptr<test::FakeExtensionSdkRegistry> sdks_;
};

std::vector<std::string> pathsOf(const std::vector<RegistryPlugInRecordPtr>& records)
{
    std::vector<std::string> paths;
    for (const auto& r : records)
        paths.push_back(r->bundlePath);
    return paths;
}

// Polls `done` for at most five seconds.
template <class Pred>
bool eventually(Pred done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return done();
}

TEST_F(LinuxApplicationRegistryTest, ScanRecordsApplicationsAndPlugInsWithEveryField)
{
    const std::string app = writeBundle("Applications/Example.app",
                                        Value{{"KbBundleIdentifier", Value("com.example.app")},
                                              {"KbBundleDisplayName", Value("Example")},
                                              {"KbBundleExecutable", Value("example")}});
    const std::string share = writeBundle(
        "Applications/Example.app/PlugIns/Share.vext",
        Value{{"KbBundleIdentifier", Value("com.example.app.share")},
              {"KbBundleVersion", Value("7")},
              {"KbBundleShortVersionString", Value("1.2")},
              {"KbBundleName", Value("Share")},
              {"KbBundleExecutable", Value("share")},
              {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("com.veltra.share")},
                                    {"KoExtensionIdentifier", Value("com.example.app.share-ext")}}}});
    ASSERT_FALSE(writeVlistFileAtomically(share + "/Entitlements.vlist",
                                          Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}}));
    writePlugIn("Applications/Example.app/PlugIns/Another.vext", "com.example.app.another", "1", "com.veltra.share");
    const std::string system = writeBundle("System/Library/PlugIns/Sys.vext",
                                           Value{{"KbBundleIdentifier", Value("com.veltra.sys")},
                                                 {"KbBundleShortVersionString", Value("3.0")},
                                                 {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("com.veltra.x")}}}});
    writeBundle("Applications/Placeholder.app",
                Value{{"KbBundleIdentifier", Value("com.example.wip")}, {"KbApplicationIsPlaceholder", Value(true)}});
    // Not counted: no Info.vlist, a plug-in dictionary that is not one, no
    // identifier, an Info.vlist nested past the reader's limits.
    files_.makeDirectory("Applications/Empty.app");
    writeBundle("Applications/Example.app/PlugIns/Broken.vext",
                Value{{"KbBundleIdentifier", Value("com.example.broken")}, {"KoExtension", Value("text")}});
    writeBundle("System/Library/PlugIns/Nameless.vext", Value{{"KoExtension", Value::emptyDictionary()}});
    files_.makeDirectory("System/Library/PlugIns/Hostile.vext");
    std::string deep = "<vlist>";
    for (int i = 0; i < 200; ++i)
        deep += "<array>";
    files_.writeText("System/Library/PlugIns/Hostile.vext/Info.vlist", deep);

    test::LogCapture log;
    const Date before = Date::now();
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_EQ(log.countContaining("skipping plug-in"), 3u);
    EXPECT_EQ(log.countContaining("Hostile.vext: Info.vlist is not a readable dictionary"), 1u);
    EXPECT_EQ(log.countContaining("skipping application"), 1u);

    EXPECT_EQ(pathsOf(registry->allPlugIns()),
              (std::vector<std::string>{app + "/PlugIns/Another.vext", share, system}));

    auto record = registry->plugInAtPath(share);
    ASSERT_TRUE(record);
    EXPECT_EQ(registry->plugInAtPath("file://" + share + "/"), record);
    // The extension's own identifier wins over the bundle's, which is kept.
    EXPECT_EQ(record->plugInIdentifier, "com.example.app.share-ext");
    EXPECT_EQ(record->originalIdentifier, "com.example.app.share");
    EXPECT_GE(record->registrationDate, before);
    EXPECT_FALSE(record->onSystemVolume);
    EXPECT_EQ(record->entitlements, (Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}}));
    EXPECT_EQ(record->localizedShortName, "Share");
    EXPECT_FALSE(record->registeredByPath);
    ASSERT_TRUE(record->containingApplication);
    EXPECT_EQ(record->containingApplication->bundlePath, app);

    // The data container exists, private to the daemon's user.
    EXPECT_EQ(record->dataContainerPath, config_.containersRoot + "/Data/PlugIn/" + record->uuid.string() + "/");
    struct stat st;
    ASSERT_EQ(::stat(record->dataContainerPath.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFDIR | 0700u);

    // No bundle version: the short version.
    auto sys = registry->plugInAtPath(system);
    ASSERT_TRUE(sys);
    EXPECT_EQ(sys->bundleVersion, "3.0");
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

    // Dropping caches rebuilds the same records from the store.
    registry->dropCaches();
    auto again = registry->plugInAtPath(share);
    ASSERT_TRUE(again);
    EXPECT_NE(again, record);
    EXPECT_EQ(again->uuid, record->uuid);
    EXPECT_EQ(again->entitlements, record->entitlements);
    EXPECT_EQ(registry->allPlugIns().size(), 3u);
}

TEST_F(LinuxApplicationRegistryTest, VersionsAndSystemVolumeReadWhateverFormTheyTake)
{
    struct Case {
        const char* name;
        Value version;      // KbBundleVersion, or null
        Value shortVersion; // KbBundleShortVersionString, or null
        std::string expected;
    };
    const Case cases[] = {
        {"Text", Value("7"), Value(), "7"},
        {"Integer", Value(12), Value(), "12"},
        {"Real", Value(1.5), Value(), "1.5"},
        {"NumericShort", Value(), Value(3), "3"},
        {"NoneUsable", Value(true), Value(Array{}), ""},
    };
    for (const Case& c : cases) {
        Value info{{"KbBundleIdentifier", Value(std::string("com.v.") + c.name)},
                   {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("p")}}}};
        if (!c.version.isNull())
            info = info.with("KbBundleVersion", c.version);
        if (!c.shortVersion.isNull())
            info = info.with("KbBundleShortVersionString", c.shortVersion);
        writeBundle(std::string("System/Library/PlugIns/") + c.name + ".vext", info);
    }

    // The system volume root is compared in canonical form.
    fs::create_directory_symlink(files_.path("System"), files_.path("SystemLink"));
    const std::string relative = fs::relative(files_.path("System"), fs::current_path()).string();
    for (const std::string& root : {relative, files_.path("SystemLink"), files_.path("SystemLink/")}) {
        SCOPED_TRACE(root);
        config_.systemVolumeRoot = root;
        auto registry = open();
        ASSERT_TRUE(registry);
        for (const Case& c : cases) {
            auto record = registry->plugInAtPath(files_.path(std::string("System/Library/PlugIns/") + c.name + ".vext"));
            ASSERT_TRUE(record) << c.name;
            EXPECT_EQ(record->bundleVersion, c.expected) << c.name;
            EXPECT_TRUE(record->onSystemVolume) << c.name;
        }
    }
}

TEST_F(LinuxApplicationRegistryTest, ScopesAnswerTheDictionariesCompletedWithSdkDefaults)
{
    sdks_->set("com.share", Value{{"SdkTop", Value("sdk")},
                                  {"KoExtension", Value{{"CleanTimeout", Value(30)},
                                                        {"KoExtensionAttributes", Value{{"Kind", Value("sdk")},
                                                                                        {"SdkOnly", Value(1)}}}}}});
    const std::string withSdk =
        writePlugIn("System/Library/PlugIns/S.vext", "com.s", "1", "com.share",
                    Value{{"CleanTimeout", Value(5)}, {"KoExtensionAttributes", Value{{"Kind", Value("own")}}}});
    const std::string bare = writeBundle("System/Library/PlugIns/B.vext",
                                         Value{{"KbBundleIdentifier", Value("com.b")},
                                               {"KbBundleShortVersionString", Value("2.3")},
                                               {"KoExtension", Value{{"KoExtensionPointIdentifier", Value("com.bare")},
                                                                     {"KoExtensionAttributes", Value("junk")}}}});
    auto registry = open();
    ASSERT_TRUE(registry);
    auto s = registry->plugInAtPath(withSdk);
    auto b = registry->plugInAtPath(bare);
    ASSERT_TRUE(s && b);

    enum Scope { Info, PlugIn, Attribute };
    struct Case {
        const RegistryPlugInRecord* record;
        Scope scope;
        const char* key;
        Value expected;
    };
    const Case cases[] = {
        {s.get(), Info, "SdkTop", Value("sdk")},           // only the SDK sets it
        {s.get(), Info, "KbBundleIdentifier", Value("com.s")},
        {s.get(), PlugIn, "CleanTimeout", Value(30)},      // the SDK wins this one
        {s.get(), Attribute, "Kind", Value("own")},        // the plug-in wins the rest
        {s.get(), Attribute, "SdkOnly", Value(1)},
        {s.get(), Attribute, "KoExtensionVersion", Value("1")},
        {s.get(), Attribute, "KoExtensionPointIdentifier", Value("com.share")}, // plug-in keys answer too
        {b.get(), Attribute, "KoExtensionVersion", Value("2.3")},
        {b.get(), PlugIn, "KoExtensionAttributes", Value{{"KoExtensionVersion", Value("2.3")}}},
        {b.get(), Attribute, "Missing", Value()},
    };
    for (const Case& c : cases) {
        const Value& found = c.scope == Info     ? c.record->infoValue(c.key)
                             : c.scope == PlugIn ? c.record->plugInValue(c.key)
                                                 : c.record->attributeValue(c.key);
        EXPECT_EQ(found, c.expected) << c.record->plugInIdentifier << " " << c.scope << " " << c.key;
    }

    // An SDK installed later is seen once the caches are rebuilt.
    sdks_->set("com.bare", Value{{"KoExtension", Value{{"Late", Value(true)}}}});
    EXPECT_TRUE(registry->plugInAtPath(bare)->attributeValue("Late").isNull());
    registry->dropCaches();
    EXPECT_EQ(registry->plugInAtPath(bare)->attributeValue("Late"), Value(true));
}

TEST_F(LinuxApplicationRegistryTest, UuidsSurviveRestartsAndEveryChangeIsAnnouncedOnOneThread)
{
    const std::string a = writePlugIn("Applications/A.app/PlugIns/A.vext", "com.a", "1", "p");
    writeBundle("Applications/A.app", Value{{"KbBundleIdentifier", Value("com.a.app")}});
    const std::string b = writePlugIn("System/Library/PlugIns/B.vext", "com.b", "1", "p");
    const std::string c = writePlugIn("System/Library/PlugIns/C.vext", "com.c", "1", "p");
    const std::string e = writePlugIn("System/Library/PlugIns/E.vext", "com.e", "1", "p");

    RegistryPlugInRecordPtr oldA, oldB, oldC;
    {
        auto registry = open();
        ASSERT_TRUE(registry);
        ASSERT_EQ(registry->allPlugIns().size(), 4u);
    }
    auto registry = open();
    ASSERT_TRUE(registry);
    oldA = registry->plugInAtPath(a);
    oldB = registry->plugInAtPath(b);
    oldC = registry->plugInAtPath(c);
    ASSERT_TRUE(oldA && oldB && oldC);
    ASSERT_TRUE(oldA->containingApplication);
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
    auto newB = registry->plugInAtPath(b);
    ASSERT_TRUE(newA && newB);
    EXPECT_EQ(newA->uuid, oldA->uuid);
    EXPECT_EQ(newA->registrationDate, oldA->registrationDate);
    EXPECT_EQ(newA->attributeValue("New"), Value(1));
    EXPECT_NE(newB->uuid, oldB->uuid);
    EXPECT_FALSE(registry->plugInWithUuid(oldB->uuid));
    EXPECT_FALSE(registry->plugInAtPath(c));

    // The records given are those that were looked up before, and after.
    EXPECT_EQ(observer->uninstalled, (std::vector<RegistryPlugInRecordPtr>{oldA, oldB, oldC}));
    EXPECT_EQ(pathsOf(observer->installed), (std::vector<std::string>{a, b, d}));
    EXPECT_EQ(observer->installed[0], newA);
    EXPECT_EQ(observer->foundWhenInstalled, (std::vector<bool>{true, true, true}));

    // A rescan that finds nothing new tells nothing; a registration that
    // only marks a scanned bundle as registered changes no fact either.
    observer->clear();
    registry->rescan();
    ASSERT_FALSE(registry->registerPlugIn(e));
    registry->waitForAnnouncements();
    EXPECT_TRUE(observer->installed.empty());
    EXPECT_TRUE(observer->uninstalled.empty());

    // Removing the application removes its plug-ins and its record.
    fs::remove_all(files_.path("Applications/A.app"));
    registry->rescan();
    registry->waitForAnnouncements();
    EXPECT_FALSE(registry->applicationAtPath(files_.path("Applications/A.app")));
    ASSERT_EQ(observer->uninstalled.size(), 1u);
    EXPECT_EQ(observer->uninstalled[0]->uuid, oldA->uuid);

    // Every announcement came from the registry's one callback thread.
    ASSERT_EQ(observer->threads.size(), 1u);
    EXPECT_NE(*observer->threads.begin(), std::this_thread::get_id());
}

TEST_F(LinuxApplicationRegistryTest, RegistrationByPathIsCheckedAndPersists)
{
    const std::string loose = writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    writeBundle("Applications/A.app", Value{{"KbBundleIdentifier", Value("com.a.app")}});
    auto registry = open();
    ASSERT_TRUE(registry);
    EXPECT_TRUE(registry->allPlugIns().empty());
    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);

    // Refusals change nothing, and carry the registry's own error domain.
    files_.makeDirectory("Elsewhere/Plain.vext");
    writeBundle("Elsewhere/NoExtension.vext", Value{{"KbBundleIdentifier", Value("com.none")}});
    writeBundle("Elsewhere/WrongSuffix.bundle",
                Value{{"KbBundleIdentifier", Value("com.w")}, {"KoExtension", Value::emptyDictionary()}});
    files_.makeDirectory("Elsewhere/Hostile.vext");
    files_.writeText("Elsewhere/Hostile.vext/Info.vlist", "<vlist><dict><key>a</key>" + std::string(64, '<'));
    for (const char* bad : {"Elsewhere/Plain.vext", "Elsewhere/NoExtension.vext", "Elsewhere/WrongSuffix.bundle",
                            "Elsewhere/Missing.vext", "Elsewhere/Hostile.vext"}) {
        MaybeError error = registry->registerPlugIn(files_.path(bad));
        ASSERT_TRUE(error) << bad;
        EXPECT_EQ(error->domain, kApplicationRegistryErrorDomain) << bad;
        EXPECT_EQ(error->code, kRegistryErrorNotAPlugIn) << bad;
    }
    MaybeError unknown = registry->unregisterPlugIn(loose);
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->domain, kApplicationRegistryErrorDomain);
    EXPECT_EQ(unknown->code, kRegistryErrorNotRegistered);
    EXPECT_TRUE(registry->allPlugIns().empty());

    ASSERT_FALSE(registry->registerPlugIn("file://" + loose));
    auto record = registry->plugInAtPath(loose);
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->registeredByPath);
    EXPECT_FALSE(record->containingApplication);
    // Registering again refreshes without a new installation.
    ASSERT_FALSE(registry->registerPlugIn(loose));
    EXPECT_EQ(registry->plugInAtPath(loose)->uuid, record->uuid);
    registry->waitForAnnouncements();
    EXPECT_EQ(pathsOf(observer->installed), (std::vector<std::string>{loose}));

    // A bundle registered inside an application belongs to it at once.
    const std::string inApp = writePlugIn("Applications/A.app/PlugIns/Late.vext", "com.late", "1", "p");
    ASSERT_FALSE(registry->registerPlugIn(inApp));
    ASSERT_TRUE(registry->plugInAtPath(inApp)->containingApplication);
    EXPECT_EQ(registry->plugInAtPath(inApp)->containingApplication->bundlePath, files_.path("Applications/A.app"));
    ASSERT_FALSE(registry->unregisterPlugIn(inApp));
    fs::remove_all(inApp);

    // The registration outlives the process, with its UUID.
    registry.reset();
    registry = open();
    ASSERT_TRUE(registry);
    ASSERT_TRUE(registry->plugInAtPath(loose));
    EXPECT_EQ(registry->plugInAtPath(loose)->uuid, record->uuid);
    observer->clear();
    registry->addObserver(observer);

    // Re-registering after an upgrade in place is a new installation.
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "2", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    EXPECT_NE(registry->plugInAtPath(loose)->uuid, record->uuid);
    ASSERT_FALSE(registry->unregisterPlugIn(loose + "/"));
    EXPECT_FALSE(registry->plugInAtPath(loose));
    registry->waitForAnnouncements();
    ASSERT_EQ(observer->uninstalled.size(), 2u);
    EXPECT_EQ(observer->uninstalled[0]->uuid, record->uuid);

    // A registered bundle that vanishes is uninstalled by the next scan;
    // unregistering works for a path whose bundle is already gone.
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    fs::remove_all(loose);
    registry->rescan();
    EXPECT_TRUE(registry->allPlugIns().empty());
    writePlugIn("Elsewhere/Loose.vext", "com.loose", "1", "p");
    ASSERT_FALSE(registry->registerPlugIn(loose));
    fs::remove_all(loose);
    EXPECT_FALSE(registry->unregisterPlugIn(loose));
    registry.reset();
    registry = open();
    ASSERT_TRUE(registry);
    EXPECT_TRUE(registry->allPlugIns().empty());
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
    using Paths = std::vector<std::string>;
    const Paths all{edit, other, share1, share2};
    const std::pair<Value, Paths> cases[] = {
        {Value(), all},
        {Value::emptyDictionary(), all},
        {Value("com.share"), {"<none>"}},
        {Value{{"KoExtensionPointIdentifier", Value("com.share")}}, {share1, share2}},
        {Value{{"KoExtensionPointIdentifier", Value("=com.edit")}}, {edit}},
        {Value{{"KoExtensionPointIdentifier", Value(Array{Value("com.share"), Value("com.edit"), Value("com.share")})}},
         {edit, share1, share2}},
        {Value{{"KoExtensionPointIdentifier", Value("com.none")}}, {}},
        {Value{{"KoExtensionPointIdentifier", Value("com.share")}, {"KoExtensionIdentifier", Value("com.s2")}}, {share2}},
        // Patterns the registry does not evaluate itself narrow nothing.
        {Value{{"KoExtensionPointIdentifier", Value("<>com.share")}}, all},
        {Value{{"KoExtensionPointIdentifier", Value(true)}, {"SomeAttribute", Value("x")}}, all},
    };
    for (const auto& [q, expected] : cases)
        EXPECT_EQ(query(q), expected) << q.description();

    // The filter sees only the candidates of the extension point, and decides.
    std::vector<std::string> seen;
    auto kept = query(Value{{"KoExtensionPointIdentifier", Value("com.share")}}, [&](const RegistryPlugInRecord& r) {
        seen.push_back(r.plugInIdentifier);
        return r.plugInIdentifier == "com.s1";
    });
    EXPECT_EQ(kept, (Paths{share1}));
    EXPECT_EQ(seen, (std::vector<std::string>{"com.s1", "com.s2"}));

    // The index follows changes.
    ASSERT_FALSE(registry->unregisterPlugIn(share1));
    EXPECT_EQ(query(Value{{"KoExtensionPointIdentifier", Value("com.share")}}), (Paths{share2}));
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

    // A bundle is followed even when its Info.vlist lands after the rescan
    // its directory caused.
    files_.makeDirectory("Applications/A.app/PlugIns/New.vext");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::string inApp = writePlugIn("Applications/A.app/PlugIns/New.vext", "com.new", "1", "p");
    ASSERT_TRUE(observer->waitForInstalls(1));
    ASSERT_TRUE(registry->plugInAtPath(inApp));
    EXPECT_EQ(registry->plugInAtPath(inApp)->containingApplication->bundlePath, files_.path("Applications/A.app"));

    // So is an application, down to its plug-ins.
    files_.makeDirectory("Applications/B.app");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    writeBundle("Applications/B.app", Value{{"KbBundleIdentifier", Value("com.b.app")}});
    ASSERT_TRUE(eventually([&] { return registry->applicationAtPath(files_.path("Applications/B.app")) != nullptr; }));
    const std::string inB = writePlugIn("Applications/B.app/PlugIns/Late.vext", "com.late", "1", "p");
    ASSERT_TRUE(observer->waitForInstalls(2));
    EXPECT_TRUE(registry->plugInAtPath(inB));
}

// The daemon's database empties its cache and drops the registry's on its
// own queue, and its uninstall callback waits for that queue: a purge queued
// while the watcher's rescan announces an uninstall must still go through.
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
    eventually([&] { return observer->uninstalledCount() > 0; });
    registry->waitForAnnouncements();
    ASSERT_EQ(pathsOf(observer->uninstalled), (std::vector<std::string>{plugIn}));
    EXPECT_TRUE(purgedInTime);
    EXPECT_EQ(registry->allPlugIns().size(), 1u);
    databaseQueue->sync([] {});
}

// A daemon with a stored registry answers from the store at once and leaves
// reading the bundles to the watcher, which announces what changed while it
// was down; an empty store is scanned before create() returns.
TEST_F(LinuxApplicationRegistryTest, FirstScanCanBeLeftToTheWatcher)
{
    using Scan = LinuxApplicationRegistry::InitialScan;
    const std::string kept = writePlugIn("System/Library/PlugIns/K.vext", "com.k", "1", "p");
    const std::string gone = writePlugIn("System/Library/PlugIns/G.vext", "com.g", "1", "p");
    {
        auto first = LinuxApplicationRegistry::create(config_, bundles_, codeSigning_, sdks_, Scan::WhenWatching);
        ASSERT_TRUE(first.ok());
        EXPECT_EQ((*first)->allPlugIns().size(), 2u);
    }

    fs::remove_all(gone);
    const std::string added = writePlugIn("System/Library/PlugIns/N.vext", "com.n", "1", "p");
    auto reopened = LinuxApplicationRegistry::create(config_, bundles_, codeSigning_, sdks_, Scan::WhenWatching);
    ASSERT_TRUE(reopened.ok());
    auto registry = *reopened;
    EXPECT_TRUE(registry->plugInAtPath(gone));
    EXPECT_FALSE(registry->plugInAtPath(added));

    auto observer = std::make_shared<RecordingObserver>();
    registry->addObserver(observer);
    ASSERT_FALSE(registry->startWatching(std::chrono::hours(1)));
    ASSERT_TRUE(observer->waitForInstalls(1));
    registry->waitForAnnouncements();
    EXPECT_EQ(pathsOf(observer->installed), (std::vector<std::string>{added}));
    EXPECT_EQ(pathsOf(observer->uninstalled), (std::vector<std::string>{gone}));
    EXPECT_TRUE(registry->plugInAtPath(kept));
    EXPECT_FALSE(registry->plugInAtPath(gone));
}

} // namespace
} // namespace tv::platform
