// TvdStatusService: the daemon's status, for administrators and their tools
// ("tvkit status"), on a listener of its own named after the daemon's
// service with ".status" appended, so that the request protocol of the
// service itself stays exactly what hosts know.
//
// Each message on a status connection is answered once: a "status" request
// from a process with the manager entitlement gets the figures (docs/status.md);
// any other process gets code 11, any other request code 4. Connections are
// accepted and bounded by the IPC service like every other; the answers are
// made on a queue of their own, so a busy daemon cannot hold up the figures
// and asking for them cannot hold up requests.
#pragma once

#include "base/SerialQueue.h"
#include "base/Value.h"

#include <memory>

namespace tv {

namespace platform {
class VynConnection;
class VynListener;
class Message;
} // namespace platform

class TvdServer;

class TvdStatusService : public std::enable_shared_from_this<TvdStatusService> {
public:
    // The suffix of the status listener's name.
    static constexpr const char* kNameSuffix = ".status";

    // The service for `server`, listening (suspended) on the server's name
    // with kNameSuffix; null, with a log line, when it cannot listen.
    static std::shared_ptr<TvdStatusService> initWithServer(const std::shared_ptr<TvdServer>& server);

    void resume();

    // The figures as the "status" reply carries them.
    static Value statusOfServer(TvdServer& server);

private:
    TvdStatusService() = default;
    void accept(const std::shared_ptr<platform::VynConnection>& connection);
    void answer(platform::VynConnection& connection, const platform::Message& message);

    std::weak_ptr<TvdServer> server_;
    std::shared_ptr<SerialQueue> queue_;
    std::shared_ptr<platform::VynListener> listener_;
};

} // namespace tv
