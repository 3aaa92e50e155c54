// VynService: the IPC service ("vyn"). Named listeners and connections to
// them, plus the process's keep-alive transactions.
//
// A name without "/" is a socket file in the configured socket directory; a
// name with "/" is used as the socket path itself.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include "base/Result.h"
#include "base/SerialQueue.h"
#include "platform/ipc/VynConnection.h"
#include "platform/ipc/VynListener.h"

#include <memory>
#include <string>

namespace tv::platform {

class VynService {
public:
    virtual ~VynService() = default;

    // A suspended listener for `name` whose events arrive on `queue`. Uses the
    // socket inherited through socket activation when there is one.
    virtual Result<std::shared_ptr<VynListener>> listen(const std::string& name,
                                                        std::shared_ptr<SerialQueue> queue) = 0;

    // A suspended client connection to `name`, events on `queue`. Never
    // fails: when the service cannot be reached, the connection delivers
    // ConnectionInvalid once resumed and every request's reply handler gets
    // the same error.
    virtual std::shared_ptr<VynConnection> connect(const std::string& name, std::shared_ptr<SerialQueue> queue) = 0;

    // Keep-alive transactions: while any is open, a socket-activated process
    // does not exit for idleness.
    virtual void beginTransaction() = 0;
    virtual void endTransaction() = 0;
    virtual std::size_t openTransactions() const = 0;

    // Accepted connections not yet closed, of every listener.
    virtual std::size_t connectionCount() const = 0;
};

} // namespace tv::platform
