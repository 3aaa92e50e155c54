#include "platform/formats/TypedJson.h"

#include <gtest/gtest.h>

#include <cmath>

namespace tv::platform {
namespace {

Value parsed(std::string_view text)
{
    auto v = parseTypedJson(text);
    EXPECT_TRUE(v.ok()) << text << ": " << (v.ok() ? "" : v.error().localizedDescription());
    return v.ok() ? *v : Value();
}

TEST(TypedJsonTest, RoundTripKeepsEveryKindExactly)
{
    const Value original = Value::dictionary({
        {"ints", Value(Array{Value(0), Value(5), Value(-1), Value(INT64_MIN), Value(INT64_MAX)})},
        {"uints", Value(Array{Value(0u), Value(std::uint64_t{INT64_MAX} + 1), Value(UINT64_MAX)})},
        {"reals", Value(Array{Value(0.1), Value(-0.0), Value(1.0), Value(1e300), Value(5e-324), Value(std::nan("")),
                              Value(HUGE_VAL), Value(-HUGE_VAL)})},
        {"strings", Value(Array{Value(""), Value("ünïcødé ✓ 𝄞"), Value(std::string("nul\0ctl\x01\"\\", 11))})},
        {"misc", Value(Array{Value(true), Value(false), Value(), Value::data({}), Value::data({0xFF, 0, 0x80}),
                             Value(Uuid::random()), Value::url("https://example.com/a?b=c")})},
        {"dates", Value(Array{Value(Date::fromSeconds(1795341600)), Value(Date::fromMicroseconds(1795341600000001))})},
        {"empty", Value(Array{Value::emptyArray(), Value::emptyDictionary()})},
        {"$int", "a key that looks like a tag"},
        {"$$", Value{{"$uint", 1u}}},
    });
    for (bool pretty : {true, false}) {
        const std::string text = toTypedJson(original, pretty);
        const Value back = parsed(text);
        EXPECT_EQ(back, original) << text;
        EXPECT_TRUE(std::signbit(*back["reals"].at(1).asDouble()));
        EXPECT_EQ(toTypedJson(back, pretty), text);
    }
    EXPECT_EQ(toTypedJson(Value(3), false), R"({"$int":3})");
    EXPECT_EQ(toTypedJson(Value(3u), false), "3");
    EXPECT_EQ(toTypedJson(Value{{"b", 1u}, {"a", -1}}, false), R"({"a":-1,"b":1})");
    EXPECT_EQ(toTypedJson(Value{{"$x", 1u}}, false), R"({"$$x":1})");
    EXPECT_EQ(parsed(toTypedJson(Value())), Value());
    // JSON text is UTF-8: bad bytes become U+FFFD rather than bad output.
    EXPECT_EQ(parsed(toTypedJson(Value(std::string("a\xFF" "b")))), Value("a\xEF\xBF\xBD" "b"));
}

TEST(TypedJsonTest, ReadsPlainJsonAndTags)
{
    EXPECT_TRUE(std::isnan(*parsed(R"({"$double": "nan"})").asDouble()));
    const std::pair<const char*, Value> cases[] = {
        {"7", Value(7u)}, {"-7", Value(-7)}, {"7.0", Value(7.0)}, {"1e2", Value(100.0)},
        {R"({"$int": 7})", Value(7)}, {R"({"$int": -7})", Value(-7)}, {R"({"$uint": 7})", Value(7u)},
        {R"({"$double": 7})", Value(7.0)},
        {R"({"$uuid": "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"})", Value(*Uuid::parse("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"))},
        {R"({"$data": "AAEC"})", Value::data({0, 1, 2})}, {R"({"$data": ""})", Value::data({})},
        {R"({"$date": "2026-11-22T11:00:00.5+01:00"})",
         Value(Date::fromMicroseconds(Date::parseIso8601("2026-11-22T10:00:00Z")->microseconds() + 500000))},
        {R"({"$url": "file:///x"})", Value::url("file:///x")},
        {R"({"$$x": 1, "$$$y": 2})", Value{{"$x", 1u}, {"$$y", 2u}}},
        // Null members are dropped; null array elements stay.
        {R"({"a": null, "b": [null]})", Value{{"b", Value(Array{Value()})}}},
        {" \n[ ] ", Value::emptyArray()},
    };
    for (const auto& [text, value] : cases)
        EXPECT_EQ(parsed(text), value) << text;
}

TEST(TypedJsonTest, RefusesMalformedAndAmbiguousText)
{
    const char* cases[] = {
        "", "[1,]", "{\"a\" 1}", "[1] 2", "{\"a\": 1} x", "\"unterminated", "\"bad utf8 \xC3\x28\"", "'single'", "NaN",
        "18446744073709551616", "-9223372036854775809", "1e400", R"({"a": 1, "a": 2})", R"({"a": null, "a": 2})",
        R"({"$int": 1, "x": 2})", R"({"x": null, "$int": 1})", R"({"$int": 1, "$uint": 2})", R"({"$int": "1"})",
        R"({"$int": 1.5})", R"({"$int": 9223372036854775808})", R"({"$int": null})", R"({"$uint": -1})",
        R"({"$double": "fast"})", R"({"$uuid": "not-a-uuid"})", R"({"$data": "AB*D"})", R"({"$data": "AA EC"})",
        R"({"$date": "2026-11-22"})", R"({"$date": "0000-01-01T00:00:00+01:00"})", R"({"$url": ["x"]})",
        R"({"$url": {"$url": "x"}})", R"({"$what": 1})", R"({"$": 1})",
    };
    for (const char* text : cases) {
        auto v = parseTypedJson(text);
        ASSERT_FALSE(v.ok()) << text;
        EXPECT_EQ(v.error().code, EINVAL) << text;
    }
}

TEST(TypedJsonTest, EnforcesSizeAndDepthLimits)
{
    auto nested = [](std::size_t n, std::string_view inner) {
        return std::string(n, '[') + std::string(inner) + std::string(n, ']');
    };
    EXPECT_TRUE(parseTypedJson(nested(64, "")).ok());
    EXPECT_FALSE(parseTypedJson(nested(65, "")).ok());
    EXPECT_FALSE(parseTypedJson(nested(63, "[1]")).ok());
    // A tag object is one value: it adds no level.
    EXPECT_TRUE(parseTypedJson(nested(63, R"({"$int": 1})")).ok());
    EXPECT_FALSE(parseTypedJson(nested(64, R"({"$int": 1})")).ok());
    EXPECT_FALSE(parseTypedJson(nested(63, R"({"a": 1})")).ok());
    auto deep = parseTypedJson(nested(100000, ""));
    ASSERT_FALSE(deep.ok());
    EXPECT_NE(deep.error().localizedDescription().find("nesting deeper than 64"), std::string::npos);

    // What the writer produces for the deepest allowed value reads back.
    Value v = Value(5);
    for (int i = 0; i < 63; ++i)
        v = Value(Array{v});
    EXPECT_EQ(parsed(toTypedJson(v)), v);

    EXPECT_EQ(parseTypedJson("\"0123456789\"", TypedJsonLimits{.maxBytes = 10}).error().code, EFBIG);
    EXPECT_TRUE(parseTypedJson("\"01234567\"", TypedJsonLimits{.maxBytes = 10}).ok());
}

} // namespace
} // namespace tv::platform
