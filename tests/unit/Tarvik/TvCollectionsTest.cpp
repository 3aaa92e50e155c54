#include "Tarvik/TvCollections.h"

#include <gtest/gtest.h>

#include <vector>

namespace tv {
namespace {

TEST(TvCollectionsTest, ArrayWithValuesDropsAbsentResultsAndDictionaryChangingCopies)
{
    // Any range keeps order and drops absent results; a Value gives an
    // array's elements, a dictionary's keys, nothing of a scalar.
    std::vector<int> numbers{1, 2, 3, 4};
    EXPECT_EQ(arrayWithValuesInBlock(numbers, [](int n) { return n % 2 ? Value() : Value(n * 10); }),
              Value(Array{Value(20), Value(40)}));
    auto identity = [](const Value& v) { return v; };
    EXPECT_EQ(arrayWithValuesInBlock(Value{{"x", 1}, {"y", 2}}, identity), Value(Array{Value("x"), Value("y")}));
    EXPECT_EQ(arrayWithValuesInBlock(Value(3), identity), Value::emptyArray());

    const Value original{{"a", 1}, {"b", 2}};
    EXPECT_EQ(dictionaryChangingTo(original, "a", Value("one")), (Value{{"a", "one"}, {"b", 2}}));
    EXPECT_EQ(dictionaryChangingTo(original, "a", Value()), (Value{{"b", 2}}));
    EXPECT_EQ(original, (Value{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(dictionaryChangingTo(Value(), "k", Value(true)), (Value{{"k", true}})); // a non-dictionary is empty
}

} // namespace
} // namespace tv
