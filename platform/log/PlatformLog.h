// Logging for the platform layer itself (for example the IPC transport's
// cuts of misbehaving peers). Lines go to the process's system log under the
// subsystem "com.veltra.platform", with the service's name as the category.
#pragma once

#include "base/Format.h"
#include "platform/log/SystemLog.h"

namespace tv::platform {

inline constexpr const char* kPlatformLogSubsystem = "com.veltra.platform";

template <class... Args>
void platformLog(LogLevel level, std::string_view category, std::string_view format, const Args&... args)
{
    SystemLog& sink = systemLog();
    if (!sink.enabled(level))
        return;
    const FormatArg list[] = {FormatArg(args)..., FormatArg()};
    std::string message = formatStringArgs(format, std::span<const FormatArg>(list, sizeof...(Args)),
                                           sink.redactsPrivate());
    sink.write(LogRecord{level, kPlatformLogSubsystem, category, message});
}

} // namespace tv::platform
