#include "platform/process/LinuxProcessInfo.h"

#include "platform/PosixError.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sys/syscall.h>
#include <unistd.h>

namespace tv::platform {

namespace {

// The pid that /proc/self/fdinfo reports for a pidfd: -1 once the process
// has been reaped, none when the descriptor is not a pidfd.
std::optional<long> pidOfPidfd(int pidfd)
{
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(pidfd));
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("Pid:", 0) == 0) {
            try {
                return std::stol(line.substr(4));
            } catch (const std::exception&) {
                return std::nullopt;
            }
        }
    }
    return std::nullopt;
}

MaybeError checkPidfd(pid_t pid, int pidfd)
{
    std::optional<long> pidfdPid = pidOfPidfd(pidfd);
    if (!pidfdPid)
        return posixError(EBADF, "pidfd " + std::to_string(pidfd) + " is not a process descriptor");
    if (*pidfdPid != pid)
        return posixError(ESRCH, "pidfd no longer denotes process " + std::to_string(pid));
    // EPERM still proves the process is there: only permission was refused.
    if (::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) != 0 && errno != EPERM)
        return posixError(errno, "pidfd_send_signal to process " + std::to_string(pid));
    return std::nullopt;
}

} // namespace

LinuxProcessInfo::LinuxProcessInfo(std::string procRoot) : procRoot_(std::move(procRoot)) {}

Result<std::string> LinuxProcessInfo::executablePath(pid_t pid, int pidfd) const
{
    if (pid <= 0)
        return posixError(ESRCH, "no process " + std::to_string(pid));
    const std::string link = procRoot_ + "/" + std::to_string(pid) + "/exe";
    char buffer[kExecutablePathBufferSize];
    ssize_t length = ::readlink(link.c_str(), buffer, sizeof buffer);
    if (length < 0)
        return posixError(errno, "readlink " + link);
    // A path that fills the buffer may have been cut, and leaves no room for
    // the terminator that the buffer's size counts.
    if (static_cast<std::size_t>(length) >= sizeof buffer)
        return posixError(ENAMETOOLONG, "readlink " + link);
    if (pidfd >= 0) {
        if (MaybeError error = checkPidfd(pid, pidfd))
            return *error;
    }
    return std::string(buffer, static_cast<std::size_t>(length));
}

} // namespace tv::platform
