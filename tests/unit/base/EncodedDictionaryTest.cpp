#include "base/EncodedDictionary.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

// A spliced encoding is byte for byte the encoding of the changed dictionary,
// and decodes to it: keys added before, between and after the kept ones,
// replaced, removed, and removals of absent keys.
TEST(EncodedDictionaryTest, SplicedEncodingEqualsTheWholeEncoding)
{
    const Value form{{"b", "bee"},
                     {"d", Value(std::uint64_t{4})},
                     {"m", Value{{"x", Value::fileURL("/a/b")}, {"y", Value(Array{Value(1), Value(2.5)})}}},
                     {"uuid", Value(Uuid::random())}};
    using Changes = std::vector<EncodedDictionary::Change>;
    const Changes cases[] = {
        {},
        {{"annotations", Value::emptyDictionary()}},
        {{"a", Value(1)}, {"c", Value("see")}, {"z", Value(true)}},
        {{"b", Value{{"election", Value(1)}}}, {"m", Value()}},
        {{"a", Value()}, {"uuid", Value()}, {"zz", Value()}},
        {{"b", Value()}, {"d", Value()}, {"m", Value()}, {"uuid", Value()}},
    };
    const ValueCodecOptions options{.allowUrl = true};
    for (const Value& dictionary : {form, Value::emptyDictionary()}) {
        auto encoded = EncodedDictionary::make(dictionary, options);
        ASSERT_NE(encoded, nullptr);
        for (const auto& changes : cases) {
            Value changed = dictionary;
            for (const auto& [key, value] : changes)
                changed = changed.with(key, value);
            Bytes whole, spliced{0xEE};
            ASSERT_FALSE(encodeValue(changed, whole, options));
            ASSERT_FALSE(encoded->appendWith(spliced, changes));
            EXPECT_EQ(Bytes(spliced.begin() + 1, spliced.end()), whole) << changed.description();
            auto decoded = decodeValue(std::span<const std::uint8_t>(spliced).subspan(1), options);
            ASSERT_TRUE(decoded.ok());
            EXPECT_EQ(*decoded, changed);
        }
    }
}

// What the whole encoding refuses, the kept and the spliced one refuse too,
// and a failed splice leaves the output as it was.
TEST(EncodedDictionaryTest, RefusesWhatTheEncodingRefuses)
{
    EXPECT_EQ(EncodedDictionary::make(Value("text"), {}), nullptr);
    EXPECT_EQ(EncodedDictionary::make(Value{{"u", Value::url("file:///x")}}, {.allowUrl = false}), nullptr);
    EXPECT_EQ(EncodedDictionary::make(Value{{"d", Value{{"e", Value(1)}}}}, {.maxDepth = 1}), nullptr);
    auto flat = EncodedDictionary::make(Value{{"a", Value(1)}}, {.maxDepth = 1});
    ASSERT_NE(flat, nullptr);
    Bytes out{1, 2};
    const EncodedDictionary::Change deep[] = {{"b", Value::emptyDictionary()}};
    EXPECT_TRUE(flat->appendWith(out, deep));
    EXPECT_EQ(out, (Bytes{1, 2}));
}

} // namespace
} // namespace tv
