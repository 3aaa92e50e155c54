// VynEvent: what a connection delivers to its handlers: a message, or an
// error of the connection.
#pragma once

#include "platform/ipc/Message.h"

#include <string>
#include <variant>

namespace tv::platform {

struct VynError {
    enum class Kind {
        // The connection is gone (peer closed, cut for a limit, never
        // connected). Delivered once; nothing arrives after it.
        ConnectionInvalid,
        // The process is about to exit (the daemon received SIGTERM).
        TerminationImminent,
        // Any other failure of the transport.
        Other,
    };
    Kind kind;
    std::string description;
};

using VynEvent = std::variant<Message, VynError>;

inline const VynError* eventError(const VynEvent& e) { return std::get_if<VynError>(&e); }
inline const Message* eventMessage(const VynEvent& e) { return std::get_if<Message>(&e); }
std::string eventDescription(const VynEvent& e);

} // namespace tv::platform
