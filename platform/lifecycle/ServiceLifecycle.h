// ServiceLifecycle: the process's life as a system service.
//
// It owns the process's main event loop. While it runs it reports
// readiness to the service manager, pings the service manager's watchdog
// from a task on the daemon's request queue (so that a request handler that
// hangs stops the pings and the manager restarts the daemon), ends a
// socket-activated process once it has been idle for the configured period
// (no connection, no keep-alive transaction, no queued work; the listening
// socket stays with the service manager, which starts the process again on
// the next connection), and ends the process cleanly on SIGTERM after
// telling every connection that termination is imminent. A process started
// by hand runs until it is signalled.
//
// Thread-safety: run() is called once, from the main thread; the other
// operations may be called from any thread.
#pragma once

namespace tv::platform {

class ServiceLifecycle {
public:
    virtual ~ServiceLifecycle() = default;

    // True when the process was started by socket activation (and so exits
    // when idle).
    virtual bool socketActivated() const = 0;

    // The main event loop. Returns only when the process should end, with
    // the status to exit with (0 after SIGTERM or SIGINT, and after an idle
    // period of a socket-activated process). The caller exits with it
    // without further work: the daemon's objects stay alive to the end.
    virtual int run() = 0;
};

} // namespace tv::platform
