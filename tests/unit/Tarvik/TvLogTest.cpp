#include "Tarvik/TvLog.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

namespace tv {
namespace {

using platform::LogLevel;

// A sink that behaves like the production log: a threshold and redaction.
class ThresholdSink final : public platform::SystemLog {
public:
    ThresholdSink(LogLevel threshold, bool redact) : threshold_(threshold), redact_(redact) {}
    bool enabled(LogLevel level) const override { return static_cast<int>(level) <= static_cast<int>(threshold_); }
    bool redactsPrivate() const override { return redact_; }
    void write(const platform::LogRecord& r) override
    {
        std::lock_guard lock(mutex_);
        lines.emplace_back(r.message);
    }
    std::vector<std::string> lines;

private:
    LogLevel threshold_;
    bool redact_;
    std::mutex mutex_;
};

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
    auto sink = std::make_shared<ThresholdSink>(LogLevel::Default, true);
    auto previous = platform::setSystemLog(sink);
    TvLog::ops().notice("opened %@ for %{public}@ (%d)", Value("/secret/path"), Value("host"), 7);
    TvLog::ops().info("not shown %s", "x");
    TvLog::ops().debug("not shown");
    TvLog::ops().error("failed: %{public}s", "why");
    EXPECT_TRUE(TvLog::ops().enabled(LogLevel::Error));
    EXPECT_FALSE(TvLog::ops().enabled(LogLevel::Info));
    platform::setSystemLog(previous);
    EXPECT_EQ(sink->lines, (std::vector<std::string>{"opened <private> for host (7)", "failed: why"}));
}

} // namespace
} // namespace tv
