// VynRuntime: the IPC transport's I/O thread. One epoll loop serves every
// socket of a VynService: listeners, accepted connections and client
// connections. Sockets are watched by Watcher objects; a one-shot timer
// facility serves per-connection deadlines.
//
// Confinement: watch/unwatch and the timer operations must be called on the
// runtime's thread (from a watcher's callback, a timer or a posted task);
// post(), stop() and modify() (of a watched descriptor) may be called from
// any thread.
//
// Ownership: the runtime holds a strong reference to every watcher until it
// is unwatched, so a watched connection lives at least as long as its
// socket is open. A watcher may unwatch itself from its own callback.
//
// Stopping runs the tasks already posted, then asks every watcher to shut
// down (shutdown()), then ends the thread. Tasks posted after that are
// refused (post() returns false) so that callers can fail them themselves.
#pragma once

#include "base/Result.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace tv::platform {

class VynRuntime {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using TimerId = std::uint64_t;

    class Watcher {
    public:
        virtual ~Watcher() = default;
        // Readiness of the watched descriptor (EPOLL* bits).
        virtual void handleEvents(std::uint32_t events) = 0;
        // The runtime is stopping: close the descriptor and tell users.
        virtual void shutdown() = 0;
    };

    // Starts the thread. Fails only when the kernel refuses an epoll or
    // eventfd descriptor.
    static Result<std::shared_ptr<VynRuntime>> start();
    ~VynRuntime();
    VynRuntime(const VynRuntime&) = delete;
    VynRuntime& operator=(const VynRuntime&) = delete;

    // Runs `task` on the runtime's thread. False (task dropped unrun) once
    // the runtime is stopping.
    bool post(Task task);
    bool isCurrent() const;
    // Idempotent. REQUIRES: not called on the runtime's thread.
    void stop();

    // Any thread, while `fd` is watched.
    void modify(int fd, std::uint32_t events);
    // Runtime's thread only.
    void watch(int fd, std::uint32_t events, std::shared_ptr<Watcher> watcher);
    void unwatch(int fd);
    TimerId addTimer(Clock::time_point when, Task task);
    void cancelTimer(TimerId id);

private:
    VynRuntime(int epollFd, int wakeFd);
    void loop();
    void runPosted();
    int nextTimeoutMs() const;
    void runDueTimers();

    const int epollFd_;
    const int wakeFd_;
    std::thread thread_;
    std::atomic<std::thread::id> threadId_{};

    std::mutex mutex_;
    std::deque<Task> posted_;
    bool stopping_ = false;
    // Set by the post that wrote the wake-up, cleared by the loop before it
    // takes the posted tasks: later posts until then need no system call.
    std::atomic<bool> wakePending_{false};

    // Runtime's thread only.
    std::unordered_map<int, std::shared_ptr<Watcher>> watchers_;
    std::map<std::pair<Clock::time_point, TimerId>, Task> timers_;
    std::unordered_map<TimerId, Clock::time_point> timerDeadlines_;
    TimerId nextTimerId_ = 1;
};

} // namespace tv::platform
