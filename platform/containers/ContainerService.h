// ContainerService: the current user's data containers.
//
// A container is a private directory identified by a container class (a
// number naming what kind of owner it serves) and an identifier (the owner's
// name, for example a daemon's bundle identifier). The same class and
// identifier always give the same directory.
//
// Thread-safety: every operation may be called from any thread. No callbacks.
#pragma once

#include "base/Result.h"

#include <cstdint>
#include <string>

namespace tv::platform {

class ContainerService {
public:
    // The container class of a daemon's own per-user data.
    static constexpr std::uint64_t kDaemonDataClass = 10;

    virtual ~ContainerService() = default;

    // The directory of the current user's container of `containerClass` and
    // `identifier`, ending in "/". With `create`, a missing container is made
    // (private to the user); without, a missing one gives ENOENT. Errors carry
    // a positive error number as their code: EINVAL for an identifier that
    // cannot name a directory (empty, ".", "..", containing "/" or NUL, longer
    // than 255 bytes), otherwise the errno of the failed lookup or creation.
    virtual Result<std::string> containerPath(std::uint64_t containerClass, const std::string& identifier,
                                              bool create) = 0;
};

} // namespace tv::platform
