#include "tvd/TvdPlugIn.h"

#include "Tarvik/TvFileReadGrant.h"
#include "platform/security/LinuxSandboxService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/TestDaemon.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace tv {
namespace {

using test::LogCapture;
using test::makePlugInRecord;

class TvdPlugInTest : public ::testing::Test {
protected:
    void SetUp() override { TvdPlugIn::setSystemVolumeRoot("/System"); }
    void TearDown() override { TvdPlugIn::setSystemVolumeRoot("/System"); }
};

TEST_F(TvdPlugInTest, ConstructionTakesTheRegistryFacts)
{
    auto r = makePlugInRecord();
    r->onSystemVolume = true;
    auto p = TvdPlugIn::initWithRSData(r);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->originalIdentifier(), "com.example.p.orig");
    EXPECT_EQ(p->lastModified(), 1'700'000'000);
    EXPECT_TRUE(p->onSystemVolume());
    EXPECT_EQ(p->containingPath(), "/apps/A.app");
    EXPECT_EQ(p->sdkSpec(), Value("com.example.point"));
    EXPECT_EQ(p->version(), Value("3"));
    EXPECT_EQ(p->localizedContainingName(), "App A");
}

TEST_F(TvdPlugInTest, ConstructionRefusals)
{
    LogCapture log;
    auto noUrl = makePlugInRecord();
    noUrl->bundleUrl = Value();
    EXPECT_FALSE(TvdPlugIn::initWithRSData(noUrl));
    EXPECT_EQ(log.countContaining("ignoring"), 0u);

    auto noAttributes = makePlugInRecord();
    noAttributes->plugInDictionary = Value{{"KoExtensionPointIdentifier", Value("x")}};
    EXPECT_FALSE(TvdPlugIn::initWithRSData(noAttributes));
    EXPECT_EQ(log.countContaining("ignoring mis-configured plug-in at /apps/A.app/PlugIns/P.vext: missing"), 1u);
}

// The daemon's two rules, in their order, against the configured root.
TEST_F(TvdPlugInTest, DaemonConsistencyRules)
{
    struct Case {
        const char* root;
        const char* path;
        bool contained;
        bool container;
        bool data;
        const char* error; // null: admitted
    };
    const Case cases[] = {
        {"/System", "/System/Library/PlugIns/x.vext", false, true, false, nullptr},
        {"/System", "/Systemwide/x.vext", false, true, false, "plug-ins outside containing apps must be in /System"},
        {"/System", "/var/x.vext", false, true, false, "plug-ins outside containing apps must be in /System"},
        {"/System", "/var/x.vext", true, true, false, nullptr},
        {"/tmp/t/System/", "/tmp/t/System/Library/PlugIns/x.vext", false, true, false, nullptr},
        {"/tmp/t/System", "/System/Library/PlugIns/x.vext", false, true, false,
         "plug-ins outside containing apps must be in /System"},
        {"/System", "/var/x.vext", false, false, false, "this plug-in has no sandbox data container"},
        {"/System", "/System/x.vext", false, false, true, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.root) + " " + c.path);
        TvdPlugIn::setSystemVolumeRoot(c.root);
        auto r = makePlugInRecord(c.path);
        if (!c.contained)
            r->containingApplication = nullptr;
        if (!c.container)
            r->dataContainerPath.clear();
        if (c.data)
            r->plugInDictionary = r->plugInDictionary.with("KoExtensionProtocol", Value("#Data"));
        LogCapture log;
        auto p = TvdPlugIn::initWithRSData(r);
        if (!c.error) {
            EXPECT_TRUE(p);
        } else {
            EXPECT_FALSE(p);
            EXPECT_EQ(log.countContaining(c.error), 1u);
        }
    }
}

TEST_F(TvdPlugInTest, HubProtocolVersion)
{
    struct Case {
        Value declared;
        bool tarvikKey;
        std::uint64_t expected;
    };
    const Case cases[] = {
        {Value(std::uint64_t{0}), false, 0}, {Value(std::uint64_t{7}), true, 7}, {Value(std::int64_t{3}), false, 3},
        {Value(), true, 1},                  {Value(), false, 2},                {Value("5"), false, 2},
    };
    for (const auto& c : cases) {
        auto r = makePlugInRecord();
        if (!c.declared.isNull())
            r->plugInDictionary = r->plugInDictionary.with("HubProtocolVersion", c.declared);
        if (c.tarvikKey)
            r->infoDictionary = r->infoDictionary.with("Tarvik", Value(Dictionary{}));
        auto p = TvdPlugIn::initWithRSData(r);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->hubProtocolVersion(), c.expected) << c.declared.description();
    }
}

TEST_F(TvdPlugInTest, EntitlementsAndAnnotationKey)
{
    struct Case {
        Value replace;
        bool granted;
        const char* key;
    };
    const Case cases[] = {
        {Value("com.example.other"), true, "com.example.other"},
        {Value(""), true, ""},
        {Value(true), true, "com.example.p"},
        {Value(false), false, "com.example.p"},
        {Value(std::int64_t{0}), false, "com.example.p"},
        {Value(0.0), false, "com.example.p"},
        {Value(std::uint64_t{2}), true, "com.example.p"},
        {Value(), false, "com.example.p"},
    };
    for (const auto& c : cases) {
        auto r = makePlugInRecord();
        r->entitlements = r->entitlements.with(kReplacePlugInEntitlement, c.replace);
        auto p = TvdPlugIn::initWithRSData(r);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->hasEntitlement(kReplacePlugInEntitlement), c.granted) << c.replace.description();
        EXPECT_EQ(p->annotationKey(), c.key) << c.replace.description();
    }
}

TEST_F(TvdPlugInTest, LookupsAskTheRegistryRecordEveryTime)
{
    auto r = makePlugInRecord();
    auto p = TvdPlugIn::initWithRSData(r);
    ASSERT_TRUE(p);
    // The registry record is immutable to everyone else; here it stands in
    // for a registry whose answers change.
    r->plugInDictionary = r->plugInDictionary.with("Dedicated", Value(true));
    r->infoDictionary = r->infoDictionary.with("Extra", Value("x"));
    EXPECT_TRUE(p->isDedicated());
    EXPECT_EQ(p->infoKey("Extra"), Value("x"));
    EXPECT_EQ(p->bundleInfoDictionary()["Extra"], Value("x"));

    // Names: an absent answer is asked again, a present one is kept.
    r->localizedName.reset();
    EXPECT_FALSE(p->localizedName());
    r->localizedName = "Shown";
    EXPECT_EQ(p->localizedName(), "Shown");
    r->localizedName = "Changed";
    EXPECT_EQ(p->localizedName(), "Shown");
    p->setLocalizedName("Set");
    EXPECT_EQ(p->localizedName(), "Set");
}

TEST_F(TvdPlugInTest, PrunedInfoDictionaryDropsBuildToolKeys)
{
    Value d{{"DTSDKName", Value("x")}, {"DT", Value(1)}, {"dTx", Value(2)}, {"KbBundleName", Value("n")}};
    Value pruned = TvdPlugIn::prunedInfoDictionaryFor(d);
    EXPECT_EQ(pruned, (Value{{"dTx", Value(2)}, {"KbBundleName", Value("n")}}));
}

class TvdPlugInGrantsTest : public TvdPlugInTest {
protected:
    void SetUp() override
    {
        TvdPlugInTest::SetUp();
        bundle_ = dir_.file("Q.app/PlugIns/P.vext");
        std::filesystem::create_directories(bundle_ + "/res");
        std::ofstream(bundle_ + "/res/a.txt") << "a";
        sandbox_ = std::make_shared<platform::LinuxSandboxService>(dir_.file("run"));
        std::filesystem::create_directories(dir_.file("run"));
        previous_ = platform::setSandboxService(sandbox_);
    }
    void TearDown() override
    {
        platform::setSandboxService(previous_);
        TvdPlugInTest::TearDown();
    }
    std::shared_ptr<TvdPlugIn> plugIn(const std::string& suffix, Value shared)
    {
        auto r = makePlugInRecord(bundle_ + suffix);
        if (!shared.isNull())
            r->plugInDictionary = r->plugInDictionary.with("Shared", shared);
        return TvdPlugIn::initWithRSData(r);
    }
    // Whether the token is one the sandbox service accepts.
    bool grants(const Value& token) const
    {
        return token.asString() && static_cast<bool>(sandbox_->consumeExtension(*token.asString()));
    }

    test::TempDir dir_;
    std::string bundle_;
    std::shared_ptr<platform::LinuxSandboxService> sandbox_;
    std::shared_ptr<platform::SandboxService> previous_;
};

TEST_F(TvdPlugInGrantsTest, IssueResourceExtensions)
{
    auto p = plugIn("", Value());
    ASSERT_TRUE(p);
    LogCapture log;
    Value one = p->issueResourceExtensions(Value("."));
    ASSERT_EQ(one.count(), 1u);
    EXPECT_TRUE(grants(one["."]));

    Value mixed = p->issueResourceExtensions(Value(Array{Value(std::int64_t{4}), Value("res/a.txt"), Value("gone")}));
    EXPECT_EQ(mixed.count(), 1u);
    EXPECT_TRUE(grants(mixed["res/a.txt"]));
    EXPECT_EQ(log.countContaining("failed to make extension for " + bundle_ + "/gone in plug-in at " + bundle_ +
                                  ": No such file or directory"),
              1u);
    EXPECT_EQ(p->issueResourceExtensions(Value(std::int64_t{1})), Value(Dictionary{}));
}

TEST_F(TvdPlugInGrantsTest, AugmentForm)
{
    Value shared(Array{Value("res/a.txt"), Value("gone")});
    // An app extension shares its bundle, whatever "Shared" says.
    auto appExtension = plugIn("", shared);
    ASSERT_TRUE(appExtension);
    Value form{{"uuid", Value("u")}};
    appExtension->augmentForm(form);
    ASSERT_EQ(form["extensions"].count(), 1u);
    EXPECT_TRUE(grants(form["extensions"]["."]));
    EXPECT_EQ(form["uuid"], Value("u"));

    // A plug-in that is not an app extension shares its list; no list, no key.
    std::filesystem::create_directories(bundle_ + ".plugin");
    for (const Value& list : {Value("gone"), Value()}) {
        SCOPED_TRACE(list.description());
        auto r = makePlugInRecord(bundle_ + ".plugin");
        r->plugInDictionary = r->plugInDictionary.with("KoExtensionProtocol", Value("P"));
        if (!list.isNull())
            r->plugInDictionary = r->plugInDictionary.with("Shared", list);
        auto other = TvdPlugIn::initWithRSData(r);
        ASSERT_TRUE(other);
        Value otherForm(Dictionary{});
        other->augmentForm(otherForm);
        // Set even when empty.
        EXPECT_EQ(otherForm["extensions"], list.isNull() ? Value() : Value(Dictionary{}));
    }
}

} // namespace
} // namespace tv
