#include "base/SerialQueue.h"

#include "base/InternalInconsistency.h"

#include <cstdio>
#include <exception>
#include <future>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tv {

namespace {
thread_local SerialQueue* tCurrentQueue = nullptr;
// Set on a worker thread whose queue was destroyed by that thread itself.
thread_local bool tQueueReleasedByOwnWorker = false;

struct CurrentQueueScope {
    explicit CurrentQueueScope(SerialQueue* q) : saved(tCurrentQueue) { tCurrentQueue = q; }
    ~CurrentQueueScope() { tCurrentQueue = saved; }
    SerialQueue* saved;
};
} // namespace

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label, QoS qos)
{
    return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label), qos, false));
}

std::shared_ptr<SerialQueue> SerialQueue::createManual(std::string label)
{
    return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label), QoS::Default, true));
}

SerialQueue::SerialQueue(std::string label, QoS qos, bool manual) : label_(std::move(label)), qos_(qos), manual_(manual)
{}

SerialQueue::~SerialQueue()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            // The last reference was dropped by one of our own tasks: the
            // worker must not touch this queue again.
            tQueueReleasedByOwnWorker = true;
            thread_.detach();
        } else
            thread_.join();
    }
}

void SerialQueue::async(Task task)
{
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        startWorkerLocked();
    }
    cv_.notify_one();
}

void SerialQueue::runOrAsync(Task task)
{
    bool here = false;
    {
        std::lock_guard lock(mutex_);
        if (!manual_ && !running_ && tasks_.empty() && !stopping_ && !isCurrent()) {
            running_ = true;
            here = true;
        } else {
            tasks_.push_back(std::move(task));
            startWorkerLocked();
        }
    }
    if (!here) {
        cv_.notify_one();
        return;
    }
    // The task may drop the last outside reference to this queue.
    std::shared_ptr<SerialQueue> keep = weak_from_this().lock();
    runTask(task);
    task = nullptr; // what it captured goes before the next task starts
    bool more;
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        more = !tasks_.empty();
    }
    if (more)
        cv_.notify_one();
}

void SerialQueue::startWorkerLocked()
{
    if (!manual_ && !threadStarted_) {
        threadStarted_ = true;
        thread_ = std::thread([this] { workerLoop(); });
    }
}

void SerialQueue::runTask(Task& task)
{
    std::lock_guard run(runMutex_);
    CurrentQueueScope scope(this);
    try {
        task();
    } catch (const std::exception& e) {
        // A task that throws must not take the worker thread (and with it
        // the process) down; the boundaries that care catch earlier.
        auto handler = uncaughtExceptionHandler();
        if (handler)
            handler(label_, e);
        else
            std::fprintf(stderr, "tvd: uncaught exception on queue %s: %s\n", label_.c_str(), e.what());
    }
}

namespace {
// Queue threads may still run while the process exits, so what they reach
// through globals is never destroyed.
struct HandlerSlot {
    std::mutex mutex;
    SerialQueue::UncaughtExceptionHandler handler;
};

HandlerSlot& handlerSlot()
{
    static HandlerSlot& slot = *new HandlerSlot;
    return slot;
}
} // namespace

void SerialQueue::setUncaughtExceptionHandler(UncaughtExceptionHandler handler)
{
    HandlerSlot& slot = handlerSlot();
    std::lock_guard lock(slot.mutex);
    slot.handler = std::move(handler);
}

SerialQueue::UncaughtExceptionHandler SerialQueue::uncaughtExceptionHandler()
{
    HandlerSlot& slot = handlerSlot();
    std::lock_guard lock(slot.mutex);
    return slot.handler;
}

void SerialQueue::workerLoop()
{
    if (qos_ == QoS::UserInitiated)
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), -2); // best effort; may lack privilege
    for (;;) {
        Task task;
        {
            std::unique_lock lock(mutex_);
            // A task run inline by another thread excludes the worker.
            cv_.wait(lock, [this] { return !running_ && (stopping_ || !tasks_.empty()); });
            if (tasks_.empty())
                return; // stopping and drained
            task = std::move(tasks_.front());
            tasks_.pop_front();
            running_ = true;
        }
        // A task (or what it captured) may hold the last reference to this
        // queue. Keep the queue alive until the task is gone, so that the
        // destructor can only run below, where the worker leaves at once.
        std::shared_ptr<SerialQueue> keep = weak_from_this().lock();
        runTask(task);
        task = nullptr;
        {
            std::lock_guard lock(mutex_);
            running_ = false;
        }
        keep.reset();
        if (tQueueReleasedByOwnWorker)
            return;
    }
}

void SerialQueue::sync(const Task& task)
{
    if (isCurrent())
        raiseInternalInconsistency("sync onto queue \"" + label_ + "\" from a task already running on it");
    if (manual_) {
        std::lock_guard run(runMutex_);
        CurrentQueueScope scope(this);
        task();
        return;
    }
    bool here = false;
    {
        std::lock_guard lock(mutex_);
        if (!running_ && tasks_.empty() && !stopping_) {
            running_ = true;
            here = true;
        }
    }
    if (here) {
        // Idle: the task runs on this thread as a task of the queue, as
        // runOrAsync() does (the worker waits while running_ is set), which
        // saves the hand-off to the worker and back. Its exception reaches
        // the caller as it would below.
        std::shared_ptr<SerialQueue> keep = weak_from_this().lock();
        struct Release {
            SerialQueue* queue;
            ~Release()
            {
                bool more;
                {
                    std::lock_guard lock(queue->mutex_);
                    queue->running_ = false;
                    more = !queue->tasks_.empty();
                }
                if (more)
                    queue->cv_.notify_one();
            }
        } release{this};
        std::lock_guard run(runMutex_);
        CurrentQueueScope scope(this);
        task();
        return;
    }
    std::promise<void> done;
    auto future = done.get_future();
    async([&] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    future.get();
}

bool SerialQueue::isCurrent() const
{
    return tCurrentQueue == this;
}

void SerialQueue::assertCurrent(const char* what) const
{
    if (!isCurrent())
        raiseInternalInconsistency(std::string(what) + " must run on queue \"" + label_ + "\"");
}

SerialQueue* SerialQueue::current()
{
    return tCurrentQueue;
}

std::size_t SerialQueue::runUntilIdle()
{
    if (!manual_)
        raiseInternalInconsistency("runUntilIdle on threaded queue \"" + label_ + "\"");
    std::size_t ran = 0;
    for (;;) {
        Task task;
        {
            std::lock_guard lock(mutex_);
            if (tasks_.empty())
                return ran;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        runTask(task);
        ++ran;
    }
}

bool SerialQueue::runOne()
{
    if (!manual_)
        raiseInternalInconsistency("runOne on threaded queue \"" + label_ + "\"");
    Task task;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty())
            return false;
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    runTask(task);
    return true;
}

std::size_t SerialQueue::pending() const
{
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

} // namespace tv
