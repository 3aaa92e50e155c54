// Helpers for the IPC service's Unix sockets: where a name lives, its
// socket address, and the identity of the process at the other end.
#pragma once

#include "base/Result.h"
#include "platform/ipc/VynConnection.h"

#include <string>
#include <sys/un.h>

namespace tv::platform {

// A name without "/" is a socket file in `socketDir`; a name with "/" is the
// socket path itself.
std::string vynSocketPath(const std::string& name, const std::string& socketDir);

// The address of a socket file. Fails when the path does not fit sun_path.
Result<sockaddr_un> vynSocketAddress(const std::string& path);

// The peer of a connected socket: SO_PEERCRED, plus a pidfd taken with
// SO_PEERPIDFD where the kernel has it, else with pidfd_open() (-1 when
// neither works). The caller owns the pidfd.
AuditToken peerAuditToken(int fd);

// A connected, non-blocking, close-on-exec socket to `path`, or the reason
// there is none.
Result<int> connectVynSocket(const std::string& path);

} // namespace tv::platform
