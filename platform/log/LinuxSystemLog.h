// LinuxSystemLog: the system log on Linux.
//
// When the process's standard error is connected to the journal (systemd
// sets JOURNAL_STREAM to its device and inode), lines are sent to journald
// with MESSAGE, PRIORITY, SYSLOG_IDENTIFIER=tvd, TVD_SUBSYSTEM and
// TVD_CATEGORY. Otherwise each line is written whole to standard error as
// "time level category: message", with control characters of the message
// escaped ("\n", "\t", "\x1b"...) so that one message is one line.
// Writing a line leaves errno as it was.
//
// The threshold shows default and error lines; TVD_LOG_LEVEL=info or =debug
// lowers it. TVD_LOG_PRIVATE=1 shows private values unredacted.
// Thread-safe.
#pragma once

#include "platform/log/SystemLog.h"

namespace tv::platform {

class LinuxSystemLog final : public SystemLog {
public:
    // Reads the environment once, at construction.
    LinuxSystemLog();

    // SystemLog
    bool enabled(LogLevel level) const override;
    bool redactsPrivate() const override { return redactPrivate_; }
    void write(const LogRecord& record) override;

private:
    int threshold_;
    bool redactPrivate_;
    bool journal_;
};

} // namespace tv::platform
