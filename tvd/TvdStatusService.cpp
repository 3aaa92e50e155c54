#include "tvd/TvdStatusService.h"

#include "Tarvik/TvLog.h"
#include "platform/ipc/Message.h"
#include "platform/ipc/VynService.h"
#include "platform/security/CodeSigningService.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdServer.h"
#include "tvd/Transaction.h"

#include <chrono>
#include <unistd.h>

namespace tv {

std::shared_ptr<TvdStatusService> TvdStatusService::initWithServer(const std::shared_ptr<TvdServer>& server)
{
    std::shared_ptr<TvdStatusService> service(new TvdStatusService());
    service->server_ = server;
    service->queue_ = server->platform().makeQueue("status", SerialQueue::QoS::Utility);
    const std::string name = server->serviceName() + kNameSuffix;
    auto listener = server->platform().vyn->listen(name, service->queue_);
    if (!listener) {
        TvLog::ops().error("unable to listen on %{public}s: %{public}@", name, listener.error().localizedDescription());
        return nullptr;
    }
    service->listener_ = std::move(listener).value();
    std::weak_ptr<TvdStatusService> weak = service;
    service->listener_->setConnectionHandler([weak](std::shared_ptr<platform::VynConnection> connection) {
        if (auto s = weak.lock())
            s->accept(connection);
    });
    return service;
}

void TvdStatusService::resume()
{
    listener_->resume();
}

void TvdStatusService::accept(const std::shared_ptr<platform::VynConnection>& connection)
{
    // The handler holds the connection weakly: the connection owns it.
    std::weak_ptr<TvdStatusService> weakSelf = weak_from_this();
    std::weak_ptr<platform::VynConnection> weakConnection = connection;
    connection->setEventHandler([weakSelf, weakConnection](const platform::VynEvent& event) {
        const platform::Message* message = platform::eventMessage(event);
        auto self = weakSelf.lock();
        auto c = weakConnection.lock();
        if (message && self && c)
            self->answer(*c, *message);
    });
    connection->resume();
}

void TvdStatusService::answer(platform::VynConnection& connection, const platform::Message& message)
{
    auto reply = platform::Message::createReply(message);
    auto server = server_.lock();
    if (!reply || !server)
        return;
    const std::string* type = message.stringForKey("request");
    if (!type || *type != "status") {
        reply->set("errorcode", Value(std::uint64_t{4}));
        reply->set("error", Value("unrecognized request"));
    } else {
        const auto& codeSigning = server->platform().codeSigning;
        Value granted;
        if (codeSigning)
            granted = codeSigning->entitlementValueForKey(*codeSigning->createTask(connection.auditToken()),
                                                          Transaction::kManagerEntitlement, nullptr);
        if (!entitlementIsGranted(granted)) {
            TvLog::console("refused request from pid=%d for the daemon's status - client lacks required entitlement",
                           connection.pid());
            reply->set("errorcode", Value(std::uint64_t{11}));
            reply->set("error", Value("caller lacks entitlement for this operation"));
        } else {
            reply->setBody(statusOfServer(*server));
        }
    }
    connection.send(std::move(*reply));
}

Value TvdStatusService::statusOfServer(TvdServer& server)
{
    const auto uptime = std::chrono::steady_clock::now() - server.startTime();
    return Value{
        {"service", Value(server.serviceName())},
        {"pid", Value(static_cast<std::uint64_t>(::getpid()))},
        {"uptime", Value(static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(uptime).count()))},
        {"connections", Value(static_cast<std::uint64_t>(server.platform().vyn->connectionCount()))},
        {"requests", Value(server.requestsServed())},
        {"holds", Value(static_cast<std::uint64_t>(server.holdCount()))},
        {"cached", Value(static_cast<std::uint64_t>(server.cachedCount()))},
        {"cacheLimit", Value(static_cast<std::uint64_t>(server.cacheLimit()))},
    };
}

} // namespace tv
