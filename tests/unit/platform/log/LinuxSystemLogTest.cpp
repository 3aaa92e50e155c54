#include "platform/log/LinuxSystemLog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <regex>
#include <string>
#include <unistd.h>

namespace tv::platform {
namespace {

// Sets (or unsets, with nullopt) an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<std::string> value) : name_(name)
    {
        if (const char* old = std::getenv(name))
            old_ = old;
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnv()
    {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

// What the log writes to standard error while `fn` runs.
template <class F>
std::string captureStderr(F fn)
{
    int fds[2];
    EXPECT_EQ(::pipe(fds), 0);
    int saved = ::dup(STDERR_FILENO);
    ::dup2(fds[1], STDERR_FILENO);
    ::close(fds[1]);
    fn();
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    std::string out;
    char buf[4096];
    ssize_t n;
    ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    while ((n = ::read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<std::size_t>(n));
    ::close(fds[0]);
    return out;
}

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
    LinuxSystemLog log;
    int errnoAfter = 0;
    std::string out = captureStderr([&] {
        log.write(LogRecord{LogLevel::Error, "com.veltra.Tarvik", "ops", "two\nlines\tand \x1b[31m"});
        log.write(LogRecord{LogLevel::Debug, "com.veltra.Tarvik", "ops", "below the threshold"});
        errno = ENOENT;
        log.write(LogRecord{LogLevel::Default, "", "", "from the default log"});
        errnoAfter = errno;
    });
    EXPECT_EQ(errnoAfter, ENOENT);
    std::regex expected(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z error ops: two\\nlines\\tand \\x1b\[31m
\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z default default: from the default log
)");
    EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

} // namespace
} // namespace tv::platform
