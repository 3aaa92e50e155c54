// VynListener: a named listener. It is made suspended; resume() starts
// accepting. Each accepted connection is handed to the new-connection handler
// on the listener's queue, not yet resumed.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include "platform/ipc/VynConnection.h"

#include <functional>
#include <memory>
#include <string>

namespace tv::platform {

class VynListener {
public:
    using ConnectionHandler = std::function<void(std::shared_ptr<VynConnection>)>;

    virtual ~VynListener() = default;

    // REQUIRES: called before resume().
    virtual void setConnectionHandler(ConnectionHandler handler) = 0;
    virtual void resume() = 0;
    // The socket path it listens on.
    virtual const std::string& path() const = 0;
};

} // namespace tv::platform
