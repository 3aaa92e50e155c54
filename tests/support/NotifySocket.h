// NotifySocket: plays the service manager's end of the notification socket
// (NOTIFY_SOCKET): a datagram socket bound to a path or, for a name starting
// with "@", to an abstract name.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tv::test {

using namespace std::chrono_literals;

class NotifySocket {
public:
    explicit NotifySocket(const std::string& name) : name_(name)
    {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, name.data(), name.size());
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        if (name[0] == '@')
            addr.sun_path[0] = '\0';
        else
            ++len;
        bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) == 0;
    }
    ~NotifySocket()
    {
        ::close(fd_);
        if (name_[0] == '/')
            ::unlink(name_.c_str());
    }
    bool bound() const { return bound_; }
    // The next datagram, or "" when none comes in time.
    std::string next(std::chrono::milliseconds timeout = 5000ms)
    {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(timeout.count())) != 1)
            return "";
        char buf[256];
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
    }
    // Waits for `state`, skipping others; false when it does not come in time.
    bool await(const std::string& state, std::chrono::milliseconds timeout = 5000ms)
    {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline)
            if (next(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())) ==
                state)
                return true;
        return false;
    }
    void drain()
    {
        while (!next(0ms).empty()) {
        }
    }

private:
    std::string name_;
    int fd_ = -1;
    bool bound_ = false;
};

} // namespace tv::test
