#include "platform/activation/LinuxActivationRuleEvaluator.h"
#include "tests/support/FakeTypeIdentifierService.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace tv::platform {
namespace {

class LinuxActivationRuleEvaluatorTest : public ::testing::Test {
protected:
    std::shared_ptr<test::FakeTypeIdentifierService> types_ = std::make_shared<test::FakeTypeIdentifierService>(
        std::vector<TypeDeclaration>{{"public.image", {"public.data"}},
                                     {"public.jpeg", {"public.image"}},
                                     {"public.png", {"public.image"}},
                                     {"public.url", {"public.data"}}});
    LinuxActivationRuleEvaluator evaluator_{types_};
    test::LogCapture log_;
    // Two images of two kinds and one web page.
    Value offer_ = Value{{"public.jpeg", 2u}, {"public.png", Value(1)}, {"public.url", 1u}};
};

TEST_F(LinuxActivationRuleEvaluatorTest, CountsLimitsAndCombinators)
{
    const std::tuple<const char*, Value, bool> cases[] = {
        {"any item", Value::emptyDictionary(), true},
        {"images by conformance, counts added", Value{{"Type", "public.image"}, {"AtLeast", 3u}}, true},
        {"too few images", Value{{"Type", "public.image"}, {"AtLeast", 4u}}, false},
        {"at most bound inclusive", Value{{"Type", "public.image"}, {"AtMost", Value(3)}}, true},
        {"at most exceeded", Value{{"Type", "public.image"}, {"AtMost", 2u}}, false},
        {"exact type", Value{{"Type", "public.png"}, {"AtLeast", 1u}, {"AtMost", 1u}}, true},
        {"no movies: zero allowed", Value{{"Type", "public.movie"}, {"AtLeast", 0u}, {"AtMost", 0u}}, true},
        {"missing type needs one", Value{{"Type", "public.movie"}}, false},
        {"all items", Value{{"AtLeast", 4u}, {"AtMost", 4u}}, true},
        {"all of", Value{{"AllOf", Value(Array{Value{{"Type", "public.url"}}, Value{{"Type", "public.jpeg"}}})}}, true},
        {"all of, one fails",
         Value{{"AllOf", Value(Array{Value{{"Type", "public.url"}}, Value{{"Type", "public.movie"}}})}}, false},
        {"any of", Value{{"AnyOf", Value(Array{Value{{"Type", "public.movie"}}, Value{{"Type", "public.url"}}})}}, true},
        {"empty all of", Value{{"AllOf", Value::emptyArray()}}, true},
        {"empty any of", Value{{"AnyOf", Value::emptyArray()}}, false},
        {"not", Value{{"Not", Value{{"Type", "public.url"}}}}, false},
        {"not not", Value{{"Not", Value{{"Not", Value{{"Type", "public.url"}}}}}}, true},
    };
    for (const auto& [what, rule, accepts] : cases)
        EXPECT_EQ(evaluator_.evaluate(rule, offer_), accepts) << what;
    EXPECT_TRUE(evaluator_.evaluate(Value{{"AtLeast", 0u}}, Value::emptyDictionary()));
    EXPECT_FALSE(evaluator_.evaluate(Value::emptyDictionary(), Value::emptyDictionary()));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LinuxActivationRuleEvaluatorTest, CountsSaturateInsteadOfWrapping)
{
    Value huge{{"public.jpeg", Value(UINT64_MAX)}, {"public.png", 2u}};
    EXPECT_TRUE(evaluator_.evaluate(Value{{"Type", "public.image"}, {"AtLeast", Value(UINT64_MAX)}}, huge));
    EXPECT_FALSE(evaluator_.evaluate(Value{{"Type", "public.image"}, {"AtMost", 5u}}, huge));
}

TEST_F(LinuxActivationRuleEvaluatorTest, MalformedRulesAndOffersNeverMatchAndAreLogged)
{
    Value deep{{"Type", "public.url"}};
    for (int i = 0; i < 64; ++i)
        deep = Value{{"Not", Value{{"Not", deep}}}};
    Array many(300, Value{{"Type", "public.url"}});
    // Each is malformed (rule, offer, reason logged).
    const std::tuple<Value, Value, const char*> cases[] = {
        {Value("public.url"), Value(), "a rule must be a dictionary, not string"},
        {Value{{"Kind", "public.url"}}, Value(), "unknown key Kind"},
        {Value{{"AllOf", Value::emptyArray()}, {"Type", "x"}}, Value(), "unknown key AllOf"},
        {Value{{"AnyOf", Value{{"Type", "x"}}}}, Value(), "AnyOf needs an array"},
        {Value{{"Type", Value(3)}}, Value(), "Type needs a string"},
        {Value{{"AtLeast", Value(-1)}}, Value(), "AtLeast needs a non-negative integer"},
        {Value{{"AtMost", Value(1.5)}}, Value(), "AtMost needs a non-negative integer"},
        {Value{{"AtMost", "3"}}, Value(), "AtMost needs a non-negative integer"},
        {Value{{"AtLeast", 3u}, {"AtMost", 2u}}, Value(), "AtLeast is greater than AtMost"},
        // A malformed branch refuses even where AnyOf would stop before it.
        {Value{{"AnyOf", Value(Array{Value::emptyDictionary(), Value(7)})}}, Value(), "a rule must be a dictionary, not int"},
        {deep, Value(), "nested deeper than 32"}, {Value{{"AllOf", Value(many)}}, Value(), "more than 256 rules"},
        {Value::emptyDictionary(), Value(Array{}), "the offered items must be a dictionary, not array"},
        {Value::emptyDictionary(), Value{{"public.url", Value(-2)}},
         "the count of offered items of public.url is not a non-negative integer"},
    };
    for (const auto& [rule, offer, reason] : cases) {
        log_.clear();
        EXPECT_FALSE(evaluator_.evaluate(rule, offer.isNull() ? offer_ : offer)) << reason;
        std::vector<test::CapturedLine> lines = log_.lines();
        ASSERT_EQ(lines.size(), 1u) << reason;
        EXPECT_EQ(lines[0].category, "extension");
        EXPECT_NE(lines[0].message.find(std::string("activation rule not understood (") + reason + ")"), std::string::npos)
            << lines[0].message;
    }

    Dictionary wide;
    for (int i = 0; i < 300; ++i)
        wide["t" + std::to_string(i)] = Value(1u);
    EXPECT_FALSE(evaluator_.evaluate(Value::emptyDictionary(), Value(wide)));
    EXPECT_EQ(log_.countContaining("more than 256 offered item types"), 1u);
}

TEST_F(LinuxActivationRuleEvaluatorTest, OneEvaluationReadsOneTable)
{
    // The evaluator reads conformance from one snapshot, not through a
    // question per item.
    Value rule{{"AllOf", Value(Array{Value{{"Type", "public.image"}}, Value{{"Type", "public.data"}}})}};
    EXPECT_TRUE(evaluator_.evaluate(rule, offer_));
    EXPECT_EQ(types_->questions(), 0u);
    types_->setDeclarations({});
    EXPECT_FALSE(evaluator_.evaluate(rule, offer_));
}

} // namespace
} // namespace tv::platform
