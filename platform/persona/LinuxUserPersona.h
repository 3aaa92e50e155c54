// LinuxUserPersona: multi-user mode when the process runs as a per-user
// instance. The platform configuration decides ("multi_user", by default
// true for any effective uid but root); the answer is fixed at construction.
//
// Thread-safe: immutable.
#pragma once

#include "platform/persona/UserPersona.h"

namespace tv::platform {

class LinuxUserPersona final : public UserPersona {
public:
    explicit LinuxUserPersona(bool multiUser) : multiUser_(multiUser) {}

    // UserPersona
    bool isMultiUser() const override { return multiUser_; }

private:
    bool multiUser_;
};

} // namespace tv::platform
