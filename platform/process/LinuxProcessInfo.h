// LinuxProcessInfo: process facts from procfs.
//
// The executable path is the target of <proc>/PID/exe, read into a buffer
// of kExecutablePathBufferSize bytes. With a pidfd, after the read the
// pidfd's "Pid:" line in /proc/self/fdinfo must still name `pid` and a null
// signal through the pidfd must reach the process: a process that has been
// reaped reports Pid -1 (or refuses the signal), so a pid that was recycled
// between the connection and the lookup gives ESRCH instead of another
// program's path. The kernel gives the path as it was at exec time; an
// executable since deleted or replaced ends in " (deleted)" and so names no
// file, which callers treat like any unknown executable.
//
// Thread-safe: no state beyond the procfs root.
#pragma once

#include "platform/process/ProcessInfo.h"

#include <string>

namespace tv::platform {

class LinuxProcessInfo final : public ProcessInfo {
public:
    // `procRoot` is where procfs is mounted (tests point it elsewhere).
    explicit LinuxProcessInfo(std::string procRoot = "/proc");

    // ProcessInfo
    Result<std::string> executablePath(pid_t pid, int pidfd = -1) const override;

private:
    std::string procRoot_;
};

} // namespace tv::platform
