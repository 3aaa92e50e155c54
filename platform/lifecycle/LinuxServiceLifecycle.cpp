#include "platform/lifecycle/LinuxServiceLifecycle.h"

#include "base/InternalInconsistency.h"
#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <csignal>
#include <pthread.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <unistd.h>

namespace tv::platform {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long termination waits for queued work (the TerminationImminent
// handlers among it) before the process ends anyway.
constexpr milliseconds kTerminationDrain{2000};
constexpr milliseconds kIdleDrain{1000};
// How often idleness is sampled.
constexpr milliseconds kIdleTick{250};

int gSignalPipe = -1; // write end, used by the signal handler only

extern "C" void onTerminationSignal(int signal)
{
    int saved = errno;
    auto byte = static_cast<unsigned char>(signal);
    if (gSignalPipe >= 0)
        (void)!::write(gSignalPipe, &byte, 1);
    errno = saved;
}

// Installs the handlers for the lifetime of run() and restores the previous
// ones after.
class SignalCatcher {
public:
    SignalCatcher()
    {
        if (::pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0)
            raiseInternalInconsistency("cannot create the signal pipe: " + *posixError(errno, "pipe2").description);
        gSignalPipe = fds_[1];
        struct sigaction action{};
        action.sa_handler = onTerminationSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGTERM, &action, &previousTerm_);
        ::sigaction(SIGINT, &action, &previousInt_);
        // A process may block the two signals from its very start, so that
        // one arriving before the main loop runs waits for it instead of
        // ending the process; they are taken here, on the loop's thread.
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGTERM);
        sigaddset(&both, SIGINT);
        ::pthread_sigmask(SIG_UNBLOCK, &both, &previousMask_);
    }
    ~SignalCatcher()
    {
        ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
        ::sigaction(SIGTERM, &previousTerm_, nullptr);
        ::sigaction(SIGINT, &previousInt_, nullptr);
        gSignalPipe = -1;
        ::close(fds_[0]);
        ::close(fds_[1]);
    }
    int readFd() const { return fds_[0]; }
    // The signal that arrived, or 0.
    int take() const
    {
        unsigned char byte = 0;
        return ::read(fds_[0], &byte, 1) == 1 ? byte : 0;
    }

private:
    int fds_[2] = {-1, -1};
    struct sigaction previousTerm_{};
    struct sigaction previousInt_{};
    sigset_t previousMask_{};
};

} // namespace

ServiceManagerEnvironment ServiceManagerEnvironment::fromProcess()
{
    ServiceManagerEnvironment env;
    if (const char* socket = std::getenv("NOTIFY_SOCKET"))
        env.notifySocket = socket;
    const char* usec = std::getenv("WATCHDOG_USEC");
    const char* pid = std::getenv("WATCHDOG_PID");
    std::uint64_t interval = 0;
    long watchdogPid = 0;
    bool forUs = !pid || (std::from_chars(pid, pid + std::strlen(pid), watchdogPid).ec == std::errc() &&
                          watchdogPid == ::getpid());
    if (usec && forUs && std::from_chars(usec, usec + std::strlen(usec), interval).ec == std::errc())
        env.watchdogInterval = std::chrono::microseconds(interval);
    return env;
}

LinuxServiceLifecycle::LinuxServiceLifecycle(const PlatformConfig& config, std::shared_ptr<LinuxVynService> vyn,
                                             std::shared_ptr<SerialQueue> requestQueue,
                                             std::vector<std::shared_ptr<SerialQueue>> otherQueues,
                                             ServiceManagerEnvironment environment)
    : idleExitSeconds_(config.idleExitSeconds),
      vyn_(std::move(vyn)),
      requestQueue_(std::move(requestQueue)),
      environment_(std::move(environment)),
      notifier_(environment_.notifySocket),
      watchdog_(std::make_shared<Watchdog>(environment_.notifySocket))
{
    queues_.push_back(requestQueue_);
    for (auto& q : otherQueues)
        if (q)
            queues_.push_back(std::move(q));
}

void LinuxServiceLifecycle::notify(std::string_view state) const
{
    if (auto err = notifier_.notify(state))
        platformLog(LogLevel::Error, "vyn", "cannot notify the service manager: %{public}s",
                    err->localizedDescription());
}

void LinuxServiceLifecycle::pingWatchdog()
{
    // One ping at a time: while the queue is stuck, pings do not pile up.
    if (watchdog_->pingQueued.exchange(true))
        return;
    requestQueue_->async([watchdog = watchdog_] {
        watchdog->notifier.notify("WATCHDOG=1");
        watchdog->pingQueued = false;
    });
}

bool LinuxServiceLifecycle::busy() const
{
    if (vyn_->connectionCount() > 0 || vyn_->openTransactions() > 0)
        return true;
    return std::any_of(queues_.begin(), queues_.end(), [](const auto& q) { return q->pending() > 0; });
}

bool LinuxServiceLifecycle::drainQueues(milliseconds timeout) const
{
    struct Countdown {
        std::mutex mutex;
        std::condition_variable cv;
        std::size_t left;
    };
    auto countdown = std::make_shared<Countdown>();
    countdown->left = queues_.size();
    for (const auto& q : queues_)
        q->async([countdown] {
            std::lock_guard lock(countdown->mutex);
            if (--countdown->left == 0)
                countdown->cv.notify_all();
        });
    std::unique_lock lock(countdown->mutex);
    return countdown->cv.wait_for(lock, timeout, [&] { return countdown->left == 0; });
}

bool LinuxServiceLifecycle::confirmIdle()
{
    // Connections arriving from now on wait in the listening socket for the
    // next instance of the service.
    vyn_->setAccepting(false);
    if (drainQueues(kIdleDrain) && !busy())
        return true;
    vyn_->setAccepting(true);
    return false;
}

int LinuxServiceLifecycle::run()
{
    SignalCatcher signals;
    notify("READY=1");
    bool activated = socketActivated();
    platformLog(LogLevel::Info, "vyn", "service running (%{public}s)",
                activated ? "socket-activated" : "started by hand");

    const auto pingEvery = std::chrono::duration_cast<milliseconds>(environment_.watchdogInterval / 2);
    const bool watchdog = pingEvery.count() > 0 && notifier_.enabled();
    const bool idleExit = activated && idleExitSeconds_ > 0;
    const auto idlePeriod = std::chrono::seconds(idleExitSeconds_);

    auto nextPing = Clock::now();
    auto idleSince = Clock::now();
    for (;;) {
        auto now = Clock::now();
        if (watchdog && now >= nextPing) {
            pingWatchdog();
            nextPing = now + pingEvery;
        }
        if (idleExit) {
            if (busy()) {
                idleSince = now;
            } else if (now - idleSince >= idlePeriod) {
                if (confirmIdle()) {
                    platformLog(LogLevel::Default, "vyn", "exiting after %u seconds idle", idleExitSeconds_);
                    notify("STOPPING=1");
                    return 0;
                }
                idleSince = Clock::now();
            }
        }

        milliseconds wait = milliseconds::max();
        if (watchdog)
            wait = std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(nextPing - Clock::now()));
        if (idleExit)
            wait = std::min(wait, kIdleTick);
        pollfd p{signals.readFd(), POLLIN, 0};
        int timeout = wait == milliseconds::max() ? -1 : static_cast<int>(wait.count());
        if (::poll(&p, 1, timeout) > 0) {
            if (int signal = signals.take()) {
                platformLog(LogLevel::Default, "vyn", "terminating on signal %d", signal);
                notify("STOPPING=1");
                vyn_->setAccepting(false);
                vyn_->announceTermination();
                drainQueues(kTerminationDrain);
                return 0;
            }
        }
    }
}

} // namespace tv::platform
