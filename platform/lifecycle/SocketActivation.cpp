#include "platform/lifecycle/SocketActivation.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace tv::platform {

namespace {

constexpr int kFirstListenFd = 3;

template <class T>
bool parseNumber(const char* text, T& out)
{
    if (!text || !*text)
        return false;
    std::string_view s(text);
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
    return ec == std::errc() && p == s.data() + s.size();
}

} // namespace

std::vector<SocketActivation::Socket> SocketActivation::parse(const char* listenPid, const char* listenFds,
                                                              const char* listenFdNames, pid_t self)
{
    long pid = 0;
    int count = 0;
    if (!parseNumber(listenPid, pid) || pid != self || !parseNumber(listenFds, count) || count <= 0 || count > 1024)
        return {};
    std::vector<std::string> names;
    if (listenFdNames) {
        std::string_view rest(listenFdNames);
        for (;;) {
            auto colon = rest.find(':');
            names.emplace_back(rest.substr(0, colon));
            if (colon == std::string_view::npos)
                break;
            rest.remove_prefix(colon + 1);
        }
    }
    std::vector<Socket> sockets;
    for (int i = 0; i < count; ++i)
        sockets.push_back(Socket{kFirstListenFd + i, static_cast<std::size_t>(i) < names.size() ? names[i] : ""});
    return sockets;
}

SocketActivation SocketActivation::fromEnvironment()
{
    auto sockets = parse(std::getenv("LISTEN_PID"), std::getenv("LISTEN_FDS"), std::getenv("LISTEN_FDNAMES"), ::getpid());
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    ::unsetenv("LISTEN_FDNAMES");
    if (sockets.empty())
        return SocketActivation();
    for (const auto& s : sockets) {
        int flags = ::fcntl(s.fd, F_GETFD);
        if (flags >= 0)
            ::fcntl(s.fd, F_SETFD, flags | FD_CLOEXEC);
    }
    return SocketActivation(std::move(sockets));
}

int SocketActivation::take(const std::string& name)
{
    if (!state_)
        return -1;
    std::lock_guard lock(state_->mutex);
    auto& sockets = state_->sockets;
    for (std::size_t i = 0; i < sockets.size(); ++i)
        if (!state_->taken[i] && (sockets[i].name == name || sockets[i].name == name + ".socket")) {
            state_->taken[i] = true;
            return sockets[i].fd;
        }
    for (std::size_t i = 0; i < sockets.size(); ++i)
        if (!state_->taken[i]) {
            state_->taken[i] = true;
            return sockets[i].fd;
        }
    return -1;
}

} // namespace tv::platform
