// IdleCaller: whether what the calling thread does now is the last thing it
// has to do before it would wait for more work. An event loop marks the last
// event of a batch so. Work handed over from there may then run on this
// thread instead of waking another one (RoundRobinScheduler's inline turns):
// the thread would sit idle meanwhile anyway, and the wake-up is a thread
// switch on the request's path. Work handed over from a busy loop still goes
// to the other thread, so that the two run side by side under load.
//
// A Scope marks the calling thread idle or busy until it ends; scopes nest
// and the innermost counts. A thread without a scope is busy. State is per
// thread: nothing here is shared between threads.
#pragma once

namespace tv {

class IdleCaller {
public:
    class Scope {
    public:
        explicit Scope(bool idle);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        bool saved_;
    };

    // True inside a Scope that marked the calling thread idle.
    static bool isIdle();
};

} // namespace tv
