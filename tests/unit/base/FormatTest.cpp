#include "base/Format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace tv {
namespace {

TEST(FormatTest, PrintfConversionsTakeTheArgumentsOwnTypes)
{
    EXPECT_EQ(formatString("%d %i %u", -5, 7, 42u), "-5 7 42");
    EXPECT_EQ(formatString("%ld %lld %lu %zu", 1L, -2LL, 3UL, std::size_t{4}), "1 -2 3 4");
    EXPECT_EQ(formatString("%lx %X %o", 255UL, 255, 8), "ff FF 10");
    EXPECT_EQ(formatString("%u", UINT64_MAX), "18446744073709551615");
    EXPECT_EQ(formatString("%d", INT64_MIN), "-9223372036854775808");
    EXPECT_EQ(formatString("%c%c", 'o', 'k'), "ok");
    EXPECT_EQ(formatString("%.2f %g", 3.14159, 0.5), "3.14 0.5");
    EXPECT_EQ(formatString("%s and %s", "text", std::string("string")), "text and string");
    EXPECT_EQ(formatString("100%% %s", "sure"), "100% sure");
    EXPECT_EQ(formatString("%d", true), "1");

    int x = 0;
    char expected[32];
    std::snprintf(expected, sizeof expected, "%p", static_cast<void*>(&x));
    EXPECT_EQ(formatString("%p", &x), expected);
}

TEST(FormatTest, ValuesWidthsAndPrecisions)
{
    EXPECT_EQ(formatString("%@", Value("plain")), "plain");
    EXPECT_EQ(formatString("%@ %@", Value(int64_t{3}), Value(true)), Value(int64_t{3}).description() + " " +
                                                                          Value(true).description());
    EXPECT_EQ(formatString("%@", Value::fileURL("/a/b")), "file:///a/b");
    EXPECT_EQ(formatString("%{public}@|%{public}s|%{private}s", "a", "b", "c"), "a|b|c");
    EXPECT_EQ(formatString("[%5d][%-5d][%05d]", 42, 42, 42), "[   42][42   ][00042]");
    EXPECT_EQ(formatString("[%8s][%-8s][%.3s]", "abc", "abc", "abcdef"), "[     abc][abc     ][abc]");
    EXPECT_EQ(formatString("[%*d][%.*s]", 4, 7, 2, "xyz"), "[   7][xy]");
    EXPECT_EQ(formatString("[%6@]", Value("v")), "[     v]");
    // A width past any fixed buffer is honoured in full.
    EXPECT_EQ(formatString("%700d", 1).size(), 700u);
    EXPECT_EQ(formatString("%.600f", 1.0).size(), 602u);
}

TEST(FormatTest, MissingArgumentsAndOddFormatsNeverReadGarbage)
{
    EXPECT_EQ(formatString("%s/%@/%d"), "(null)/(null)/0");
    EXPECT_EQ(formatString("%s %s", "one"), "one (null)");
    EXPECT_EQ(formatString("%s", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(formatString("%d", "text"), "0");     // a mismatched argument reads as 0
    EXPECT_EQ(formatString("trailing %"), "trailing %");
    EXPECT_EQ(formatString("%{public"), "%{public");
    // An unknown conversion stays as written and leaves its argument for the next.
    EXPECT_EQ(formatString("%k %d", 5), "%k 5");
    EXPECT_EQ(formatString("%*k %d", 9, 5), "%*k 9");
}

TEST(FormatTest, RedactionHidesTextNotMarkedPublic)
{
    const FormatArg args[] = {FormatArg("secret"), FormatArg("shown"), FormatArg(Value("obj")), FormatArg(12),
                              FormatArg("hidden")};
    EXPECT_EQ(formatStringArgs("%s %{public}s %@ %d %{private}s", args, true),
              "<private> shown <private> 12 <private>");
    EXPECT_EQ(formatStringArgs("%s %{public}s %@ %d %{private}s", args, false), "secret shown obj 12 hidden");
    const FormatArg value[] = {FormatArg(Value("v"))};
    EXPECT_EQ(formatStringArgs("%{public}@", value, true), "v");
}

} // namespace
} // namespace tv
