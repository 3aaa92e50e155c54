// DeferredFlush: lets a thread that makes output for many destinations in a
// row (the request scheduler's turns) write each destination once, when the
// run ends, instead of once per piece of output.
//
// A Scope opens a run on the calling thread; scopes nest, and the outermost
// one ends the run. While a run is open, a destination that queued output
// registers itself with defer() and is flushed when the run ends (or at
// flushNow()). Without an open run defer() refuses, and the caller writes at
// once. Runs are per thread: nothing here is shared between threads.
#pragma once

#include <memory>

namespace tv {

class DeferredFlush {
public:
    class Target {
    public:
        virtual ~Target() = default;
        // Writes what was queued while the run was open. Must not throw.
        virtual void flushDeferred() = 0;
    };

    class Scope {
    public:
        Scope();
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
    };

    // True while a run is open on the calling thread.
    static bool active();
    // Keeps `target` to be flushed at the end of the open run; false (nothing
    // kept) when no run is open. The caller registers a target once per run.
    static bool defer(std::shared_ptr<Target> target);
    // Flushes every target kept so far; the run stays open.
    static void flushNow();
};

} // namespace tv
