// LinuxUserPersona: multi-user mode when the process runs as a per-user
// instance, that is with an effective uid other than root. The answer is
// fixed at construction.
//
// Thread-safe: immutable.
#pragma once

#include "platform/persona/UserPersona.h"

#include <sys/types.h>

namespace tv::platform {

class LinuxUserPersona final : public UserPersona {
public:
    // Decides for the calling process (geteuid()).
    LinuxUserPersona();
    // Decides for the given effective uid (tests).
    explicit LinuxUserPersona(uid_t effectiveUid) : multiUser_(effectiveUid != 0) {}

    // UserPersona
    bool isMultiUser() const override { return multiUser_; }

private:
    bool multiUser_;
};

} // namespace tv::platform
