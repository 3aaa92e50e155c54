// UserPersona: who the daemon serves.
//
// In multi-user mode the daemon is one user's own instance and keeps that
// user's data in the user's containers; in single-user mode one system-wide
// instance serves the device and keeps system-wide files.
//
// Thread-safety: every operation may be called from any thread. No callbacks.
#pragma once

namespace tv::platform {

class UserPersona {
public:
    virtual ~UserPersona() = default;

    // True when this process is a per-user instance.
    virtual bool isMultiUser() const = 0;
};

} // namespace tv::platform
