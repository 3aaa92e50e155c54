#include "tests/support/LogCapture.h"

#include <algorithm>

namespace tv::test {

class LogCapture::Sink final : public platform::SystemLog {
public:
    Sink(platform::LogLevel threshold, bool redact) : threshold(threshold), redact(redact) {}
    bool enabled(platform::LogLevel level) const override { return level <= threshold; }
    bool redactsPrivate() const override { return redact; }
    void write(const platform::LogRecord& r) override
    {
        std::lock_guard lock(mutex);
        lines.push_back({r.level, std::string(r.subsystem), std::string(r.category), std::string(r.message)});
    }
    const platform::LogLevel threshold;
    const bool redact;
    mutable std::mutex mutex;
    std::vector<CapturedLine> lines;
};

LogCapture::LogCapture(platform::LogLevel threshold, bool redact) : sink_(std::make_shared<Sink>(threshold, redact))
{
    previous_ = platform::setSystemLog(sink_);
}

LogCapture::~LogCapture()
{
    platform::setSystemLog(previous_);
}

std::vector<CapturedLine> LogCapture::lines() const
{
    std::lock_guard lock(sink_->mutex);
    return sink_->lines;
}

std::size_t LogCapture::count(const std::string& message) const
{
    auto all = lines();
    return std::count_if(all.begin(), all.end(), [&](const CapturedLine& l) { return l.message == message; });
}

std::size_t LogCapture::countContaining(const std::string& fragment) const
{
    auto all = lines();
    return std::count_if(all.begin(), all.end(), [&](const CapturedLine& l) { return l.message.find(fragment) != std::string::npos; });
}

std::unique_ptr<CapturedLine> LogCapture::find(const std::string& message) const
{
    for (const auto& l : lines())
        if (l.message == message)
            return std::make_unique<CapturedLine>(l);
    return nullptr;
}

void LogCapture::clear()
{
    std::lock_guard lock(sink_->mutex);
    sink_->lines.clear();
}

} // namespace tv::test
