#include "Tarvik/TvCollections.h"

#include <gtest/gtest.h>

#include <vector>

namespace tv {
namespace {

TEST(TvCollectionsTest, ArrayWithValuesDropsAbsentResultsAndKeepsOrder)
{
    Array input{Value("a"), Value("b"), Value("c")};
    Value out = arrayWithValuesInBlock(input, [](const Value& v) -> Value {
        return *v.asString() == "b" ? Value() : Value(*v.asString() + "!");
    });
    EXPECT_EQ(out, Value(Array{Value("a!"), Value("c!")}));

    // Any range, with elements of its own type.
    std::vector<int> numbers{1, 2, 3, 4};
    EXPECT_EQ(arrayWithValuesInBlock(numbers, [](int n) { return n % 2 ? Value() : Value(n * 10); }),
              Value(Array{Value(20), Value(40)}));

    // A Value: an array's elements, a dictionary's keys, nothing of a scalar.
    auto identity = [](const Value& v) { return v; };
    EXPECT_EQ(arrayWithValuesInBlock(Value(input), identity), Value(input));
    EXPECT_EQ(arrayWithValuesInBlock(Value{{"x", 1}, {"y", 2}}, identity), Value(Array{Value("x"), Value("y")}));
    EXPECT_EQ(arrayWithValuesInBlock(Value(3), identity), Value::emptyArray());
    EXPECT_EQ(arrayWithValuesInBlock(Array{}, identity), Value::emptyArray());
}

TEST(TvCollectionsTest, DictionaryChangingLeavesTheReceiverAlone)
{
    const Value original{{"a", 1}, {"b", 2}};
    EXPECT_EQ(dictionaryChangingTo(original, "a", Value("one")), (Value{{"a", "one"}, {"b", 2}}));
    EXPECT_EQ(original, (Value{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(dictionaryChangingTo(original, "c", Value(3)), original.with("c", 3));
    EXPECT_EQ(dictionaryChangingTo(original, "a", Value()), (Value{{"b", 2}}));
    EXPECT_EQ(dictionaryChangingTo(original, "missing", Value()), original);

    // A receiver that is not a dictionary counts as empty.
    EXPECT_EQ(dictionaryChangingTo(Value(), "k", Value(true)), (Value{{"k", true}}));
}

} // namespace
} // namespace tv
