#include "Tarvik/TvVersionComparison.h"

#include <gtest/gtest.h>

#include <string>

namespace tv {
namespace {

TEST(TvVersionComparisonTest, OrdersByDigitRunsThenByCodeAndIsAntisymmetric)
{
    constexpr auto Asc = TvOrdering::Ascending;
    constexpr auto Same = TvOrdering::Same;
    constexpr auto Desc = TvOrdering::Descending;
    const std::string big(400, '9');
    const std::tuple<std::string, std::string, TvOrdering> cases[] = {
        // Digit runs compare by numeric value.
        {"1.9", "1.10", Asc}, {"2.0", "10.0", Asc}, {"1.0", "1.0.1", Asc}, {"1.2.3", "1.2.3", Same}, {"", "", Same},
        {"", "0", Asc}, {"build 99", "build 100", Asc},
        // Leading zeros do not count.
        {"1.01", "1.1", Same}, {"007", "7", Same}, {"1.0", "1.00", Same}, {"1.010", "1.9", Desc}, {"0", "00", Same},
        // Long runs never overflow.
        {"1." + big, "1." + big + "0", Asc}, {big + "8", big + "9", Asc},
        {"18446744073709551616", "18446744073709551615", Desc}, // past 64 bits
        {"000" + big, big, Same},
        // Other characters compare by code, case-sensitively.
        {"1.0a", "1.0b", Asc},
        {"1.0B", "1.0a", Asc}, // upper case sorts before lower case
        {"1.0", "1.0a", Asc},
        {"1-2", "1.2", Asc},   // '-' < '.'
        {"1.a", "1.2", Desc},  // a letter against a digit: by code
        {"1a", "12", Asc},     // the runs 1 and 12 decide first
        {"1.0\xc3\xa9", "1.0z", Desc}, // bytes above ASCII sort after it
    };
    for (const auto& [a, b, order] : cases) {
        EXPECT_EQ(compareVersionString(a, b), order) << a << " vs " << b;
        EXPECT_EQ(compareVersionString(b, a), order == Asc ? Desc : order == Desc ? Asc : Same) << b << " vs " << a;
    }
}

} // namespace
} // namespace tv
