#include "Tarvik/TvLog.h"

#include "base/SerialQueue.h"

#include <array>
#include <memory>
#include <mutex>

namespace tv {

namespace {

struct Categories {
    std::array<std::unique_ptr<TvLog>, 4> handles;
};

// A handle can only fail to be made for a nameless category; the check keeps
// the fallback to the default log that callers rely on.
std::unique_ptr<TvLog> createHandle(const char* category)
{
    if (!category || !*category)
        return nullptr;
    return std::make_unique<TvLog>(kTarvikLogSubsystem, category);
}

const Categories& categories()
{
    // Never destroyed: queue threads may still log while the process exits.
    static std::once_flag once;
    static Categories& cats = *new Categories;
    std::call_once(once, [] {
        const char* names[] = {"ops", "traffic", "extension", "rs"};
        for (std::size_t i = 0; i < 4; ++i) {
            cats.handles[i] = createHandle(names[i]);
            if (!cats.handles[i]) {
                TvLog::defaultLog().error("unable to create skrib for category %s", names[i]);
                cats.handles[i] = std::make_unique<TvLog>("", "");
            }
        }
    });
    return cats;
}

} // namespace

const TvLog& TvLog::ops() { return *categories().handles[0]; }
const TvLog& TvLog::traffic() { return *categories().handles[1]; }
const TvLog& TvLog::extension() { return *categories().handles[2]; }
const TvLog& TvLog::rs() { return *categories().handles[3]; }

const TvLog& TvLog::defaultLog()
{
    static const TvLog& log = *new TvLog("", "");
    return log;
}

void TvLog::logUncaughtQueueExceptions()
{
    SerialQueue::setUncaughtExceptionHandler([](const std::string& label, const std::exception& e) {
        TvLog::ops().error("task on queue %{public}s ended with an exception: %{public}s", label, e.what());
    });
}

void TvLog::emit(platform::SystemLog& sink, LogLevel level, const std::string& message) const
{
    sink.write(platform::LogRecord{level, subsystem_, category_, message});
}

} // namespace tv
