// SocketActivation: the listening sockets a service manager handed to this
// process (the LISTEN_PID / LISTEN_FDS / LISTEN_FDNAMES protocol: sockets
// start at descriptor 3, names are ":"-separated and optional).
//
// fromEnvironment() takes the sockets only when LISTEN_PID names this
// process, marks them close-on-exec and removes the variables from the
// environment so that child processes do not mistake them for their own.
// Thread-safety: take() is safe from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tv::platform {

class SocketActivation {
public:
    struct Socket {
        int fd;
        std::string name;
    };

    SocketActivation() = default;
    explicit SocketActivation(std::vector<Socket> sockets) : state_(std::make_shared<State>(std::move(sockets))) {}

    static SocketActivation fromEnvironment();
    // The sockets the variables describe for process `self` (none when they
    // are meant for another process or malformed).
    static std::vector<Socket> parse(const char* listenPid, const char* listenFds, const char* listenFdNames, pid_t self);

    // True when the process was started with at least one inherited socket.
    bool active() const { return state_ && !state_->sockets.empty(); }

    // Takes the inherited socket for listener `name`: the one whose name is
    // `name` or whose name is `name` followed by ".socket", else the first one
    // not yet taken; -1 when none is left. Each socket is taken once.
    int take(const std::string& name);

private:
    struct State {
        explicit State(std::vector<Socket> s) : sockets(std::move(s)), taken(sockets.size(), false) {}
        std::mutex mutex;
        std::vector<Socket> sockets;
        std::vector<bool> taken;
    };
    std::shared_ptr<State> state_;
};

} // namespace tv::platform
