// ServiceNotifier: state reports to the service manager over the datagram
// socket that NOTIFY_SOCKET names ("READY=1", "WATCHDOG=1", "STOPPING=1").
// A name starting with "@" is an abstract socket name. Without a socket the
// notifier is disabled and notify() does nothing.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include "base/TvError.h"

#include <string>
#include <string_view>

namespace tv::platform {

class ServiceNotifier {
public:
    explicit ServiceNotifier(std::string socketName) : socketName_(std::move(socketName)) {}

    bool enabled() const { return !socketName_.empty(); }
    // Sends one datagram holding `state` (newline-separated assignments).
    MaybeError notify(std::string_view state) const;

private:
    std::string socketName_;
};

} // namespace tv::platform
