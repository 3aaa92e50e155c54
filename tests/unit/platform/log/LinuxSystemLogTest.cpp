#include "platform/log/LinuxSystemLog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <regex>
#include <string>

namespace tv::platform {
namespace {

// Sets (or unsets, with nullopt) an environment variable for one scope.
struct ScopedEnv {
    ScopedEnv(const char* name, const std::optional<std::string>& value) : name(name)
    {
        if (const char* old = std::getenv(name))
            saved = old;
        value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { saved ? ::setenv(name, saved->c_str(), 1) : ::unsetenv(name); }
    const char* name;
    std::optional<std::string> saved;
};

TEST(LinuxSystemLogTest, EnvironmentSetsThresholdAndPrivacyAtConstruction)
{
    const std::pair<std::optional<std::string>, LogLevel> cases[] = { // TVD_LOG_LEVEL, the lowest level shown
        {std::nullopt, LogLevel::Default},
        {"info", LogLevel::Info},
        {"debug", LogLevel::Debug},
        {"verbose", LogLevel::Default}, // unknown values keep the default
        {"error", LogLevel::Default},   // the threshold is only ever lowered
    };
    for (const auto& [level, lowestShown] : cases) {
        ScopedEnv env("TVD_LOG_LEVEL", level);
        LinuxSystemLog log;
        for (LogLevel l : {LogLevel::Error, LogLevel::Default, LogLevel::Info, LogLevel::Debug})
            EXPECT_EQ(log.enabled(l), static_cast<int>(l) <= static_cast<int>(lowestShown))
                << level.value_or("(unset)") << " " << logLevelName(l);
    }
    for (std::optional<std::string> setting : {std::optional<std::string>(), std::optional<std::string>("1")}) {
        ScopedEnv env("TVD_LOG_PRIVATE", setting);
        EXPECT_EQ(LinuxSystemLog().redactsPrivate(), !setting);
    }
}

TEST(LinuxSystemLogTest, StandardErrorGetsOneLinePerMessageAndErrnoSurvives)
{
    ScopedEnv noJournal("JOURNAL_STREAM", std::nullopt);
    ScopedEnv level("TVD_LOG_LEVEL", std::nullopt);
    testing::internal::CaptureStderr();
    LinuxSystemLog log;
    log.write(LogRecord{LogLevel::Error, "com.veltra.Tarvik", "ops", "two\nlines\tand \x1b[31m"});
    log.write(LogRecord{LogLevel::Debug, "com.veltra.Tarvik", "ops", "below the threshold"});
    errno = ENOENT;
    log.write(LogRecord{LogLevel::Default, "", "", "from the default log"});
    const int errnoAfter = errno;
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errnoAfter, ENOENT);
    std::regex expected(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z error ops: two\\nlines\\tand \\x1b\[31m
\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z default default: from the default log
)");
    EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

} // namespace
} // namespace tv::platform
