#include "Tarvik/TvLog.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <vector>

namespace tv {
namespace {

using platform::LogLevel;

TEST(TvLogTest, CategoriesLogUnderTheSubsystemAtTheirLevels)
{
    test::LogCapture log;
    TvLog::ops().error("e %d", 1);
    TvLog::traffic().notice("n %s", "two");
    TvLog::extension().info("i %@", Value("three"));
    TvLog::rs().debug("d");
    TvLog::defaultLog().notice("plain");

    const std::tuple<LogLevel, const char*, const char*, const char*> expected[] = {
        {LogLevel::Error, "com.veltra.Tarvik", "ops", "e 1"},
        {LogLevel::Default, "com.veltra.Tarvik", "traffic", "n two"},
        {LogLevel::Info, "com.veltra.Tarvik", "extension", "i three"},
        {LogLevel::Debug, "com.veltra.Tarvik", "rs", "d"}, {LogLevel::Default, "", "", "plain"},
    };
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), std::size(expected));
    for (std::size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(std::tuple(lines[i].level, lines[i].subsystem, lines[i].category, lines[i].message), expected[i]) << i;
}

TEST(TvLogTest, ThresholdAndRedactionOfTheInstalledLog)
{
    std::vector<std::string> shown;
    {
        test::LogCapture log(LogLevel::Default, true); // as the production log is set up
        TvLog::ops().notice("opened %@ for %{public}@ (%d)", Value("/secret/path"), Value("host"), 7);
        TvLog::ops().info("not shown %s", "x");
        TvLog::ops().debug("not shown");
        TvLog::ops().error("failed: %{public}s", "why");
        EXPECT_TRUE(TvLog::ops().enabled(LogLevel::Error));
        EXPECT_FALSE(TvLog::ops().enabled(LogLevel::Info));
        for (const auto& line : log.lines())
            shown.push_back(line.message);
    }
    EXPECT_EQ(shown, (std::vector<std::string>{"opened <private> for host (7)", "failed: why"}));
}

} // namespace
} // namespace tv
