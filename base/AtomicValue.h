// AtomicValue: one Value slot that any number of threads may read and
// replace at once.
//
// A reader always gets a whole value, either the one before or the one after
// a concurrent store, never a torn one. Copying a Value out costs one
// reference-count increment, so the slot is guarded by a one-byte spin lock
// held only for that copy; the value a store replaces is released after the
// lock is dropped, so a large dictionary is never destroyed while others wait.
//
// Read-modify-write sequences (load, derive, store) are not atomic as a
// whole: two writers deriving from the same old value may lose one update.
// The objects that use this are changed by their owner and read by everyone.
#pragma once

#include "base/Value.h"

#include <atomic>

namespace tv {

class AtomicValue {
public:
    AtomicValue() = default;
    explicit AtomicValue(Value value) : value_(std::move(value)) {}
    AtomicValue(const AtomicValue&) = delete;
    AtomicValue& operator=(const AtomicValue&) = delete;

    Value load() const;
    void store(Value value);

private:
    void lock() const;
    void unlock() const { busy_.clear(std::memory_order_release); }

    mutable std::atomic_flag busy_; // clear on construction (C++20)
    Value value_;
};

} // namespace tv
