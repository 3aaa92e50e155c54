#include "base/RoundRobinScheduler.h"

#include "base/DeferredFlush.h"
#include "base/IdleCaller.h"

#include <chrono>

namespace tv {

std::shared_ptr<RoundRobinScheduler> RoundRobinScheduler::create(std::shared_ptr<SerialQueue> queue)
{
    return std::shared_ptr<RoundRobinScheduler>(new RoundRobinScheduler(std::move(queue)));
}

void RoundRobinScheduler::submit(const void* owner, Step step)
{
    {
        std::lock_guard lock(mutex_);
        Owner& entry = entryFor(owner);
        entry.steps.push_back(std::move(step));
        ++pending_;
        if (entry.steps.size() != 1)
            return;
        const bool here = runsTurnsInline_.load(std::memory_order_relaxed) && IdleCaller::isIdle() && !turnQueued_ &&
                          ring_.empty() && !entry.held && !entry.running;
        if (!here) {
            makeReady(owner, entry);
            return;
        }
        ring_.push_back(owner);
        turnQueued_ = true;
    }
    // Outside the lock: the turn takes it. runOrAsync queues the turn when
    // the queue is busy with other work, or when this thread already runs it.
    queue_->runOrAsync([self = shared_from_this()] { self->turn(true); });
}

void RoundRobinScheduler::hold(const void* owner)
{
    std::lock_guard lock(mutex_);
    Owner& entry = entryFor(owner);
    if (entry.held)
        return;
    entry.held = true;
    std::erase(ring_, owner);
}

void RoundRobinScheduler::release(const void* owner)
{
    std::lock_guard lock(mutex_);
    auto it = owners_.find(owner);
    if (it == owners_.end() || !it->second.held)
        return;
    it->second.held = false;
    if (!it->second.steps.empty())
        makeReady(owner, it->second);
    forgetIfIdle(owner);
}

std::size_t RoundRobinScheduler::pending() const
{
    std::lock_guard lock(mutex_);
    return pending_;
}

void RoundRobinScheduler::makeReady(const void* owner, Owner& entry)
{
    if (entry.held || entry.running)
        return;
    ring_.push_back(owner);
    scheduleTurn();
}

void RoundRobinScheduler::scheduleTurn()
{
    if (turnQueued_ || ring_.empty())
        return;
    turnQueued_ = true;
    queue_->async([self = shared_from_this()] { self->turn(false); });
}

RoundRobinScheduler::Owner& RoundRobinScheduler::entryFor(const void* owner)
{
    if (auto it = owners_.find(owner); it != owners_.end())
        return it->second;
    if (spares_.empty())
        return owners_[owner];
    auto node = std::move(spares_.back());
    spares_.pop_back();
    node.key() = owner;
    return owners_.insert(std::move(node)).position->second;
}

void RoundRobinScheduler::forgetIfIdle(const void* owner)
{
    constexpr std::size_t kMaxSpares = 64;
    auto it = owners_.find(owner);
    if (it == owners_.end() || !it->second.steps.empty() || it->second.held || it->second.running)
        return;
    if (spares_.size() < kMaxSpares)
        spares_.push_back(owners_.extract(it));
    else
        owners_.erase(it);
}

void RoundRobinScheduler::turn(bool inlineTurn)
{
    // Puts the owner of a step that ran right; true when more owners wait.
    auto settle = [this](const void* owner, Step& step, bool finished) {
        std::lock_guard lock(mutex_);
        Owner& entry = owners_[owner];
        entry.running = false;
        if (finished)
            --pending_;
        else
            entry.steps.push_front(std::move(step));
        if (!entry.steps.empty())
            makeReady(owner, entry);
        forgetIfIdle(owner);
        return !ring_.empty();
    };
    // turnQueued_ stays set while this task runs: steps submitted meanwhile
    // are taken by it, or by the task it queues when it ends.
    // Running turns back to back saves a queue hand-off per step under load.
    const auto deadline = std::chrono::steady_clock::now() + batch();
    // Output the steps make (replies) is written when the task ends, one
    // write per destination for all its steps of the task.
    DeferredFlush::Scope outputRun;
    for (;;) {
        const void* owner;
        Step step;
        {
            std::lock_guard lock(mutex_);
            if (ring_.empty())
                break;
            owner = ring_.front();
            ring_.pop_front();
            Owner& entry = owners_[owner];
            step = std::move(entry.steps.front());
            entry.steps.pop_front();
            entry.running = true;
        }
        bool finished;
        try {
            finished = step();
        } catch (...) {
            // The step ends; the exception reaches the queue's handler, and
            // the other owners' turns go on in the next task.
            settle(owner, step, true);
            std::lock_guard lock(mutex_);
            turnQueued_ = false;
            scheduleTurn();
            throw;
        }
        if (finished)
            step = nullptr; // what the step holds goes before the next step
        // An inline turn gives the submitting thread back after its step.
        if (!settle(owner, step, finished) || inlineTurn || std::chrono::steady_clock::now() >= deadline)
            break;
    }
    std::lock_guard lock(mutex_);
    turnQueued_ = false;
    scheduleTurn();
}

} // namespace tv
