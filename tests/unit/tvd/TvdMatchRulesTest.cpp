// TvdMatchRules: what each key selects, elections, whole rules and the
// activation evaluator's part. Hostile patterns and rules are the pattern's
// and the evaluator's unit tests' (and the match fuzz target's).
#include "tvd/TvdMatchRules.h"

#include "Tarvik/TvPlugInCore.h"
#include "platform/activation/ActivationRuleEvaluator.h"
#include "tests/support/FakeTypeIdentifierService.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>


namespace tv {
namespace {

const Uuid kUuid = *Uuid::parse("6F1C2A3B-4D5E-4F60-8172-93A4B5C6D7E8");

// Records what it was asked and answers from a fixed reply.
class RecordingEvaluator final : public platform::ActivationRuleEvaluator {
public:
    bool evaluate(const Value& rule, const Value& items) override
    {
        rule_ = rule;
        items_ = items;
        return answer_;
    }
    bool answer_ = true;
    Value rule_, items_;
};

class TvdMatchRulesTest : public ::testing::Test {
protected:
    std::shared_ptr<TvPlugInCore> makePlugIn(bool contained = true)
    {
        Value attributes{{"KoExtensionPointIdentifier", "com.example.point"}, {"KoExtensionVersion", "1.10"},
                         {"Formats", Value(Array{"x", "y"})}, {"Mixed", Value(Array{Value(7), "public.jpeg"})},
                         {"Count", Value(7)}, {"Zero", Value(0)}, {"Shadowed", "from attributes"},
                         {"Rule", Value{{"Type", "public.image"}}}};
        Value info{{"KbBundleIdentifier", "com.example.share"}, {"Shadowed", "from info"}, {"InfoOnly", "here"},
                   {"KoExtension", Value{{"KoExtensionAttributes", attributes}}}};
        auto plugIn = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
            "com.example.share", Value::fileURL("/Applications/Notes.app/PlugIns/Share.vext"), info, Value(), kUuid);
        EXPECT_TRUE(plugIn);
        plugIn->setEntitlements(Value{{"com.example.yes", true}, {"com.example.no", false}, {"com.example.text", "any"}, {"", "empty name"}});
        if (contained)
            plugIn->setContainingUrl(Value::fileURL("/Applications/Notes.app"));
        return plugIn;
    }

    TvdMatchRules rules(Value annotation = Value())
    {
        return TvdMatchRules(TvdMatchServices{
            types_, evaluator_, [this, annotation](const TvPlugInCore&) {
                ++annotationLookups_;
                return annotation;
            }});
    }

    std::shared_ptr<test::FakeTypeIdentifierService> types_ = std::make_shared<test::FakeTypeIdentifierService>(
        std::vector<platform::TypeDeclaration>{{"public.jpeg", {"public.image"}}});
    std::shared_ptr<RecordingEvaluator> evaluator_ = std::make_shared<RecordingEvaluator>();
    int annotationLookups_ = 0;
};

TEST_F(TvdMatchRulesTest, KeysSelectTheirValuesAndPatternsApplyInOrder)
{
    auto plugIn = makePlugIn();
    TvdMatchRules r = rules();
    const std::tuple<const char*, Value, bool> cases[] = {
        {"KoExtensionIdentifier", "com.example.share", true}, {"KoExtensionIdentifier", "com.example.Share", false},
        {"com.veltra.uuid", "6F1C2A3B-4D5E-4F60-8172-93A4B5C6D7E8", true},
        {"KoExtensionContainingApp", "/Applications/Notes.app", true},
        {"KoExtensionVersion", ">=1.9", true}, // attribute, numeric-aware
        {"Shadowed", "from attributes", true}, // attributes before bundle information
        {"InfoOnly", "here", true},
        {"ENTITLEMENT:com.example.text", Value(true), true}, {"ENTITLEMENT:com.example.no", Value(true), false},
        {"ENTITLEMENT:com.example.absent", Value(false), true}, {"ENTITLEMENT:", "empty name", true},
        {"ENTITLEMENT:KoExtensionVersion", Value(true), false}, // no fallback to attributes
        {"Absent", Value(true), false}, {"Absent", Value(0), true}, {"Absent", Value(1), false}, // numbers as booleans
        {"Zero", Value(false), true}, {"Count", Value(true), true},
        {"Count", "7", false}, // numbers are not compared with strings
        {"Formats", Value(Array{"z", "y"}), true}, {"Formats", "z", false}, // any element against any pattern
        {"Mixed", "?TY-CONFORMS:public.image", true}, // non-string elements are skipped
        {"KoExtensionVersion", Value(2.5), false}, // a pattern of no usable kind
    };
    for (const auto& [key, pattern, matches] : cases)
        EXPECT_EQ(r.matchKeyPattern(*plugIn, key, pattern), matches) << key << " " << pattern.description();
    // Without a containing application that key fails whatever the pattern.
    auto bare = makePlugIn(false);
    for (const Value& pattern : {Value(false), Value(true), Value("x"), Value(Array{}), Value(0)})
        EXPECT_FALSE(r.matchKeyPattern(*bare, "KoExtensionContainingApp", pattern)) << pattern.description();
}

TEST_F(TvdMatchRulesTest, ElectionIsTheAnnotationsIntegerWithBitsEightToFifteenCleared)
{
    auto plugIn = makePlugIn();
    const std::pair<Value, const char*> cases[] = {
        {Value(), "0"}, {Value{{"other", 5}}, "0"}, {Value{{"election", 0x102}}, "2"},
        {Value{{"election", 0x10001}}, "65537"}, {Value{{"election", Value(std::int64_t{-1})}}, "-65281"},
    };
    for (const auto& [annotation, election] : cases) {
        EXPECT_EQ(rules(annotation).valueForKey(*plugIn, "KoUserElection"), Value(election)) << annotation.description();
        EXPECT_TRUE(rules(annotation).matchKeyPattern(*plugIn, "KoUserElection", Value(election)));
    }
    TvdMatchRules withoutDatabase{TvdMatchServices{}};
    EXPECT_TRUE(withoutDatabase.matchKeyPattern(*plugIn, "KoUserElection", "0"));
}

TEST_F(TvdMatchRulesTest, WholeRulesNeedEveryEntryAndStopAtTheFirstFailure)
{
    auto plugIn = makePlugIn();
    TvdMatchRules r = rules(Value{{"election", 1}});
    EXPECT_TRUE(r.match(*plugIn, Value()));
    EXPECT_TRUE(r.match(*plugIn, Value::emptyDictionary()));
    EXPECT_TRUE(r.match(*plugIn, Value{{"KoExtensionIdentifier", "com.example.share"}, {"KoUserElection", "1"}}));
    EXPECT_EQ(annotationLookups_, 1);
    // "A..." sorts first and fails, so the election is never looked up.
    EXPECT_FALSE(r.match(*plugIn, Value{{"AAbsent", Value(true)}, {"KoUserElection", "1"}}));
    EXPECT_EQ(annotationLookups_, 1);
    EXPECT_FALSE(r.match(*plugIn, Value("not rules")));
}

TEST_F(TvdMatchRulesTest, DictionaryPatternsGoToTheActivationEvaluatorWithTheRuleFirst)
{
    auto plugIn = makePlugIn();
    TvdMatchRules r = rules();
    test::LogCapture log;
    Value offer{{"public.jpeg", 2u}};
    EXPECT_TRUE(r.matchKeyPattern(*plugIn, "Rule", offer));
    EXPECT_EQ(evaluator_->rule_, (Value{{"Type", "public.image"}}));
    EXPECT_EQ(evaluator_->items_, offer);
    EXPECT_TRUE(log.contains("evaluating KoExtension filter: {\"public.jpeg\" = 2} value: {\"Type\" = \"public.image\"}"));

    evaluator_->answer_ = false;
    EXPECT_FALSE(r.matchKeyPattern(*plugIn, "Rule", offer));
    // The value need not be a dictionary: the evaluator judges it.
    evaluator_->rule_ = Value();
    r.matchKeyPattern(*plugIn, "KoExtensionVersion", offer);
    EXPECT_EQ(evaluator_->rule_, Value("1.10"));
    // Absent values fail before the evaluator is asked.
    evaluator_->rule_ = Value();
    EXPECT_FALSE(r.matchKeyPattern(*plugIn, "Absent", offer));
    EXPECT_TRUE(evaluator_->rule_.isNull());
}

} // namespace
} // namespace tv
