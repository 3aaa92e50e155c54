#include "platform/lifecycle/ServiceNotifier.h"

#include "platform/PosixError.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tv::platform {

MaybeError ServiceNotifier::notify(std::string_view state) const
{
    if (!enabled())
        return std::nullopt;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if ((socketName_[0] != '/' && socketName_[0] != '@') || socketName_.size() >= sizeof addr.sun_path)
        return posixError(EAFNOSUPPORT, "unsupported notification socket \"" + socketName_ + "\"");
    std::memcpy(addr.sun_path, socketName_.data(), socketName_.size());
    if (addr.sun_path[0] == '@')
        addr.sun_path[0] = '\0';
    auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socketName_.size() +
                                         (socketName_[0] == '/' ? 1 : 0));

    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return posixError(errno, "socket");
    ssize_t n;
    do
        n = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&addr), length);
    while (n < 0 && errno == EINTR);
    int e = errno;
    ::close(fd);
    if (n < 0)
        return posixError(e, "notify " + socketName_);
    return std::nullopt;
}

} // namespace tv::platform
