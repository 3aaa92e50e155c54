#include "platform/ipc/VynRuntime.h"

#include "base/IdleCaller.h"
#include "base/InternalInconsistency.h"
#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace tv::platform {

Result<std::shared_ptr<VynRuntime>> VynRuntime::start()
{
    int ep = ::epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0)
        return posixError(errno, "epoll_create1");
    int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        int e = errno;
        ::close(ep);
        return posixError(e, "eventfd");
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = wake;
    if (::epoll_ctl(ep, EPOLL_CTL_ADD, wake, &ev) != 0) {
        int e = errno;
        ::close(ep);
        ::close(wake);
        return posixError(e, "epoll_ctl");
    }
    std::shared_ptr<VynRuntime> rt(new VynRuntime(ep, wake));
    rt->thread_ = std::thread([raw = rt.get()] { raw->loop(); });
    return rt;
}

VynRuntime::VynRuntime(int epollFd, int wakeFd) : epollFd_(epollFd), wakeFd_(wakeFd) {}

VynRuntime::~VynRuntime()
{
    if (isCurrent()) {
        // Only reachable if the last reference is dropped by the loop itself,
        // which stop() prevents; never join the running thread.
        thread_.detach();
    } else {
        stop();
    }
    ::close(epollFd_);
    ::close(wakeFd_);
}

bool VynRuntime::post(Task task)
{
    {
        std::lock_guard lock(mutex_);
        if (stopping_)
            return false;
        posted_.push_back(std::move(task));
    }
    if (wakePending_.exchange(true))
        return true; // the loop has yet to take the tasks, this one among them
    std::uint64_t one = 1;
    ssize_t n;
    do
        n = ::write(wakeFd_, &one, sizeof one);
    while (n < 0 && errno == EINTR);
    return true;
}

bool VynRuntime::isCurrent() const
{
    return threadId_.load(std::memory_order_acquire) == std::this_thread::get_id();
}

void VynRuntime::stop()
{
    if (isCurrent())
        raiseInternalInconsistency("VynRuntime::stop() called on the runtime's own thread");
    {
        std::lock_guard lock(mutex_);
        if (stopping_ && !thread_.joinable())
            return;
        stopping_ = true;
    }
    std::uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
    if (thread_.joinable())
        thread_.join();
}

void VynRuntime::watch(int fd, std::uint32_t events, std::shared_ptr<Watcher> watcher)
{
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0)
        raiseInternalInconsistency("epoll_ctl(ADD) failed for descriptor " + std::to_string(fd) + ": " +
                                   *posixError(errno, "epoll").description);
    watchers_[fd] = std::move(watcher);
}

void VynRuntime::modify(int fd, std::uint32_t events)
{
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &ev) != 0)
        raiseInternalInconsistency("epoll_ctl(MOD) failed for descriptor " + std::to_string(fd));
}

void VynRuntime::unwatch(int fd)
{
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
    watchers_.erase(fd);
}

VynRuntime::TimerId VynRuntime::addTimer(Clock::time_point when, Task task)
{
    TimerId id = nextTimerId_++;
    timers_.emplace(std::make_pair(when, id), std::move(task));
    timerDeadlines_.emplace(id, when);
    return id;
}

void VynRuntime::cancelTimer(TimerId id)
{
    auto it = timerDeadlines_.find(id);
    if (it == timerDeadlines_.end())
        return;
    timers_.erase(std::make_pair(it->second, id));
    timerDeadlines_.erase(it);
}

int VynRuntime::nextTimeoutMs() const
{
    if (timers_.empty())
        return -1;
    auto delta = timers_.begin()->first.first - Clock::now();
    if (delta <= Clock::duration::zero())
        return 0;
    // Round up so that a timer never fires early.
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(delta).count();
    return ms > 60000 ? 60000 : static_cast<int>(ms);
}

void VynRuntime::runDueTimers()
{
    auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto node = timers_.extract(timers_.begin());
        timerDeadlines_.erase(node.key().second);
        node.mapped()();
    }
}

void VynRuntime::runPosted()
{
    std::uint64_t count;
    while (::read(wakeFd_, &count, sizeof count) > 0) {
    }
    wakePending_.store(false);
    std::deque<Task> batch;
    {
        std::lock_guard lock(mutex_);
        batch.swap(posted_);
    }
    for (auto& task : batch)
        task();
}

void VynRuntime::loop()
{
    threadId_.store(std::this_thread::get_id(), std::memory_order_release);
    std::vector<epoll_event> events(64);
    for (;;) {
        int n = ::epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), nextTimeoutMs());
        if (n < 0 && errno != EINTR)
            platformLog(LogLevel::Error, "vyn", "epoll_wait failed: %{public}s",
                        *posixError(errno, "epoll_wait").description);
        for (int i = 0; i < n; ++i) {
            int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd == wakeFd_) {
                runPosted();
                continue;
            }
            auto it = watchers_.find(fd);
            if (it == watchers_.end())
                continue; // unwatched by an earlier callback of this batch
            std::shared_ptr<Watcher> keep = it->second;
            // The last event of the batch, with no task posted meanwhile, is
            // all this thread has left before it waits again.
            IdleCaller::Scope idle(i + 1 == n && !wakePending_.load(std::memory_order_relaxed));
            keep->handleEvents(events[static_cast<std::size_t>(i)].events);
        }
        runDueTimers();

        bool stopping;
        {
            std::lock_guard lock(mutex_);
            stopping = stopping_;
        }
        if (stopping)
            break;
    }
    // Tasks posted before stop() still run; later ones were refused.
    runPosted();
    std::vector<std::shared_ptr<Watcher>> remaining;
    for (auto& [fd, w] : watchers_)
        remaining.push_back(w);
    for (auto& w : remaining)
        w->shutdown();
    watchers_.clear();
    timers_.clear();
    timerDeadlines_.clear();
    threadId_.store(std::thread::id(), std::memory_order_release);
}

} // namespace tv::platform
