#include "tvd/TvdPlugIn.h"

#include "platform/activation/LinuxActivationRuleEvaluator.h"
#include "tests/support/FakeTypeIdentifierService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tvd/TvdMatchRules.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

// The record's match operations go through the process-wide rules and read
// the registry-backed lookups.
class TvdPlugInMatchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        auto types = std::make_shared<test::FakeTypeIdentifierService>(
            std::vector<platform::TypeDeclaration>{{"public.jpeg", {"public.image"}}});
        TvdMatchRules::setShared(std::make_shared<const TvdMatchRules>(TvdMatchServices{
            types, std::make_shared<platform::LinuxActivationRuleEvaluator>(types),
            [this](const TvPlugInCore& plugIn) {
                const auto* record = dynamic_cast<const TvdPlugIn*>(&plugIn);
                return record ? annotations_[record->annotationKey()] : Value();
            }}));
    }
    void TearDown() override { TvdMatchRules::setShared(nullptr); }

    std::shared_ptr<TvdPlugIn> makePlugIn()
    {
        auto r = test::makePlugInRecord();
        r->plugInDictionary = Value{
            {"KoExtensionPointIdentifier", "com.example.point"},
            {"KoExtensionAttributes",
             Value{{"KoExtensionVersion", "1.10"},
                   {"Accepts", Value(Array{"public.jpeg"})},
                   {"KoExtensionActivationRule", Value{{"Type", "public.image"}, {"AtMost", 2u}}}}}};
        r->infoDictionary = r->infoDictionary.with("KoExtension", r->plugInDictionary).with("Category", "photo");
        r->entitlements = Value{{"com.example.granted", Value(1)}, {kReplacePlugInEntitlement, "com.example.other"}};
        auto p = TvdPlugIn::initWithRSData(r);
        EXPECT_TRUE(p);
        return p;
    }

    Dictionary annotations_;
};

TEST_F(TvdPlugInMatchTest, RulesReadTheRegistryRecordAndTheAnnotation)
{
    auto p = makePlugIn();
    annotations_["com.example.other"] = Value{{"election", 0x101}};
    EXPECT_TRUE(p->match(Value{{"KoExtensionVersion", ">=1.9"},
                               {"Category", "photo"},
                               {"Accepts", "?TY-CONFORMS:public.image"},
                               {"ENTITLEMENT:com.example.granted", Value(true)},
                               {"KoExtensionContainingApp", "/apps/A.app"},
                               {"KoUserElection", "1"},
                               {"KoExtensionActivationRule", Value{{"public.jpeg", 2u}}}}));
    EXPECT_FALSE(p->match(Value{{"KoExtensionActivationRule", Value{{"public.jpeg", 3u}}}}));
    EXPECT_FALSE(p->match(Value{{"KoUserElection", "0"}}));
    EXPECT_TRUE(p->matchKeyPattern("KoExtensionIdentifier", "com.example.p"));
    EXPECT_TRUE(p->matchValuePatterns("public.jpeg", Value(Array{"x", "?TY-IS:public.jpeg"})));
}

} // namespace
} // namespace tv
