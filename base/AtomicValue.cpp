#include "base/AtomicValue.h"

#include <thread>

namespace tv {

void AtomicValue::lock() const
{
    // The critical sections are a handful of instructions, so contention is
    // brief; yielding keeps a preempted holder from being starved.
    while (busy_.test_and_set(std::memory_order_acquire)) {
        while (busy_.test(std::memory_order_relaxed))
            std::this_thread::yield();
    }
}

Value AtomicValue::load() const
{
    lock();
    Value copy = value_;
    unlock();
    return copy;
}

void AtomicValue::store(Value value)
{
    lock();
    std::swap(value_, value);
    unlock();
    // `value` now holds the previous contents and is released here.
}

} // namespace tv
