#include "platform/log/LinuxSystemLog.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace tv::platform {

const char* logLevelName(LogLevel level)
{
    switch (level) {
    case LogLevel::Error: return "error";
    case LogLevel::Default: return "default";
    case LogLevel::Info: return "info";
    case LogLevel::Debug: return "debug";
    }
    return "?";
}

static bool stderrIsJournal()
{
    const char* js = std::getenv("JOURNAL_STREAM");
    if (!js)
        return false;
    unsigned long long dev = 0, ino = 0;
    if (std::sscanf(js, "%llu:%llu", &dev, &ino) != 2)
        return false;
    struct stat st;
    if (::fstat(STDERR_FILENO, &st) != 0)
        return false;
    return st.st_dev == dev && st.st_ino == ino;
}

LinuxSystemLog::LinuxSystemLog()
{
    threshold_ = static_cast<int>(LogLevel::Default);
    if (const char* lvl = std::getenv("TVD_LOG_LEVEL")) {
        if (!std::strcmp(lvl, "debug"))
            threshold_ = static_cast<int>(LogLevel::Debug);
        else if (!std::strcmp(lvl, "info"))
            threshold_ = static_cast<int>(LogLevel::Info);
    }
    const char* priv = std::getenv("TVD_LOG_PRIVATE");
    redactPrivate_ = !(priv && *priv == '1');
    journal_ = stderrIsJournal();
}

bool LinuxSystemLog::enabled(LogLevel level) const
{
    return static_cast<int>(level) <= threshold_;
}

// Control characters of a message are written escaped so that a message
// (which may carry text from clients or bundles) is always exactly one line
// and cannot forge lines of its own.
static void appendOneLine(std::string& line, std::string_view message)
{
    static const char hex[] = "0123456789abcdef";
    for (char c : message) {
        auto u = static_cast<unsigned char>(c);
        if (c == '\n')
            line += "\\n";
        else if (c == '\r')
            line += "\\r";
        else if (c == '\t')
            line += "\\t";
        else if (u < 0x20 || u == 0x7f) {
            line += "\\x";
            line += hex[u >> 4];
            line += hex[u & 0xf];
        } else
            line += c;
    }
}

void LinuxSystemLog::write(const LogRecord& r)
{
    if (!enabled(r.level))
        return;
    // Logging never changes errno: callers log a failure and then report the
    // errno that caused it.
    struct ErrnoKeeper {
        int saved = errno;
        ~ErrnoKeeper() { errno = saved; }
    } keepErrno;
    if (journal_) {
        std::string msg = "MESSAGE=" + std::string(r.message);
        std::string prio = "PRIORITY=" + std::to_string(static_cast<int>(r.level));
        std::string sub = "TVD_SUBSYSTEM=" + std::string(r.subsystem);
        std::string cat = "TVD_CATEGORY=" + std::string(r.category);
        const char* ident = "SYSLOG_IDENTIFIER=tvd";
        struct iovec iov[5] = {
            {msg.data(), msg.size()},
            {prio.data(), prio.size()},
            {const_cast<char*>(ident), std::strlen(ident)},
            {sub.data(), sub.size()},
            {cat.data(), cat.size()},
        };
        if (sd_journal_sendv(iov, 5) >= 0)
            return;
        // The journal went away: fall through to standard error.
    }
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    ::gmtime_r(&ts.tv_sec, &tm);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000);
    std::string line = stamp;
    line += ' ';
    line += logLevelName(r.level);
    line += ' ';
    line += r.category.empty() ? std::string_view("default") : r.category;
    line += ": ";
    appendOneLine(line, r.message);
    line += '\n';
    // One write per line so that lines of concurrent threads never interleave.
    const char* p = line.data();
    std::size_t left = line.size();
    while (left) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

namespace {
// Never destroyed: queue threads may still log while the process exits.
struct LogSlot {
    std::mutex mutex;
    std::shared_ptr<SystemLog> log;
};

LogSlot& logSlot()
{
    static LogSlot& slot = *new LogSlot;
    return slot;
}

std::atomic<SystemLog*> gLogRaw{nullptr};
} // namespace

SystemLog& systemLog()
{
    if (SystemLog* l = gLogRaw.load(std::memory_order_acquire))
        return *l;
    LogSlot& slot = logSlot();
    std::lock_guard lock(slot.mutex);
    if (!slot.log) {
        slot.log = std::make_shared<LinuxSystemLog>();
        gLogRaw.store(slot.log.get(), std::memory_order_release);
    }
    return *slot.log;
}

std::shared_ptr<SystemLog> setSystemLog(std::shared_ptr<SystemLog> log)
{
    LogSlot& slot = logSlot();
    std::lock_guard lock(slot.mutex);
    if (!log)
        log = std::make_shared<LinuxSystemLog>();
    auto previous = std::move(slot.log);
    slot.log = std::move(log);
    gLogRaw.store(slot.log.get(), std::memory_order_release);
    // The previous log is handed back (not destroyed here) so that a thread
    // still writing to it through systemLog() finishes safely; tests restore
    // it when they are done.
    return previous;
}

} // namespace tv::platform
