// LinuxServiceLifecycle: the service lifecycle under a Linux service
// manager, speaking its notification protocol (NOTIFY_SOCKET, WATCHDOG_USEC)
// directly. Socket activation itself is the IPC service's (LinuxVynService);
// this class asks it whether the process was activated, how many
// connections and keep-alive transactions are open, and has it announce
// termination.
//
// Signals: run() catches SIGTERM and SIGINT for its duration through a
// self-pipe, so that the signal may arrive on any thread.
#pragma once

#include "platform/ipc/LinuxVynService.h"
#include "platform/lifecycle/ServiceLifecycle.h"
#include "platform/lifecycle/ServiceNotifier.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tv::platform {

// What the service manager told the process through its environment.
struct ServiceManagerEnvironment {
    std::string notifySocket;                        // NOTIFY_SOCKET; empty when absent
    std::chrono::microseconds watchdogInterval{0};   // WATCHDOG_USEC when meant for this process; 0 when none

    static ServiceManagerEnvironment fromProcess();
};

class LinuxServiceLifecycle final : public ServiceLifecycle {
public:
    // `requestQueue` carries the watchdog pings; it and `otherQueues` must be
    // empty of work before the process may end for idleness.
    LinuxServiceLifecycle(const PlatformConfig& config, std::shared_ptr<LinuxVynService> vyn,
                          std::shared_ptr<SerialQueue> requestQueue,
                          std::vector<std::shared_ptr<SerialQueue>> otherQueues = {},
                          ServiceManagerEnvironment environment = ServiceManagerEnvironment::fromProcess());

    // ServiceLifecycle
    bool socketActivated() const override { return vyn_->socketActivated(); }
    int run() override;

private:
    struct Watchdog {
        explicit Watchdog(std::string socket) : notifier(std::move(socket)) {}
        ServiceNotifier notifier;
        std::atomic<bool> pingQueued{false};
    };

    void pingWatchdog();
    bool busy() const;
    // Waits (bounded) until every watched queue has run what it holds.
    bool drainQueues(std::chrono::milliseconds timeout) const;
    bool confirmIdle();
    void notify(std::string_view state) const;

    const std::uint32_t idleExitSeconds_;
    const std::shared_ptr<LinuxVynService> vyn_;
    const std::shared_ptr<SerialQueue> requestQueue_;
    std::vector<std::shared_ptr<SerialQueue>> queues_; // request queue first
    const ServiceManagerEnvironment environment_;
    const ServiceNotifier notifier_;
    const std::shared_ptr<Watchdog> watchdog_;
};

} // namespace tv::platform
