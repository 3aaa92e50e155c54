// RoundRobinScheduler: serves the work of many owners (one per client
// connection) on one serial queue, in turns.
//
// Each owner's steps run in the order they were submitted, one at a time on
// the target queue; owners take turns: after one step of an owner the next
// owner with work is served, so an owner with a hundred queued steps delays
// another's single step by at most one step per owner ahead of it. A step
// that returns false has yielded: it runs again on its owner's next turn,
// before the owner's later steps.
//
// Turns run back to back in one task on the target queue for up to the
// batch time (0.5 ms unless set), then the task ends and queues the next, so
// other tasks submitted there (a watchdog ping, a completion) wait for at
// most that plus one step. At most one turn task is queued at a time.
//
// An owner can be held: its steps wait (they are kept in order) until it is
// released. The daemon holds a client until it has been identified.
//
// With inline turns on, a step submitted while the target queue is idle and
// no other owner waits, by a thread marked idle (IdleCaller: the daemon's I/O
// thread at the last event of its batch), runs at once on that thread, as a
// task of the queue (SerialQueue::runOrAsync): one step, after which other
// owners' steps are served by a queued task as usual. This saves waking the
// queue's thread for a request that arrives alone; under load the submitter
// is busy or a turn task is already queued, and the queue's thread serves
// beside it as before.
//
// Owners are identified by address; the steps are expected to keep their
// owner alive. Thread-safety: every operation may be called from any thread.
#pragma once

#include "base/SerialQueue.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace tv {

class RoundRobinScheduler : public std::enable_shared_from_this<RoundRobinScheduler> {
public:
    // Returns true when the step is finished, false when it yielded.
    using Step = std::function<bool()>;

    static std::shared_ptr<RoundRobinScheduler> create(std::shared_ptr<SerialQueue> queue);

    const std::shared_ptr<SerialQueue>& queue() const { return queue_; }

    // How long turns may run back to back in one task; zero makes every turn
    // its own task (tests step through turns one by one).
    std::chrono::microseconds batch() const { return std::chrono::microseconds(batch_.load()); }
    void setBatch(std::chrono::microseconds batch) { batch_.store(batch.count()); }

    // Whether submit() may run a step on the calling thread (above). Off
    // unless set.
    bool runsTurnsInline() const { return runsTurnsInline_.load(); }
    void setRunsTurnsInline(bool on) { runsTurnsInline_.store(on); }

    // Appends `step` to the owner's steps.
    void submit(const void* owner, Step step);
    // The owner's steps wait until release(). Holds do not nest.
    void hold(const void* owner);
    void release(const void* owner);

    // Steps submitted and not yet finished, over all owners.
    std::size_t pending() const;

private:
    explicit RoundRobinScheduler(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

    struct Owner {
        std::deque<Step> steps;
        bool held = false;
        bool running = false; // its front step is out, running
    };

    // Called with mutex_ held.
    void makeReady(const void* owner, Owner& entry);
    void scheduleTurn();
    void forgetIfIdle(const void* owner);
    // Runs turns: the front step of the next owner in the ring, and so on,
    // for up to the batch time; an inline turn runs one step.
    void turn(bool inlineTurn);

    // The owner's entry, made (or taken from the spares) when missing.
    Owner& entryFor(const void* owner);

    const std::shared_ptr<SerialQueue> queue_;
    mutable std::mutex mutex_;
    std::unordered_map<const void*, Owner> owners_;
    // Entries of owners gone idle, kept with their storage: an owner with
    // one request at a time comes and goes with each request, and reusing
    // its entry saves the allocations (freed on another thread) each time.
    std::vector<std::unordered_map<const void*, Owner>::node_type> spares_;
    std::deque<const void*> ring_; // owners with work, not held, not running
    std::size_t pending_ = 0;
    bool turnQueued_ = false;
    std::atomic<std::int64_t> batch_{500};
    std::atomic<bool> runsTurnsInline_{false};
};

} // namespace tv
