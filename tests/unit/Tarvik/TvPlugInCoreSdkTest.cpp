#include "Tarvik/TvPlugInCore.h"
#include "base/InternalInconsistency.h"
#include "tests/support/FakeExtensionSdkRegistry.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

using test::FakeExtensionSdkRegistry;
using test::LogCapture;

const Uuid kUuid = *Uuid::parse("5D6E7F80-1111-4222-8333-444455556666");

std::shared_ptr<TvPlugInCore> recordWithInfo(Value info)
{
    return TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL("/x/Share.vext"),
                                                          std::move(info), Value(), kUuid);
}

class TvPlugInCoreSdkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        registry_ = std::make_shared<FakeExtensionSdkRegistry>();
        previous_ = TvPlugInCore::sdkRegistry();
        TvPlugInCore::setSdkRegistry(registry_);
    }
    void TearDown() override { TvPlugInCore::setSdkRegistry(previous_); }

    std::shared_ptr<FakeExtensionSdkRegistry> registry_;
    std::shared_ptr<platform::ExtensionSdkRegistry> previous_;
};

TEST_F(TvPlugInCoreSdkTest, MergeKeepsOwnValuesAtEveryDepthWithTheTwoExceptionsAndSharedUnion)
{
    auto r = recordWithInfo(Value{{"KoExtension", Value::emptyDictionary()}});
    auto level = [](Value name, int timeout, Array shared, Value nested) {
        return Value{{"Name", std::move(name)}, {"CleanTimeout", timeout}, {"Shared", Value(std::move(shared))},
                     {"Nested", std::move(nested)}};
    };
    // The same shape at two depths; the SDK also holds a dictionary where the
    // plug-in holds a string, and keys of its own.
    Value own = level("own", 5, {"a", "b"}, "text").with("KoExtension", level("own", 5, {"p"}, Value{{"X", 1}}));
    Value sdk = level("sdk", 30, {"b", "c"}, Value{{"k", "v"}})
                    .with("OnlySdk", true)
                    .with("KoExtension", level("sdk", 30, {"p", "q"}, Value{{"X", 2}, {"Y", 3}}));
    Value expected = level("own", 30, {"a", "b", "c"}, "text")
                         .with("OnlySdk", true)
                         .with("KoExtension", level("own", 30, {"p", "q"}, Value{{"X", 1}, {"Y", 3}}));
    EXPECT_EQ(r->mergeDictionaryInto(sdk, own), expected);
    EXPECT_EQ(own["CleanTimeout"], Value(5)); // arguments are not changed

    // An SDK whose "KoExtension" is not a dictionary changes nothing under
    // that key; the other keys merge as usual.
    Value odd = r->mergeDictionaryInto(Value{{"KoExtension", "text"}, {"Extra", 1}}, own);
    EXPECT_EQ(odd, own.with("Extra", 1));

    // The shared union keeps each element once; own non-arrays stay.
    EXPECT_EQ(r->mergeSharedResourcesInto(Value(Array{"c", "a", "c", 1}), Value(Array{"a", "b", "a"})),
              Value(Array{"a", "b", "c", 1}));
    EXPECT_EQ(r->mergeSharedResourcesInto(Value(Array{"x"}), Value("own")), Value("own"));
    EXPECT_EQ(r->mergeSharedResourcesInto(Value("sdk"), Value(Array{"y"})), Value(Array{"y"}));
}

TEST_F(TvPlugInCoreSdkTest, ResolveMergesTheRegisteredSdkAndCanonicalizes)
{
    registry_->set("com.example.point",
                   Value{{"KoExtension", Value{{"KoExtensionProtocol", "SdkProtocol"},
                                               {"KoExtensionAttributes", Value{{"Y", 2}}},
                                               {"CleanTimeout", 30}}}});
    auto r = recordWithInfo(Value{{"KbBundleShortVersionString", "2.3"},
                                  {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.point"},
                                                        {"CleanTimeout", 5}}}});
    ASSERT_TRUE(r->diagnose());
    r->resolveSDK();
    EXPECT_EQ(registry_->lookUpCount(), 1u);
    EXPECT_EQ(r->protocolSpec(), Value("SdkProtocol"));
    EXPECT_EQ(r->pluginKey("CleanTimeout"), Value(30));
    EXPECT_EQ(r->attribute("Y"), Value(2));
    EXPECT_EQ(r->version(), Value("2.3"));
    EXPECT_EQ(r->infoKey("KoExtension")["KoExtensionProtocol"], Value("SdkProtocol"));
    // Canonicalization completes the plug-in dictionary, not the bundle information.
    EXPECT_TRUE(r->infoKey("KoExtension")["KoExtensionAttributes"]["KoExtensionVersion"].isNull());
    EXPECT_FALSE(r->diagnose());

    // Nothing is cached: a changed registration is seen by the next resolution.
    registry_->set("com.example.point", Value{{"KoExtension", Value{{"New", 1}}}});
    r->resolveSDK();
    EXPECT_EQ(registry_->lookUpCount(), 2u);
    EXPECT_EQ(r->pluginKey("New"), Value(1));
}

TEST_F(TvPlugInCoreSdkTest, ResolveHandlesMissingUnregisteredAndInvalidIdentifiers)
{
    LogCapture log;
    // No identifier: no lookup, no log, canonicalized.
    auto none = recordWithInfo(Value{{"KoExtension", Value::emptyDictionary()}});
    none->resolveSDK();
    EXPECT_EQ(registry_->lookUpCount(), 0u);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(none->attributes(), (Value{{"KoExtensionVersion", "1"}}));

    // Not registered: logged, own dictionaries kept, canonicalized.
    auto unknown = recordWithInfo(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.none"},
                                                              {"KoExtensionAttributes", Value{{"KoExtensionVersion", "4"}}}}}});
    Value before = unknown->bundleInfoDictionary();
    unknown->resolveSDK();
    auto line = log.find("plug-in sdk \"com.example.none\" not registered");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, platform::LogLevel::Default);
    EXPECT_EQ(line->category, "ops");
    EXPECT_EQ(unknown->bundleInfoDictionary(), before);
    EXPECT_EQ(unknown->version(), Value("4"));

    // Not a string: logged at error level, nothing changed, not canonicalized.
    log.clear();
    auto invalid = recordWithInfo(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", 42}}}});
    Value plugIn = invalid->plugInDictionary();
    invalid->resolveSDK();
    line = log.find("invalid SDK key:42");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, platform::LogLevel::Error);
    EXPECT_EQ(invalid->plugInDictionary(), plugIn);
    EXPECT_TRUE(invalid->attributes().isNull());

    // Without an installed registry nothing is registered.
    TvPlugInCore::setSdkRegistry(nullptr);
    log.clear();
    unknown->resolveSDK();
    EXPECT_TRUE(log.contains("plug-in sdk \"com.example.none\" not registered"));
}

TEST_F(TvPlugInCoreSdkTest, ResolveWithoutBundleInfoIsAnInternalInconsistency)
{
    auto r = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.bare", Value::fileURL("/x/Bare.vext"),
                                                            Value(), Value{{"KoExtensionPointIdentifier", "p"}}, kUuid);
    try {
        r->resolveSDK();
        FAIL() << "resolving without bundle information must raise";
    } catch (const TvInternalInconsistency& e) {
        EXPECT_STREQ(e.what(), "cannot resolve SDK without materialized Info.vlist");
    }
    // The record is untouched and still usable.
    EXPECT_EQ(registry_->lookUpCount(), 0u);
    EXPECT_EQ(r->plugInDictionary(), (Value{{"KoExtensionPointIdentifier", "p"}}));
    EXPECT_EQ(r->sdkSpec(), Value("p"));
}

TEST_F(TvPlugInCoreSdkTest, CanonicalizeAlwaysLeavesAttributesAndAVersion)
{
    auto canonical = [](Value info) {
        auto r = recordWithInfo(std::move(info));
        r->canonicalize();
        return r;
    };
    Value ownVersion{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "5"}}}};
    EXPECT_EQ(canonical(Value{{"KbBundleShortVersionString", "9"}, {"KoExtension", ownVersion}})->version(), Value("5"));
    EXPECT_EQ(canonical(Value{{"KbBundleShortVersionString", "2.3"}, {"KoExtension", Value::emptyDictionary()}})
                  ->attributes(),
              (Value{{"KoExtensionVersion", "2.3"}}));
    // Attributes of the wrong kind count as absent; other keys stay.
    auto wrongKind = canonical(Value{{"KoExtension", Value{{"KoExtensionAttributes", "oops"}, {"Other", 1}}}});
    EXPECT_EQ(wrongKind->plugInDictionary(),
              (Value{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "1"}}}, {"Other", 1}}));
}

// A subclass with its own class-level SDK lookup and override rule.
class CustomSdkPlugIn : public TvPlugInCore {
public:
    static std::shared_ptr<CustomSdkPlugIn> make(Value info)
    {
        std::shared_ptr<CustomSdkPlugIn> r(new CustomSdkPlugIn());
        if (!r->constructWithNameUrlBundleInfoInfoUuid("com.example.custom", Value::fileURL("/x/C.vext"), info,
                                                       Value(), kUuid))
            return nullptr;
        return r;
    }
    static Value readSDKDictionary(const std::string& name)
    {
        return Value{{"KoExtension", Value{{"FromClass", Value(name)}, {"Timeout", 99}}}};
    }
    bool sdkOverridesKey(std::string_view key) const override
    {
        return key == "Timeout" || TvPlugInCore::sdkOverridesKey(key);
    }

protected:
    Value lookUpSDKDictionary(const std::string& sdkName) const override { return readSDKDictionary(sdkName); }
};

TEST_F(TvPlugInCoreSdkTest, ResolveAsksTheRecordsOwnClassAndRules)
{
    auto r = CustomSdkPlugIn::make(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", "p"}, {"Timeout", 1}}}});
    ASSERT_TRUE(r);
    r->resolveSDK();
    EXPECT_EQ(registry_->lookUpCount(), 0u);
    EXPECT_EQ(r->pluginKey("FromClass"), Value("p"));
    EXPECT_EQ(r->pluginKey("Timeout"), Value(99));
}

} // namespace
} // namespace tv
