#include "base/Value.h"
#include "base/ValueCodec.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

TEST(ValueTest, BooleanAndIntegerReadingsFollowTheSystemRules)
{
    for (const Value& yes : {Value(true), Value(-3), Value(0.5), Value("YES"), Value("true"), Value("T"), Value("  +007"),
                             Value("-0001"), Value("9"), Value("\t y")})
        EXPECT_TRUE(yes.boolValue()) << yes.description();
    for (const Value& no : {Value(false), Value(0u), Value(), Value(Array{Value(true)}), Value(""), Value("NO"),
                            Value("000"), Value("  -0"), Value("+"), Value("x1"), Value("0x1")})
        EXPECT_FALSE(no.boolValue()) << no.description();
    const std::pair<Value, std::int64_t> integers[] = {
        {Value(7u), 7}, {Value(3.9), 3}, {Value("  42abc"), 42}, {Value("-17"), -17}, {Value("abc"), 0},
        {Value("99999999999999999999999"), INT64_MAX}, {Value(Uuid::random()), 0}, {Value(true), 0},
    };
    for (const auto& [v, expected] : integers)
        EXPECT_EQ(v.integerValue(), expected) << v.description();
    // The unsigned protocol reading takes only unsigned integers.
    EXPECT_EQ(Value(5u).unsignedValue(), 5u);
    EXPECT_EQ(Value(5).unsignedValue(), 0u);
}

TEST(ValueTest, DictionariesNeverStoreAbsentValues)
{
    Value d{{"a", 1}, {"b", Value()}};
    EXPECT_EQ(d.count(), 1u);
    EXPECT_EQ(d.with("c", "x").with("a", Value()), (Value{{"c", "x"}}));
    EXPECT_EQ(d, (Value{{"a", 1}})); // the receiver is unchanged: values are immutable
    // Kinds stay distinct.
    EXPECT_NE(Value(1), Value(1u));
    EXPECT_NE(Value(1), Value(1.0));
    EXPECT_NE(Value("file:///x"), Value::url("file:///x"));
    EXPECT_EQ(Value::fileURL("/a b/c").urlPath(), "/a b/c");
    EXPECT_EQ(Value::url("file:///a/b/").filePath(), "/a/b");
    EXPECT_EQ(Value::url("file:///").filePath(), "/");
}

Value everyKind()
{
    return Value{{"t", true}, {"f", false}, {"i", std::int64_t{-9000000000}}, {"u", std::uint64_t{18446744073709551615ull}},
                 {"d", -0.25}, {"s", "h\xC3\xA9llo"}, {"data", Value::data({0, 1, 2, 255})},
                 {"date", Value(Date::fromMicroseconds(1790000000123456))}, {"uuid", Value(Uuid::random())},
                 {"url", Value::fileURL("/Applications/Example.app")},
                 {"a", Value(Array{Value(1), Value("two"), Value(Array{}), Value(Dictionary{})})}};
}

TEST(ValueCodecTest, RoundTripsEveryKindAndRefusesUrlsWhereTheyCannotTravel)
{
    Value v = everyKind();
    Bytes b;
    ASSERT_FALSE(encodeValue(v, b));
    auto back = decodeValue(b);
    ASSERT_TRUE(back.ok()) << back.error().localizedDescription();
    EXPECT_EQ(*back, v);
    EXPECT_EQ(back->hash(), v.hash());

    ValueCodecOptions ipc{.allowUrl = false};
    EXPECT_FALSE(decodeValue(b, ipc).ok());
    b.clear();
    EXPECT_TRUE(encodeValue(v, b, ipc));
    EXPECT_TRUE(b.empty());
}

TEST(ValueCodecTest, EveryTruncationAndHostileCountFailsCleanly)
{
    Bytes b;
    ASSERT_FALSE(encodeValue(everyKind(), b));
    for (std::size_t n = 0; n < b.size(); ++n)
        EXPECT_FALSE(decodeValue(std::span(b.data(), n)).ok()) << n;
    // Four billion elements claimed in five bytes, bad UTF-8, a null entry, an unknown tag.
    for (const Bytes& hostile : {Bytes{0x0A, 0xFF, 0xFF, 0xFF, 0xFF}, Bytes{0x06, 2, 0, 0, 0, 0xC0, 0x80},
                                 Bytes{0x0B, 1, 0, 0, 0, 1, 0, 0, 0, 'k', 0x00}, Bytes{0x7F}})
        EXPECT_FALSE(decodeValue(hostile).ok());
}

TEST(ValueCodecTest, DepthCountsContainersOnly)
{
    // `containers` arrays nested around `inner`; the limit is 64.
    const std::tuple<int, Value, bool> cases[] = {
        {64, Value(true), true},          // a scalar adds no level
        {63, Value::emptyArray(), true},  // the 64th container
        {64, Value::emptyArray(), false}, // the 65th
        {100, Value(1), false},
    };
    for (const auto& [containers, inner, accepted] : cases) {
        SCOPED_TRACE(containers);
        Value v = inner;
        Bytes b, hand; // the decoder decides alike on a hand-made encoding
        for (int i = 0; i < containers; ++i) {
            v = Value(Array{v});
            hand.insert(hand.end(), {0x0A, 1, 0, 0, 0});
        }
        EXPECT_EQ(!encodeValue(v, b), accepted);
        encodeValue(inner, hand);
        EXPECT_EQ(decodeValue(hand).ok(), accepted);
    }
}

} // namespace
} // namespace tv
