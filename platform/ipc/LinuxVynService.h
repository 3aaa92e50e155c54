// LinuxVynService: the IPC service over Unix stream sockets (see VynService
// for the contract, VynFrame for the frames, LinuxVynConnection for the
// limits).
//
// One I/O thread (VynRuntime) serves all of the service's sockets. Named
// listeners live at <socketDir>/<name> (the directory is made, mode 0755,
// when missing); the socket file is mode 0666 so that every user's
// processes can connect. When the process was socket-activated, listen()
// uses an inherited socket instead of binding. An existing socket file is
// replaced only when connecting to it is refused (a stale file left by a
// process that died); if something answers, listen() fails with "address
// in use".
//
// Destroying the service closes every connection (each gets
// ConnectionInvalid, every pending reply handler its error) and removes the
// socket files it bound.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include "platform/PlatformConfig.h"
#include "platform/lifecycle/SocketActivation.h"
#include "platform/ipc/VynConnectionTable.h"
#include "platform/ipc/VynRuntime.h"
#include "platform/ipc/VynService.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace tv::platform {

class LinuxVynListener;

class LinuxVynService final : public VynService {
public:
    // Null (with a log line) when the I/O thread cannot be set up.
    static std::shared_ptr<LinuxVynService> create(const PlatformConfig& config,
                                                   SocketActivation activation = SocketActivation::fromEnvironment());
    ~LinuxVynService() override;

    // VynService
    Result<std::shared_ptr<VynListener>> listen(const std::string& name, std::shared_ptr<SerialQueue> queue) override;
    std::shared_ptr<VynConnection> connect(const std::string& name, std::shared_ptr<SerialQueue> queue) override;
    void beginTransaction() override;
    void endTransaction() override;
    std::size_t openTransactions() const override;

    // For the process lifecycle.
    // Whether the process was started with inherited listening sockets.
    bool socketActivated() const { return activation_.active(); }
    std::size_t connectionCount() const override { return table_->count(); }
    // Delivers TerminationImminent to every open accepted connection; returns
    // once the events are queued.
    void announceTermination();
    // Stops (or restarts) accepting on every listener; waiting connections
    // stay in the sockets' backlogs. Returns once in effect.
    void setAccepting(bool accepting);

    const VynLimits& limits() const { return config_.limits; }

private:
    LinuxVynService(const PlatformConfig& config, SocketActivation activation, std::shared_ptr<VynRuntime> runtime);
    Result<int> bindListeningSocket(const std::string& path, dev_t& device, ino_t& inode);
    Result<int> adoptInheritedSocket(int fd);
    // Runs `task` on the runtime's thread and waits for it; false when the
    // runtime is stopped.
    bool runOnRuntime(const std::function<void()>& task);

    const PlatformConfig config_;
    SocketActivation activation_;
    const std::shared_ptr<VynRuntime> runtime_;
    const std::shared_ptr<VynConnectionTable> table_;
    std::atomic<std::size_t> transactions_{0};
    std::mutex mutex_;
    std::vector<std::shared_ptr<LinuxVynListener>> listeners_;
};

} // namespace tv::platform
