// TvdPlugIn: the registry facts a record takes, its consistency rules,
// grants, busy check, host rights, privacy services and sandbox profile.
#include "tvd/TvdPlugIn.h"

#include "Tarvik/TvBundle.h"
#include "platform/privacy/LinuxPrivacyConsentService.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/processstate/ProcessStateService.h"
#include "platform/security/LinuxSandboxService.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdVynClient.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

namespace tv {
namespace {

using test::LogCapture;
using test::makePlugInRecord;

class TvdPlugInTest : public ::testing::Test {
protected:
    void SetUp() override { TvdPlugIn::setSystemVolumeRoot("/System"); }
    void TearDown() override { TvdPlugIn::setSystemVolumeRoot("/System"); }
};

TEST_F(TvdPlugInTest, ConstructionTakesTheRegistryFactsAndLookupsAskTheRecordEveryTime)
{
    auto r = makePlugInRecord();
    r->onSystemVolume = true;
    auto p = TvdPlugIn::initWithRSData(r);
    ASSERT_TRUE(p);
    EXPECT_EQ(std::tuple(p->originalIdentifier(), p->lastModified(), p->onSystemVolume(), p->containingPath()),
              std::tuple("com.example.p.orig", 1'700'000'000, true, "/apps/A.app"));
    EXPECT_EQ(std::tuple(p->sdkSpec(), p->version()), std::tuple(Value("com.example.point"), Value("3")));
    EXPECT_EQ(p->localizedContainingName(), "App A");

    // The registry record stands in for a registry whose answers change.
    r->plugInDictionary = r->plugInDictionary.with("Dedicated", Value(true));
    r->infoDictionary = r->infoDictionary.with("Extra", Value("x")).with("DTSDKName", Value("x"));
    EXPECT_EQ(p->pluginKey("Dedicated"), Value(true));
    EXPECT_FALSE(p->isDedicated()); // read once, when the record was built
    EXPECT_EQ(p->infoKey("Extra"), Value("x"));
    // Names: an absent answer is asked again, a present one is kept.
    r->localizedName.reset();
    EXPECT_FALSE(p->localizedName());
    r->localizedName = "Shown";
    EXPECT_EQ(p->localizedName(), "Shown");
    r->localizedName = "Changed";
    EXPECT_EQ(p->localizedName(), "Shown");
    // Build tool keys are pruned.
    Value d{{"DTSDKName", Value("x")}, {"DT", Value(1)}, {"dTx", Value(2)}, {"KbBundleName", Value("n")}};
    EXPECT_EQ(TvdPlugIn::prunedInfoDictionaryFor(d), (Value{{"dTx", Value(2)}, {"KbBundleName", Value("n")}}));
}

// The daemon's two rules, in their order, against the configured root; and
// the refusals of every record.
TEST_F(TvdPlugInTest, ConsistencyRulesAndRefusals)
{
    const std::string outside = "plug-ins outside containing apps must be in /System";
    const std::string noContainer = "this plug-in has no sandbox data container";
    // Root, path, contained, has a container, data plug-in; logged refusal ("" admitted).
    const std::tuple<const char*, const char*, bool, bool, bool, std::string> cases[] = {
        {"/System", "/System/Library/PlugIns/x.vext", false, true, false, ""},
        {"/System", "/Systemwide/x.vext", false, true, false, outside},
        {"/System", "/var/x.vext", true, true, false, ""},
        {"/tmp/t/System/", "/tmp/t/System/Library/PlugIns/x.vext", false, true, false, ""},
        {"/tmp/t/System", "/System/Library/PlugIns/x.vext", false, true, false, outside},
        {"/System", "/var/x.vext", false, false, false, noContainer},
        {"/System", "/System/x.vext", false, false, true, ""},
    };
    for (const auto& [root, path, contained, container, data, error] : cases) {
        SCOPED_TRACE(std::string(root) + " " + path);
        TvdPlugIn::setSystemVolumeRoot(root);
        auto r = makePlugInRecord(path);
        if (!contained)
            r->containingApplication = nullptr;
        if (!container)
            r->dataContainerPath.clear();
        if (data)
            r->plugInDictionary = r->plugInDictionary.with("KoExtensionProtocol", Value("#Data"));
        LogCapture log;
        EXPECT_EQ(TvdPlugIn::initWithRSData(r) != nullptr, error.empty());
        EXPECT_EQ(log.lines().size(), error.empty() ? 0u : 1u);
        EXPECT_EQ(log.countContaining(error), log.lines().size());
    }
    TvdPlugIn::setSystemVolumeRoot("/System");
    LogCapture log;
    auto noUrl = makePlugInRecord();
    noUrl->bundleUrl = Value();
    EXPECT_FALSE(TvdPlugIn::initWithRSData(noUrl)); // silently
    auto noAttributes = makePlugInRecord();
    noAttributes->plugInDictionary = Value{{"KoExtensionPointIdentifier", Value("x")}};
    EXPECT_FALSE(TvdPlugIn::initWithRSData(noAttributes));
    EXPECT_EQ(log.countContaining("ignoring mis-configured plug-in at /apps/A.app/PlugIns/P.vext: missing"), 1u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(TvdPlugInTest, HubProtocolVersionEntitlementsAndAnnotationKey)
{
    // Declared version, Tarvik key present, expected.
    const std::tuple<Value, bool, std::uint64_t> versions[] = {
        {Value(std::uint64_t{0}), false, 0}, {Value(std::uint64_t{7}), true, 7}, {Value(std::int64_t{3}), false, 3},
        {Value(), true, 1}, {Value(), false, 2}, {Value("5"), false, 2},
    };
    for (const auto& [declared, tarvikKey, expected] : versions) {
        auto r = makePlugInRecord();
        if (!declared.isNull())
            r->plugInDictionary = r->plugInDictionary.with("HubProtocolVersion", declared);
        if (tarvikKey)
            r->infoDictionary = r->infoDictionary.with("Tarvik", Value(Dictionary{}));
        EXPECT_EQ(TvdPlugIn::initWithRSData(r)->hubProtocolVersion(), expected) << declared.description();
    }
    // The replace-plugin entitlement's value, granted, annotation key.
    const std::tuple<Value, bool, const char*> replacements[] = {
        {Value("com.example.other"), true, "com.example.other"}, {Value(""), true, ""},
        {Value(true), true, "com.example.p"}, {Value(false), false, "com.example.p"},
        {Value(std::int64_t{0}), false, "com.example.p"}, {Value(0.0), false, "com.example.p"},
        {Value(std::uint64_t{2}), true, "com.example.p"}, {Value(), false, "com.example.p"},
    };
    for (const auto& [replace, granted, key] : replacements) {
        auto r = makePlugInRecord();
        r->entitlements = r->entitlements.with(kReplacePlugInEntitlement, replace);
        auto p = TvdPlugIn::initWithRSData(r);
        EXPECT_EQ(p->hasEntitlement(kReplacePlugInEntitlement), granted) << replace.description();
        EXPECT_EQ(p->annotationKey(), key) << replace.description();
    }
}

class TvdPlugInGrantsTest : public TvdPlugInTest {
protected:
    void SetUp() override
    {
        TvdPlugInTest::SetUp();
        std::filesystem::create_directories(bundle_ + "/res");
        std::filesystem::create_directories(dir_.file("run"));
        std::ofstream(bundle_ + "/res/a.txt") << "a";
        previous_ = platform::setSandboxService(sandbox_);
    }
    void TearDown() override { platform::setSandboxService(previous_); }
    // A plug-in at `path` whose "Shared" list is `shared`; not an app extension with a protocol.
    std::shared_ptr<TvdPlugIn> plugIn(const std::string& path, Value shared, const char* protocol = nullptr)
    {
        auto r = makePlugInRecord(path);
        if (!shared.isNull())
            r->plugInDictionary = r->plugInDictionary.with("Shared", shared);
        if (protocol)
            r->plugInDictionary = r->plugInDictionary.with("KoExtensionProtocol", Value(protocol));
        return TvdPlugIn::initWithRSData(r);
    }
    // Whether the token is one the sandbox service accepts.
    bool grants(const Value& token) const { return token.asString() && sandbox_->consumeExtension(*token.asString()); }

    test::TempDir dir_;
    std::string bundle_ = dir_.file("Q.app/PlugIns/P.vext");
    std::shared_ptr<platform::LinuxSandboxService> sandbox_ = std::make_shared<platform::LinuxSandboxService>(dir_.file("run"));
    std::shared_ptr<platform::SandboxService> previous_;
};

TEST_F(TvdPlugInGrantsTest, IssueResourceExtensionsAndAugmentForm)
{
    auto p = plugIn(bundle_, Value(Array{Value("res/a.txt"), Value("gone")}));
    ASSERT_TRUE(p);
    LogCapture log;
    Value mixed = p->issueResourceExtensions(Value(Array{Value(std::int64_t{4}), Value("res/a.txt"), Value("gone")}));
    EXPECT_EQ(mixed.count(), 1u);
    EXPECT_TRUE(grants(mixed["res/a.txt"]));
    EXPECT_EQ(log.countContaining("failed to make extension for " + bundle_ + "/gone in plug-in at " + bundle_ +
                                  ": No such file or directory"), 1u);
    EXPECT_EQ(p->issueResourceExtensions(Value(std::int64_t{1})), Value(Dictionary{}));

    // An app extension shares its bundle, whatever "Shared" says.
    Value form{{"uuid", Value("u")}};
    p->augmentForm(form);
    ASSERT_EQ(form["extensions"].count(), 1u);
    EXPECT_TRUE(grants(form["extensions"]["."]));
    // Other plug-ins share their list, even when nothing of it is granted; no list, no key.
    std::filesystem::create_directories(bundle_ + ".plugin");
    for (const Value& list : {Value("gone"), Value()}) {
        Value otherForm(Dictionary{});
        plugIn(bundle_ + ".plugin", list, "P")->augmentForm(otherForm);
        EXPECT_EQ(otherForm["extensions"], list.isNull() ? Value() : Value(Dictionary{})) << list.description();
    }
}

struct ScriptedProcessState final : platform::ProcessStateService {
    Result<std::vector<Value>> answer = std::vector<Value>{};
    std::vector<std::set<std::string>> asked;
    Result<std::vector<Value>> busyExtensionInstances(const std::set<std::string>& ids) override
    {
        asked.push_back(ids);
        return answer;
    }
};

TEST_F(TvdPlugInTest, TheFirstInstanceWithABundleIdentifierIsTheBusyDescription)
{
    auto keepd = std::make_shared<ScriptedProcessState>();
    TvdPlugIn::setProcessStateService(keepd);
    auto record = makePlugInRecord();
    auto plugIn = TvdPlugIn::initWithRSData(record);
    ASSERT_TRUE(plugIn);
    const Value busy{{"ExtensionBundleIdentifier", "com.example.p"}};
    const Value incomplete{{"ProcessIdentifier", 7}};
    // What the process state service answers, the busy description, "incomplete" lines logged.
    const std::tuple<Result<std::vector<Value>>, Value, std::size_t> cases[] = {
        {std::vector<Value>{}, Value(), 0},
        {std::vector<Value>{incomplete, Value{{"BundleIdentifier", "com.example.p"}}, Value{{"BundleIdentifier", "x"}}},
         busy, 1},
        {std::vector<Value>{incomplete}, Value(), 1},
        {makeError(4, "no process table"), busy, 0}, // cannot tell: busy
    };
    for (const auto& [answer, description, incompleteLines] : cases) {
        LogCapture log;
        keepd->answer = answer;
        EXPECT_EQ(plugIn->checkBusy(), description);
        EXPECT_EQ(log.count("keepd reported incomplete bundle for plug-in com.example.p/" + record->uuid.string()),
                  incompleteLines);
        EXPECT_EQ(keepd->asked.back(), std::set<std::string>{"com.example.p"});
    }

    // Without a bundle identifier there is nothing to ask about.
    record->infoDictionary = record->infoDictionary.with("KbBundleIdentifier", Value());
    keepd->asked.clear();
    auto anonymous = TvdPlugIn::initWithRSData(record);
    ASSERT_TRUE(anonymous);
    EXPECT_TRUE(anonymous->checkBusy().isNull());
    EXPECT_TRUE(keepd->asked.empty());
    TvdPlugIn::setProcessStateService(nullptr);
}

TEST_F(TvdPlugInTest, HostRestrictionFirstThenThePlugInsDemand)
{
    TvdMatchRules::setShared(nullptr);
    const char* restrict = "com.veltra.developer.tarvik.allowedplugins";
    const Value onlyAB{{"KoExtensionIdentifier", Value(Array{Value("a"), Value("b")})}};
    const std::string refused = "the host's plug-in entitlement does not allow this plug-in";
    const std::string lacks = "the host does not have the \"com.example.host\" entitlement";
    // The host's entitlements, the plug-in, the entitlement it demands, the refusal.
    const std::tuple<Value, std::string, Value, std::optional<std::string>> cases[] = {
        {Value::emptyDictionary(), "a", Value(), std::nullopt},
        {Value{{restrict, Value(true)}}, "a", Value(), "invalid host restriction entitlement"},
        {Value{{restrict, Value(0)}}, "c", Value(), std::nullopt}, // false: not held, so no restriction
        {Value{{restrict, Value::emptyDictionary()}}, "c", Value(), std::nullopt},
        {Value{{restrict, onlyAB}}, "b", Value(), std::nullopt},
        {Value{{restrict, onlyAB}}, "c", Value("com.example.host"), refused}, // restriction first
        {Value{{restrict, onlyAB}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(false)}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(true)}}, "a", Value("com.example.host"), std::nullopt},
    };
    test::ServerHarness h;
    pid_t pid = 100;
    for (const auto& [host, plugIn, demanded, reason] : cases) {
        h.codeSigning->entitlements[pid] = host;
        auto client = std::static_pointer_cast<TvdVynClient>(h.connect(pid++)->context());
        auto r = makePlugInRecord("/apps/A.app/PlugIns/" + plugIn + ".vext", plugIn);
        r->plugInDictionary = r->plugInDictionary.with("KoExtensionHostEntitlement", demanded);
        EXPECT_EQ(TvdPlugIn::initWithRSData(r)->allowForClient(*client), reason) << host.description();
    }
}

// Plug-ins of applications on disk, whose privacy grants are in a file.
class TvdPlugInAppTest : public TvdPlugInTest {
protected:
    void SetUp() override
    {
        TvdPlugInTest::SetUp();
        bundles_ = TvBundle::setBundleService(std::make_shared<platform::LinuxBundleService>(test::FakeVlistFiles::reader()));
        TvdPlugIn::setPrivacyConsentService(std::make_shared<platform::LinuxPrivacyConsentService>(
            files_.path("grants.vlist"), test::FakeVlistFiles::reader()));
    }
    void TearDown() override
    {
        TvdPlugIn::setPrivacyConsentService(nullptr);
        TvBundle::setBundleService(bundles_);
    }
    // A plug-in in the application at `app`, with `plugInDictionary` when set.
    std::shared_ptr<TvdPlugIn> inApp(const std::string& app, const Value& plugInDictionary = Value())
    {
        auto r = makePlugInRecord(app + "/PlugIns/K.vext");
        auto record = std::make_shared<platform::RegistryApplicationRecord>();
        record->bundlePath = app;
        r->containingApplication = record;
        if (!plugInDictionary.isNull())
            r->plugInDictionary = plugInDictionary;
        return TvdPlugIn::initWithRSData(r);
    }

    test::FakeVlistFiles files_;
    std::shared_ptr<platform::BundleService> bundles_;
};

TEST_F(TvdPlugInAppTest, PrivacyServicesAreThoseGrantedToTheContainingApplication)
{
    LogCapture log;
    auto entry = [](const char* service, Value granted) { return Value{{"service", service}, {"granted", granted}}; };
    files_.writeValue("grants.vlist",
                      Value{{"com.example.app", Value(Array{entry("network", Value(true)), entry("contacts", Value(false)),
                                                            Value{{"service", "camera"}}})},
                            {"com.example.other", Value(Array{entry("location", Value(true))})}});
    auto plugIn = inApp(files_.makeExampleApplication());
    EXPECT_EQ(plugIn->allowedPCSServices(), std::set<std::string>{"network"});
    files_.writeText("grants.vlist", "not a vlist");
    EXPECT_TRUE(plugIn->allowedPCSServices().empty());
    EXPECT_EQ(log.countContaining("PCSAccessCopyInformationForBundle failed for "), 1u);
    EXPECT_TRUE(inApp(files_.path("Gone.app"))->allowedPCSServices().empty()); // no bundle there
    EXPECT_TRUE(log.contains("failed to create bundle for " + files_.path("Gone.app/PlugIns/K.vext")));
}

// The job manager's sandbox profile follows the extension point; a keyboard
// leaves the keyboard sandbox only when it asks for open access and its
// application was granted network access for keyboards.
TEST_F(TvdPlugInAppTest, SandboxProfileFollowsTheExtensionPoint)
{
    files_.writeValue("grants.vlist", Value{{"com.example.app", Value(Array{Value{
                                                                   {"service", platform::kPrivacyServiceKeyboardNetwork},
                                                                   {"granted", true}}})}});
    const std::string granted = files_.makeExampleApplication(), other = files_.path("Other.app");
    // Extension point, "RequestsOpenAccess", the application, the profile.
    const std::tuple<const char*, Value, std::string, const char*> cases[] = {
        {"com.veltra.keyboard-service", Value(), granted, "keyboard"},
        {"com.veltra.keyboard-service", Value(true), granted, "plugin"},
        {"com.veltra.keyboard-service", Value(1), granted, "plugin"},
        {"com.veltra.keyboard-service", Value(true), other, "keyboard"},
        {"com.veltra.flowguard.filter-data", Value(), granted, "network-filter"},
        {"com.veltra.peek.extension.preview", Value(), granted, "peekd"},
        {"com.veltra.app.non-ui-extension", Value(), granted, "playground-devtools"},
        {"com.veltra.app.non-ui-extension.multiple-instances", Value(), granted, "playground-devtools"},
        {"com.example.point", Value(true), granted, "plugin"},
    };
    for (const auto& [point, openAccess, app, profile] : cases) {
        Value dictionary{{"KoExtensionPointIdentifier", point}, {"KoExtensionAttributes", Value{{"RequestsOpenAccess", openAccess}}}};
        EXPECT_EQ(inApp(app, dictionary)->sandboxProfile(), profile) << point << " " << app;
    }
}

} // namespace
} // namespace tv
