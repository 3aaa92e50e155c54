#include "Tarvik/TvPlugInCore.h"
#include "base/InternalInconsistency.h"
#include "tests/support/FakeExtensionSdkRegistry.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

const Uuid kUuid = *Uuid::parse("5D6E7F80-1111-4222-8333-444455556666");

std::shared_ptr<TvPlugInCore> recordWithInfo(Value info)
{
    return TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL("/x/Share.vext"),
                                                          std::move(info), Value(), kUuid);
}

class TvPlugInCoreSdkTest : public ::testing::Test {
protected:
    TvPlugInCoreSdkTest() { TvPlugInCore::setSdkRegistry(registry_); }
    ~TvPlugInCoreSdkTest() override { TvPlugInCore::setSdkRegistry(previous_); }

    std::shared_ptr<test::FakeExtensionSdkRegistry> registry_ = std::make_shared<test::FakeExtensionSdkRegistry>();
    std::shared_ptr<platform::ExtensionSdkRegistry> previous_ = TvPlugInCore::sdkRegistry();
    test::LogCapture log_;
};

TEST_F(TvPlugInCoreSdkTest, MergeKeepsOwnValuesAtEveryDepthWithTheTwoExceptionsAndSharedUnion)
{
    auto r = recordWithInfo(Value{{"KoExtension", Value::emptyDictionary()}});
    auto level = [](Value name, int timeout, Array shared, Value nested) {
        return Value{{"Name", std::move(name)}, {"CleanTimeout", timeout}, {"Shared", Value(std::move(shared))}, {"Nested", std::move(nested)}};
    };
    // The same shape at two depths; the SDK also holds a dictionary where the
    // plug-in holds a string, and keys of its own.
    Value own = level("own", 5, {"a", "b"}, "text").with("KoExtension", level("own", 5, {"p"}, Value{{"X", 1}}));
    Value sdk = level("sdk", 30, {"b", "c"}, Value{{"k", "v"}}).with("OnlySdk", true)
                    .with("KoExtension", level("sdk", 30, {"p", "q"}, Value{{"X", 2}, {"Y", 3}}));
    EXPECT_EQ(r->mergeDictionaryInto(sdk, own), level("own", 30, {"a", "b", "c"}, "text").with("OnlySdk", true)
                                                    .with("KoExtension", level("own", 30, {"p", "q"}, Value{{"X", 1}, {"Y", 3}})));
    // An SDK "KoExtension" that is no dictionary changes nothing under that key.
    EXPECT_EQ(r->mergeDictionaryInto(Value{{"KoExtension", "text"}, {"Extra", 1}}, own), own.with("Extra", 1));
    // The shared union keeps each element once; own non-arrays stay.
    EXPECT_EQ(r->mergeSharedResourcesInto(Value(Array{"c", "a", "c", 1}), Value(Array{"a", "b", "a"})), Value(Array{"a", "b", "c", 1}));
    EXPECT_EQ(r->mergeSharedResourcesInto(Value(Array{"x"}), Value("own")), Value("own"));
}

TEST_F(TvPlugInCoreSdkTest, ResolveMergesTheRegisteredSdkEachTimeAndCanonicalizes)
{
    registry_->set("com.example.point", Value{{"KoExtension", Value{{"KoExtensionProtocol", "SdkProtocol"},
                                                                    {"KoExtensionAttributes", Value{{"Y", 2}}}}}});
    auto r = recordWithInfo(Value{{"KbBundleShortVersionString", "2.3"},
                                  {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.point"}}}});
    ASSERT_TRUE(r->diagnose());
    r->resolveSDK();
    EXPECT_EQ(r->protocolSpec(), Value("SdkProtocol"));
    EXPECT_EQ(r->attribute("Y"), Value(2));
    EXPECT_EQ(r->version(), Value("2.3"));
    // Canonicalization completes the plug-in dictionary, not the bundle information.
    EXPECT_TRUE(r->infoKey("KoExtension")["KoExtensionAttributes"]["KoExtensionVersion"].isNull());
    EXPECT_FALSE(r->diagnose());
    registry_->set("com.example.point", Value{{"KoExtension", Value{{"New", 1}}}});
    r->resolveSDK();
    EXPECT_EQ(registry_->lookUpCount(), 2u);
    EXPECT_EQ(r->pluginKey("New"), Value(1));
}

TEST_F(TvPlugInCoreSdkTest, ResolveHandlesMissingUnregisteredAndInvalidIdentifiers)
{
    auto none = recordWithInfo(Value{{"KoExtension", Value::emptyDictionary()}});
    none->resolveSDK(); // no lookup, no log, canonicalized
    EXPECT_EQ(registry_->lookUpCount(), 0u);
    EXPECT_EQ(none->attributes(), (Value{{"KoExtensionVersion", "1"}}));
    EXPECT_TRUE(log_.lines().empty());

    auto unknown = recordWithInfo(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.none"},
                                                              {"KoExtensionAttributes", Value{{"KoExtensionVersion", "4"}}}}}});
    Value before = unknown->bundleInfoDictionary();
    unknown->resolveSDK();
    EXPECT_EQ(log_.find("plug-in sdk \"com.example.none\" not registered")->category, "ops");
    EXPECT_EQ(unknown->bundleInfoDictionary(), before);

    auto invalid = recordWithInfo(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", 42}}}});
    Value plugIn = invalid->plugInDictionary();
    invalid->resolveSDK();
    EXPECT_EQ(log_.find("invalid SDK key:42")->level, platform::LogLevel::Error);
    EXPECT_EQ(invalid->plugInDictionary(), plugIn); // not even canonicalized

    auto bare = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.bare", Value::fileURL("/x/Bare.vext"), Value(),
                                                               Value{{"KoExtensionPointIdentifier", "p"}}, kUuid);
    try {
        bare->resolveSDK();
        FAIL() << "resolving without bundle information must raise";
    } catch (const TvInternalInconsistency& e) {
        EXPECT_STREQ(e.what(), "cannot resolve SDK without materialized Info.vlist");
    }
    EXPECT_EQ(bare->sdkSpec(), Value("p")); // untouched and still usable
}

} // namespace
} // namespace tv
