// SerialQueue: a serial task queue. Tasks submitted to one queue run one at a
// time, in submission order; objects confined to a queue need no locks.
//
// Two modes:
//  - threaded (create): the queue owns one worker thread that runs tasks as
//    they arrive. The thread is started on first use and, when the queue is
//    destroyed, finishes the tasks already submitted before it is joined.
//  - manual (createManual, for tests): tasks wait until a test drains them
//    with runUntilIdle() on its own thread, so queue-driven code runs
//    deterministically.
//
// sync() from a task already running on the same queue would deadlock; it is
// caught instead and raised as an internal-consistency failure. Code that
// must run on a queue checks it with assertCurrent(), which raises the same
// failure when called elsewhere.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace tv {

class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
public:
    using Task = std::function<void()>;

    // Quality-of-service classes of the platform (recorded; the worker thread
    // of a user-initiated queue gets a higher scheduling weight where the
    // process may set one).
    enum class QoS : int { Default = 21, UserInitiated = 25, Utility = 17, Background = 9 };

    static std::shared_ptr<SerialQueue> create(std::string label, QoS qos = QoS::Default);
    static std::shared_ptr<SerialQueue> createManual(std::string label);

    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }
    QoS qos() const { return qos_; }

    // Schedules the task and returns at once.
    void async(Task task);

    // Runs the task at once on the calling thread, as a task of this queue,
    // when the queue is idle (nothing queued, nothing running); otherwise
    // like async(). Saves the thread hand-off for cheap tasks submitted from
    // a thread that may run them (the IPC thread). Order and mutual
    // exclusion are those of async(). A manual queue always queues.
    void runOrAsync(Task task);

    // Runs the task on the queue and returns when it has run. An exception
    // thrown by the task is rethrown here.
    // REQUIRES: not called from a task of this queue (raised otherwise).
    void sync(const Task& task);

    // True while the calling thread runs a task of this queue.
    bool isCurrent() const;

    // Raises an internal-consistency failure naming `what` unless isCurrent().
    void assertCurrent(const char* what) const;

    // The queue whose task the calling thread is running, or null.
    static SerialQueue* current();

    // Manual mode: runs queued tasks (including those they submit) until none
    // is left; returns how many ran. REQUIRES: manual queue.
    std::size_t runUntilIdle();
    // Manual mode: runs the oldest queued task, if any; true when one ran.
    bool runOne();

    // Number of tasks submitted but not yet started.
    std::size_t pending() const;

    // Called with the queue's label when a task ends with an exception (the
    // task is then done; the queue goes on). Process-wide; without one the
    // exception is written to standard error.
    using UncaughtExceptionHandler = std::function<void(const std::string& label, const std::exception& e)>;
    static void setUncaughtExceptionHandler(UncaughtExceptionHandler handler);
    static UncaughtExceptionHandler uncaughtExceptionHandler();

private:
    SerialQueue(std::string label, QoS qos, bool manual);
    void workerLoop();
    void startWorkerLocked();
    void runTask(Task& task);

    const std::string label_;
    const QoS qos_;
    const bool manual_;

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Task> tasks_;
    bool stopping_ = false;
    bool running_ = false; // a task runs, on the worker or inline
    bool threadStarted_ = false;
    std::thread thread_;
    // Held while a task runs, so that sync() on a manual queue from another
    // thread cannot interleave with runUntilIdle().
    std::recursive_mutex runMutex_;
};

} // namespace tv
