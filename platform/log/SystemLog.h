// The system log ("skrib"): where every log line of the process goes.
//
// One SystemLog is installed per process (setSystemLog); until one is, the
// Linux system log (LinuxSystemLog) is used. Implementations are called from
// any thread and must be thread-safe. Tests install an in-process sink that
// records lines.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace tv::platform {

// Levels with the syslog priority each maps to.
enum class LogLevel : int { Error = 3, Default = 5, Info = 6, Debug = 7 };

const char* logLevelName(LogLevel level);

struct LogRecord {
    LogLevel level;
    std::string_view subsystem; // "" for the default log
    std::string_view category;  // "" for the default log
    std::string_view message;
};

class SystemLog {
public:
    virtual ~SystemLog() = default;

    // Whether a line at this level would be kept; checked before a message
    // is formatted, so that suppressed lines cost nothing.
    virtual bool enabled(LogLevel level) const = 0;
    // Whether "%s"/"%@" arguments not marked {public} are shown as <private>.
    virtual bool redactsPrivate() const = 0;
    virtual void write(const LogRecord& record) = 0;
};

// The process-wide log.
SystemLog& systemLog();
// Installs `log` as the process-wide log (null restores the Linux log) and
// returns the previous one.
std::shared_ptr<SystemLog> setSystemLog(std::shared_ptr<SystemLog> log);

} // namespace tv::platform
