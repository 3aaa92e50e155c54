#include "platform/registry/RegistryWatcher.h"

#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <set>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tv::platform {
namespace {

// Added to the niceness of the watcher's thread.
constexpr int kNiceness = 10;

constexpr std::uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

} // namespace

Result<std::unique_ptr<RegistryWatcher>> RegistryWatcher::start(std::chrono::milliseconds settle,
                                                                Directories directories, std::function<void()> changed,
                                                                bool reportAtStart)
{
    const int inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd < 0)
        return posixError(errno, "inotify_init1");
    const int stopFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (stopFd < 0) {
        TvError error = posixError(errno, "eventfd");
        ::close(inotifyFd);
        return error;
    }
    std::unique_ptr<RegistryWatcher> watcher(
        new RegistryWatcher(inotifyFd, stopFd, settle, std::move(directories), std::move(changed)));
    // A watcher that reports at once sets its watches on its own thread: the
    // report's scan, made after them, sees anything that changed before.
    if (!reportAtStart)
        watcher->refreshWatches();
    watcher->thread_ = std::thread([w = watcher.get(), reportAtStart] { w->run(reportAtStart); });
    return watcher;
}

RegistryWatcher::RegistryWatcher(int inotifyFd, int stopFd, std::chrono::milliseconds settle, Directories directories,
                                 std::function<void()> changed)
    : inotifyFd_(inotifyFd),
      stopFd_(stopFd),
      settle_(settle),
      directories_(std::move(directories)),
      changed_(std::move(changed))
{
}

RegistryWatcher::~RegistryWatcher()
{
    const std::uint64_t one = 1;
    if (::write(stopFd_, &one, sizeof one) < 0)
        platformLog(LogLevel::Error, "registry", "cannot stop the registry watcher: %{public}s",
                    posixError(errno, "write").localizedDescription());
    if (thread_.joinable())
        thread_.join();
    ::close(inotifyFd_);
    ::close(stopFd_);
}

void RegistryWatcher::refreshWatches()
{
    std::set<std::string> wanted;
    for (std::string& dir : directories_())
        wanted.insert(std::move(dir));
    for (auto it = watches_.begin(); it != watches_.end();) {
        if (!wanted.count(it->first)) {
            ::inotify_rm_watch(inotifyFd_, it->second);
            it = watches_.erase(it);
        } else {
            ++it;
        }
    }
    for (const std::string& dir : wanted) {
        // Adding a watch that exists again is harmless and also picks up a
        // directory that was replaced by a new one at the same path.
        const int wd = ::inotify_add_watch(inotifyFd_, dir.c_str(), kWatchMask);
        if (wd >= 0)
            watches_[dir] = wd;
        else
            watches_.erase(dir);
    }
}

bool RegistryWatcher::drainEvents()
{
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(inotifyFd_, buffer, sizeof buffer);
        if (n > 0)
            continue;
        if (n < 0 && errno == EINTR)
            continue;
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

void RegistryWatcher::run(bool reportAtStart)
{
    using Clock = std::chrono::steady_clock;
    // Scans are background work: at start in particular, the first one
    // (reading every bundle) must not take the processor from the requests
    // that a daemon started on demand is there to answer. Only this thread
    // is lowered; a failure leaves it as it is.
    const auto self = static_cast<id_t>(::gettid());
    errno = 0;
    const int niceness = ::getpriority(PRIO_PROCESS, self);
    if (errno == 0 && niceness < 19 && ::setpriority(PRIO_PROCESS, self, std::min(19, niceness + kNiceness)) != 0)
        platformLog(LogLevel::Info, "registry", "cannot lower the registry watcher's priority: %{public}s",
                    posixError(errno, "setpriority").localizedDescription());
    if (reportAtStart)
        refreshWatches();
    bool pending = reportAtStart;
    Clock::time_point deadline = Clock::now();
    for (;;) {
        int timeout = -1;
        if (pending) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            timeout = static_cast<int>(std::max<long long>(0, left));
        }
        pollfd fds[2] = {{stopFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, timeout);
        if (ready < 0 && errno != EINTR) {
            platformLog(LogLevel::Error, "registry", "registry watcher stops: %{public}s",
                        posixError(errno, "poll").localizedDescription());
            return;
        }
        if (fds[0].revents)
            return;
        if (fds[1].revents) {
            if (!drainEvents()) {
                platformLog(LogLevel::Error, "registry", "registry watcher stops: %{public}s",
                            posixError(errno, "read inotify").localizedDescription());
                return;
            }
            pending = true;
            deadline = Clock::now() + settle_;
            continue;
        }
        if (pending && Clock::now() >= deadline) {
            pending = false;
            changed_();
            refreshWatches();
        }
    }
}

} // namespace tv::platform
