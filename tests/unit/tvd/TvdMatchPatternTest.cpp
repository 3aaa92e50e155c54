#include "tvd/TvdMatchPattern.h"
#include "tests/support/FakeTypeIdentifierService.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

TEST(TvdMatchPatternTest, OperatorsCompareNumericAwareAndCaseSensitive)
{
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"1.10", ">=1.9", true},  {"1.9", ">=1.10", false}, {"2.0", "<>2.0", false}, {"2.1", "<>2.0", true},
        {"3", "<10", true},       {"10", "<3", false},       {"3", "<3", false},       {"3", ">3", false},
        {"4", ">3", true},        {"3", "<=3", true},        {"2", "<=3", true},       {"4", "<=3", false},
        {"3", ">=3", true},       {"2", ">=3", false},       {"Abc", "abc", false},    {"abc", "abc", true},
        {"abc", "=abc", true},    {"1.01", "=1.1", true},    {"1.0", "1.0.1", false},  {"=x", "==x", true},
        {"x", "==x", false},      {"", "", true},            {"", "=", true},          {"a", "", false},
        {"<>", "<>", true},      {"", "<>", false},         {"b", "<>", true},        {"B", ">a", false},
    };
    for (const auto& [value, pattern, matches] : cases)
        EXPECT_EQ(matchValuePattern(value, pattern, nullptr), matches) << value << " vs " << pattern;
}

TEST(TvdMatchPatternTest, TypeOperatorsAskTheServiceInTheirDirection)
{
    test::FakeTypeIdentifierService types(std::vector<platform::TypeDeclaration>{{"public.jpeg", {"public.image"}}});
    EXPECT_TRUE(matchValuePattern("public.jpeg", "?TY-CONFORMS:public.image", &types));
    EXPECT_FALSE(matchValuePattern("public.image", "?TY-CONFORMS:public.jpeg", &types));
    EXPECT_TRUE(matchValuePattern("public.image", "?TY-IS:public.jpeg", &types));
    EXPECT_FALSE(matchValuePattern("public.jpeg", "?TY-IS:public.image", &types));
    EXPECT_TRUE(matchValuePattern("public.jpeg", "?TY-CONFORMS:public.jpeg", &types));
    EXPECT_FALSE(matchValuePattern("public.jpeg", "?TY-CONFORMS:", &types));
    EXPECT_FALSE(matchValuePattern("public.jpeg", "?ty-conforms:public.image", &types)); // unknown operator
    EXPECT_EQ(types.questions(), 6u);
    EXPECT_FALSE(matchValuePattern("public.jpeg", "?TY-CONFORMS:public.image", nullptr));
    // Unknown question-mark operators never match and are logged.
    test::LogCapture log;
    for (const char* pattern : {"?BAD:x", "?", "?TY-CONFORMS", "?TY-ISx"}) {
        EXPECT_FALSE(matchValuePattern("x", pattern, nullptr)) << pattern;
        EXPECT_TRUE(log.contains(std::string("unrecognized match operator:") + pattern)) << pattern;
    }
}

TEST(TvdMatchPatternTest, PatternListsMatchOnAnyStringElement)
{
    EXPECT_TRUE(matchValuePatterns("y", Value(Array{"z", "y"}), nullptr));
    EXPECT_TRUE(matchValuePatterns("y", Value(Array{Value(1), Value::emptyDictionary(), ">x"}), nullptr));
    EXPECT_FALSE(matchValuePatterns("y", Value::emptyArray(), nullptr));
    EXPECT_FALSE(matchValuePatterns("7", Value(Array{Value(7)}), nullptr));
    EXPECT_FALSE(matchValuePatterns("y", Value(7), nullptr));
    EXPECT_FALSE(matchValuePatterns("y", Value::emptyDictionary(), nullptr));
    EXPECT_TRUE(matchValuePatterns("y", Value("y"), nullptr));

    test::LogCapture log;
    Array huge(kMaxPatternCount, Value("n"));
    huge.back() = Value("y");
    EXPECT_TRUE(matchValuePatterns("y", Value(huge), nullptr));
    huge.push_back(Value("y"));
    EXPECT_FALSE(matchValuePatterns("y", Value(huge), nullptr));
    EXPECT_EQ(log.count("match pattern list of 4097 elements refused (at most 4096)"), 1u);
}

TEST(TvdMatchPatternTest, BooleanEqualityTreatsNumbersAsRulesDo)
{
    const std::tuple<Value, bool, bool> cases[] = { // value, equals true, equals false
        {Value(true), true, false},   {Value(false), false, true}, {Value(1), true, false},
        {Value(1u), true, false},     {Value(1.0), true, false},   {Value(0), false, true},
        {Value(0u), false, true},     {Value(0.0), false, true},   {Value(2), false, false},
        {Value("1"), false, false},   {Value("true"), false, false}, {Value(), false, false},
    };
    for (const auto& [value, isTrue, isFalse] : cases) {
        EXPECT_EQ(valueEqualsTrue(value), isTrue) << value.description();
        EXPECT_EQ(valueEqualsFalse(value), isFalse) << value.description();
    }
}

} // namespace
} // namespace tv
