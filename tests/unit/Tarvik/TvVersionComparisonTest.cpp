#include "Tarvik/TvVersionComparison.h"

#include <gtest/gtest.h>

#include <string>

namespace tv {
namespace {

constexpr auto Asc = TvOrdering::Ascending;
constexpr auto Same = TvOrdering::Same;
constexpr auto Desc = TvOrdering::Descending;

// Every pair is also checked reversed: the ordering must be antisymmetric.
void expectOrder(const std::string& a, const std::string& b, TvOrdering expected)
{
    EXPECT_EQ(compareVersionString(a, b), expected) << a << " vs " << b;
    TvOrdering reversed = expected == Asc ? Desc : expected == Desc ? Asc : Same;
    EXPECT_EQ(compareVersionString(b, a), reversed) << b << " vs " << a;
}

TEST(TvVersionComparisonTest, DigitRunsCompareByNumericValue)
{
    expectOrder("1.9", "1.10", Asc);
    expectOrder("2.0", "10.0", Asc);
    expectOrder("1.0", "1.0.1", Asc);
    expectOrder("1.2.3", "1.2.3", Same);
    expectOrder("", "", Same);
    expectOrder("", "0", Asc);
    expectOrder("build 99", "build 100", Asc);
}

TEST(TvVersionComparisonTest, LeadingZerosDoNotCount)
{
    expectOrder("1.01", "1.1", Same);
    expectOrder("007", "7", Same);
    expectOrder("1.0", "1.00", Same);
    expectOrder("1.010", "1.9", Desc);
    expectOrder("0", "00", Same);
}

TEST(TvVersionComparisonTest, LongDigitRunsNeverOverflow)
{
    std::string big(400, '9');
    expectOrder("1." + big, "1." + big + "0", Asc);
    expectOrder(big + "8", big + "9", Asc);
    expectOrder("18446744073709551616", "18446744073709551615", Desc); // past 64 bits
    expectOrder("000" + big, big, Same);
}

TEST(TvVersionComparisonTest, OtherCharactersCompareByCodeCaseSensitively)
{
    expectOrder("1.0a", "1.0b", Asc);
    expectOrder("1.0B", "1.0a", Asc); // upper case sorts before lower case
    expectOrder("1.0", "1.0a", Asc);
    expectOrder("1-2", "1.2", Asc);   // '-' < '.'
    expectOrder("1.a", "1.2", Desc);  // a letter against a digit: by code
    expectOrder("1a", "12", Asc);     // the runs 1 and 12 decide first
    expectOrder("1.0\xc3\xa9", "1.0z", Desc); // bytes above ASCII sort after it
}

} // namespace
} // namespace tv
