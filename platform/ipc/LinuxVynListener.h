// LinuxVynListener: a listening Unix stream socket of the IPC service.
//
// Accepting happens on the runtime's thread. Each accepted socket gets its
// peer's credentials (SO_PEERCRED) and a pidfd at once; a peer past the
// connection limits (per uid, in all) is accepted and closed at once, with
// a log line. Admitted connections are handed, suspended, to the
// connection handler on the listener's queue; without a handler they are
// dropped (and so closed).
//
// A resumed listener accepts until its service is destroyed. The socket
// file of a listener that bound it itself is removed then; an inherited
// (socket-activated) socket is left to the service manager.
#pragma once

#include "platform/PlatformConfig.h"
#include "platform/ipc/VynConnectionTable.h"
#include "platform/ipc/VynListener.h"
#include "platform/ipc/VynRuntime.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <sys/types.h>

namespace tv::platform {

class LinuxVynListener final : public VynListener,
                               public VynRuntime::Watcher,
                               public std::enable_shared_from_this<LinuxVynListener> {
public:
    struct Setup {
        std::shared_ptr<VynRuntime> runtime;
        std::shared_ptr<SerialQueue> queue;
        std::shared_ptr<VynConnectionTable> table;
        VynLimits limits;
        int fd = -1; // listening, non-blocking, close-on-exec; owned
        std::string path;
        // The socket file to remove when the listener goes away (device and
        // inode as bound, so that a file replaced since is left alone).
        bool removeOnClose = false;
        dev_t device = 0;
        ino_t inode = 0;
    };

    explicit LinuxVynListener(Setup setup);
    ~LinuxVynListener() override;

    // VynListener
    void setConnectionHandler(ConnectionHandler handler) override;
    void resume() override;
    const std::string& path() const override { return setup_.path; }

    // VynRuntime::Watcher
    void handleEvents(std::uint32_t events) override;
    void shutdown() override;

    // Stops or restarts accepting; connections wait in the socket's backlog
    // meanwhile. REQUIRES: on the runtime's thread.
    void setAccepting(bool accepting);

private:
    void acceptOne(int fd);
    void closeSocket();

    Setup setup_;
    std::mutex mutex_;
    ConnectionHandler handler_;
    std::atomic<bool> resumeRequested_{false};
    // Runtime's thread only.
    bool watched_ = false;
    bool accepting_ = true;
    std::optional<VynRuntime::TimerId> retryTimer_;
};

} // namespace tv::platform
