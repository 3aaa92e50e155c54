// TvLog: a log handle for one category of the subsystem "com.veltra.Tarvik".
//
// The four categories are made together, exactly once per process, on the
// first request for any of them: "ops" (nearly everything), "traffic" (the
// client library's requests and replies), "extension" (activation-rule
// evaluation) and "rs" (application-registry queries). defaultLog() is the
// system log's default object (no subsystem, no category).
//
// Format strings are those of formatString(): printf conversions plus "%@",
// with "{public}" marking values that may be shown unredacted. Formatting is
// skipped entirely when the system log would drop the line.
// Thread-safe: handles are immutable once made.
#pragma once

#include "base/Format.h"
#include "platform/log/SystemLog.h"

#include <string>

namespace tv {

using platform::LogLevel;

inline constexpr const char* kTarvikLogSubsystem = "com.veltra.Tarvik";

class TvLog {
public:
    static const TvLog& ops();
    static const TvLog& traffic();
    static const TvLog& extension();
    static const TvLog& rs();
    static const TvLog& defaultLog();

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

    bool enabled(LogLevel level) const { return platform::systemLog().enabled(level); }

    template <class... Args>
    void log(LogLevel level, std::string_view format, const Args&... args) const
    {
        platform::SystemLog& sink = platform::systemLog();
        if (!sink.enabled(level))
            return;
        const FormatArg list[] = {FormatArg(args)..., FormatArg()};
        emit(sink, level, formatStringArgs(format, std::span<const FormatArg>(list, sizeof...(Args)),
                                           sink.redactsPrivate()));
    }

    template <class... Args>
    void error(std::string_view format, const Args&... args) const { log(LogLevel::Error, format, args...); }
    // The "default" level (syslog notice).
    template <class... Args>
    void notice(std::string_view format, const Args&... args) const { log(LogLevel::Default, format, args...); }
    template <class... Args>
    void info(std::string_view format, const Args&... args) const { log(LogLevel::Info, format, args...); }
    template <class... Args>
    void debug(std::string_view format, const Args&... args) const { log(LogLevel::Debug, format, args...); }

    // The plain console logging call: a line for the default object at the
    // default level, formatted without redaction, as a console shows every
    // value whatever its privacy marking.
    template <class... Args>
    static void console(std::string_view format, const Args&... args)
    {
        platform::SystemLog& sink = platform::systemLog();
        if (sink.enabled(LogLevel::Default))
            defaultLog().emit(sink, LogLevel::Default, formatString(format, args...));
    }

    // Sends exceptions that escape serial-queue tasks to the "ops" category at
    // error level. Called once by programs at start.
    static void logUncaughtQueueExceptions();

    TvLog(std::string subsystem, std::string category)
        : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

private:
    void emit(platform::SystemLog& sink, LogLevel level, const std::string& message) const;

    std::string subsystem_;
    std::string category_;
};

} // namespace tv
