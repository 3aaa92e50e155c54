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
    EXPECT_EQ(std::tuple(p->originalIdentifier(), p->lastModified(), p->onSystemVolume(), p->containingPath()),
              std::tuple("com.example.p.orig", 1'700'000'000, true, "/apps/A.app"));
    EXPECT_EQ(std::tuple(p->sdkSpec(), p->version()), std::tuple(Value("com.example.point"), Value("3")));
    EXPECT_EQ(p->localizedContainingName(), "App A");
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

TEST_F(TvdPlugInTest, LookupsAskTheRegistryRecordEveryTime)
{
    auto r = makePlugInRecord();
    auto p = TvdPlugIn::initWithRSData(r);
    ASSERT_TRUE(p);
    // The registry record stands in for a registry whose answers change.
    r->plugInDictionary = r->plugInDictionary.with("Dedicated", Value(true));
    r->infoDictionary = r->infoDictionary.with("Extra", Value("x")).with("DTSDKName", Value("x"));
    EXPECT_TRUE(p->isDedicated());
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

} // namespace
} // namespace tv
