#include "platform/ipc/VynSocket.h"

#include "platform/PosixError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace tv::platform {

std::string vynSocketPath(const std::string& name, const std::string& socketDir)
{
    if (name.find('/') != std::string::npos)
        return name;
    return socketDir + "/" + name;
}

Result<sockaddr_un> vynSocketAddress(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path)
        return posixError(ENAMETOOLONG, "socket path \"" + path + "\"");
    std::memcpy(addr.sun_path, path.data(), path.size());
    return addr;
}

AuditToken peerAuditToken(int fd)
{
    AuditToken token;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
        token.pid = cred.pid;
        token.uid = cred.uid;
        token.gid = cred.gid;
    }
    int pidfd = -1;
    len = sizeof pidfd;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &len) != 0 || pidfd < 0) {
        pidfd = -1;
        // Without SO_PEERPIDFD the pid could in principle be reused between
        // the credentials above and this call; it is the best the kernel offers.
        if (token.pid > 0)
            pidfd = static_cast<int>(::syscall(SYS_pidfd_open, token.pid, 0));
        if (pidfd < 0)
            pidfd = -1;
    }
    token.pidfd = pidfd;
    return token;
}

Result<int> connectVynSocket(const std::string& path)
{
    auto addr = vynSocketAddress(path);
    if (!addr)
        return addr.error();
    // Blocking connect: on a Unix socket it completes at once, or waits only
    // while the listener's backlog is full.
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return posixError(errno, "socket");
    int r;
    do
        r = ::connect(fd, reinterpret_cast<const sockaddr*>(&*addr), sizeof *addr);
    while (r != 0 && errno == EINTR);
    if (r != 0) {
        int e = errno;
        ::close(fd);
        return posixError(e, "connect to " + path);
    }
    int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    return fd;
}

} // namespace tv::platform
