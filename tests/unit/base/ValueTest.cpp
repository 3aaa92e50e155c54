#include "base/Value.h"
#include "base/ValueCodec.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

TEST(ValueTest, BooleanReadingFollowsTheSystemRules)
{
    EXPECT_TRUE(Value(true).boolValue());
    EXPECT_FALSE(Value(false).boolValue());
    EXPECT_TRUE(Value(-3).boolValue());
    EXPECT_FALSE(Value(0u).boolValue());
    EXPECT_TRUE(Value(0.5).boolValue());
    for (const char* yes : {"YES", "yes", "true", "T", "  +007", "-0001", "9", "\t y"})
        EXPECT_TRUE(Value(yes).boolValue()) << yes;
    for (const char* no : {"", "NO", "false", "0", "000", "  -0", "+", "x1", "0x1"})
        EXPECT_FALSE(Value(no).boolValue()) << no;
    EXPECT_FALSE(Value().boolValue());
    EXPECT_FALSE(Value(Array{Value(true)}).boolValue());
}

TEST(ValueTest, IntegerReadingFollowsTheSystemRules)
{
    EXPECT_EQ(Value(-12).integerValue(), -12);
    EXPECT_EQ(Value(7u).integerValue(), 7);
    EXPECT_EQ(Value(3.9).integerValue(), 3);
    EXPECT_EQ(Value("  42abc").integerValue(), 42);
    EXPECT_EQ(Value("-17").integerValue(), -17);
    EXPECT_EQ(Value("abc").integerValue(), 0);
    EXPECT_EQ(Value("99999999999999999999999").integerValue(), INT64_MAX);
    EXPECT_EQ(Value(Uuid::random()).integerValue(), 0);
    // The unsigned protocol reading takes only unsigned integers.
    EXPECT_EQ(Value(5u).unsignedValue(), 5u);
    EXPECT_EQ(Value(5).unsignedValue(), 0u);
}

TEST(ValueTest, DictionariesNeverStoreAbsentValues)
{
    Value d{{"a", 1}, {"b", Value()}};
    EXPECT_EQ(d.count(), 1u);
    EXPECT_TRUE(d["b"].isNull());
    Value e = d.with("c", "x").with("a", Value());
    EXPECT_EQ(e.count(), 1u);
    EXPECT_EQ(e["c"], Value("x"));
    // The receiver is unchanged: values are immutable.
    EXPECT_EQ(d["a"], Value(1));
    EXPECT_TRUE(d["c"].isNull());
}

TEST(ValueTest, KindsStayDistinct)
{
    EXPECT_NE(Value(1), Value(1u));
    EXPECT_NE(Value(1), Value(1.0));
    EXPECT_NE(Value("file:///x"), Value::url("file:///x"));
    EXPECT_EQ(Value::fileURL("/a b/c").urlPath(), "/a b/c");
}

Value everyKind()
{
    Dictionary d;
    d["null-free"] = Value(true);
    d["f"] = Value(false);
    d["i"] = Value(std::int64_t{-9000000000});
    d["u"] = Value(std::uint64_t{18446744073709551615ull});
    d["d"] = Value(-0.25);
    d["s"] = Value("h\xC3\xA9llo");
    d["data"] = Value::data({0, 1, 2, 255});
    d["date"] = Value(Date::fromMicroseconds(1790000000123456));
    d["uuid"] = Value(Uuid::random());
    d["url"] = Value::fileURL("/Applications/Example.app");
    d["a"] = Value(Array{Value(1), Value("two"), Value(Array{}), Value(Dictionary{})});
    return Value(std::move(d));
}

TEST(ValueCodecTest, RoundTripsEveryKind)
{
    Value v = everyKind();
    Bytes b;
    ASSERT_FALSE(encodeValue(v, b));
    auto back = decodeValue(b);
    ASSERT_TRUE(back.ok()) << back.error().localizedDescription();
    EXPECT_EQ(*back, v);
    EXPECT_EQ(back->hash(), v.hash());
}

TEST(ValueCodecTest, RefusesUrlsWhereTheyCannotTravel)
{
    Bytes b;
    ValueCodecOptions ipc{.allowUrl = false};
    EXPECT_TRUE(encodeValue(everyKind(), b, ipc));
    EXPECT_TRUE(b.empty());
    ASSERT_FALSE(encodeValue(Value::url("file:///x"), b));
    EXPECT_FALSE(decodeValue(b, ipc).ok());
}

TEST(ValueCodecTest, EveryTruncationAndHostileCountFailsCleanly)
{
    Bytes b;
    ASSERT_FALSE(encodeValue(everyKind(), b));
    for (std::size_t n = 0; n < b.size(); ++n)
        EXPECT_FALSE(decodeValue(std::span(b.data(), n)).ok()) << n;
    // An array claiming four billion elements in five bytes.
    Bytes huge{0x0A, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_FALSE(decodeValue(huge).ok());
    Bytes badUtf8{0x06, 2, 0, 0, 0, 0xC0, 0x80};
    EXPECT_FALSE(decodeValue(badUtf8).ok());
    Bytes nullEntry{0x0B, 1, 0, 0, 0, 1, 0, 0, 0, 'k', 0x00};
    EXPECT_FALSE(decodeValue(nullEntry).ok());
    Bytes unknownTag{0x7F};
    EXPECT_FALSE(decodeValue(unknownTag).ok());
}

TEST(ValueCodecTest, DepthCountsContainersOnly)
{
    // `containers` arrays nested around `inner`; the limit is 64.
    struct Case {
        int containers;
        Value inner;
        bool accepted;
    };
    const Case cases[] = {
        {64, Value(true), true},          // a scalar adds no level
        {63, Value::emptyArray(), true},  // the 64th container
        {64, Value::emptyArray(), false}, // the 65th
        {65, Value(1), false},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.containers);
        Value v = tc.inner;
        for (int i = 0; i < tc.containers; ++i)
            v = Value(Array{v});
        Bytes b;
        EXPECT_EQ(!encodeValue(v, b), tc.accepted);
        // The decoder decides alike on a hand-made encoding.
        Bytes hand;
        for (int i = 0; i < tc.containers; ++i)
            hand.insert(hand.end(), {0x0A, 1, 0, 0, 0});
        encodeValue(tc.inner, hand);
        EXPECT_EQ(decodeValue(hand).ok(), tc.accepted);
    }
    // A hand-made 100-deep nesting is refused without recursion beyond the
    // limit.
    Bytes deep;
    for (int i = 0; i < 100; ++i)
        deep.insert(deep.end(), {0x0A, 1, 0, 0, 0});
    deep.push_back(0x00);
    EXPECT_FALSE(decodeValue(deep).ok());
}

} // namespace
} // namespace tv
