// ProcessInfo: facts about another process of this machine.
//
// Thread-safety: every operation may be called from any thread. No callbacks.
#pragma once

#include "base/Result.h"

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace tv::platform {

class ProcessInfo {
public:
    // The longest executable path reported, in bytes, counting the
    // terminating NUL of the buffer it is read into.
    static constexpr std::size_t kExecutablePathBufferSize = 2048;

    virtual ~ProcessInfo() = default;

    // The path of the executable that process `pid` runs. When `pidfd` is a
    // process file descriptor (not -1), the answer is given only if that
    // descriptor still denotes the process `pid` after the path was read, so
    // that a pid recycled by another process is never answered for.
    // Errors carry the errno domain: ESRCH when the process is gone or the
    // pidfd denotes another process, ENAMETOOLONG when the path does not fit
    // the buffer, and whatever reading the path failed with otherwise.
    virtual Result<std::string> executablePath(pid_t pid, int pidfd = -1) const = 0;
};

} // namespace tv::platform
