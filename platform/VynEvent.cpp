#include "platform/VynEvent.h"

namespace tv::platform {

std::string eventDescription(const VynEvent& e)
{
    if (auto m = eventMessage(e))
        return m->description();
    const VynError& err = std::get<VynError>(e);
    switch (err.kind) {
    case VynError::Kind::ConnectionInvalid: return "<error: connection invalid: " + err.description + ">";
    case VynError::Kind::TerminationImminent: return "<error: termination imminent: " + err.description + ">";
    case VynError::Kind::Other: break;
    }
    return "<error: " + err.description + ">";
}

} // namespace tv::platform
