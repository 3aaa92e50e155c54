#include "platform/ipc/VynEvent.h"

namespace tv::platform {

namespace {

const char* kindName(VynError::Kind kind)
{
    switch (kind) {
    case VynError::Kind::ConnectionInvalid: return "Connection invalid";
    case VynError::Kind::TerminationImminent: return "Termination imminent";
    case VynError::Kind::Other: break;
    }
    return "Transport error";
}

} // namespace

std::string eventDescription(const VynEvent& e)
{
    if (const Message* m = eventMessage(e))
        return m->description();
    const VynError& err = std::get<VynError>(e);
    return err.description.empty() ? kindName(err.kind) : err.description;
}

} // namespace tv::platform
