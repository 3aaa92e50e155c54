// LogCapture: an in-process system log for tests. While one is alive, every
// line of the process up to `threshold` (all levels, unredacted, unless told
// otherwise) is recorded instead of being written out; the previous log is
// restored on destruction.
#pragma once

#include "platform/log/SystemLog.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tv::test {

struct CapturedLine {
    platform::LogLevel level;
    std::string subsystem;
    std::string category;
    std::string message;
};

class LogCapture {
public:
    explicit LogCapture(platform::LogLevel threshold = platform::LogLevel::Debug, bool redact = false);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> lines() const;
    // Number of lines whose message equals `message` exactly.
    std::size_t count(const std::string& message) const;
    // Number of lines whose message contains `fragment`.
    std::size_t countContaining(const std::string& fragment) const;
    bool contains(const std::string& message) const { return count(message) > 0; }
    // The first line whose message equals `message`, or null.
    std::unique_ptr<CapturedLine> find(const std::string& message) const;
    void clear();

private:
    class Sink;
    std::shared_ptr<Sink> sink_;
    std::shared_ptr<platform::SystemLog> previous_;
};

} // namespace tv::test
