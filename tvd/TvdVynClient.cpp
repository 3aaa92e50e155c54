#include "tvd/TvdVynClient.h"

#include "tvd/TvdPlugIn.h"

#include "Tarvik/TvBundle.h"
#include "Tarvik/TvLog.h"
#include "platform/security/CodeSigningService.h"
#include "platform/process/ProcessInfo.h"
#include "platform/ipc/VynConnection.h"
#include "tvd/Transaction.h"
#include "tvd/TvdTrace.h"
#include "tvd/TvdServer.h"

namespace tv {

using platform::VynError;

std::shared_ptr<TvdVynClient> TvdVynClient::initWithConnectionServer(
    const std::shared_ptr<platform::VynConnection>& connection, std::shared_ptr<TvdServer> server)
{
    std::shared_ptr<TvdVynClient> client(new TvdVynClient());
    client->connection_ = connection;
    client->server_ = std::move(server);
    client->acceptWork_ = true;
    client->pid_ = connection->pid();

    const TvdPlatform& platform = client->server_->platform();
    if (platform.processInfo) {
        auto path = platform.processInfo->executablePath(client->pid_, connection->auditToken().pidfd);
        if (path) {
            client->path_ = *path;
            if (!client->path_.empty() && client->path_.back() != '/')
                client->bundle_ = TvBundle::initWithExecutableURL(Value::fileURL(client->path_));
        }
    }
    TvLog::ops().debug("new client %d %s", client->pid_, client->path_);
    TvdTrace::clientNew(client->pid_);

    if (platform.codeSigning)
        client->task_ = platform.codeSigning->createTask(connection->auditToken());

    connection->setContext(client);
    connection->setEventHandler([client](const platform::VynEvent& event) { client->handleEvent(event); });
    connection->resume();
    return client;
}

TvdVynClient::~TvdVynClient() = default;

void TvdVynClient::handleEvent(const platform::VynEvent& event)
{
    if (const VynError* error = platform::eventError(event)) {
        switch (error->kind) {
        case VynError::Kind::TerminationImminent: dying(); return;
        case VynError::Kind::ConnectionInvalid: dead(); return;
        case VynError::Kind::Other:
            TvLog::ops().error("unexpected error type from vyn: %{public}@", error->description);
            return;
        }
    }
    const platform::Message& message = *platform::eventMessage(event);
    if (!message.body().isDictionary()) {
        // Not a request: logged and dropped; the connection stays.
        TvLog::ops().error("unexpected message: %{public}@ from: %d", message.description(), pid_);
        return;
    }
    handleRequest(message);
}

void TvdVynClient::handleRequest(const platform::Message& message)
{
    if (TvdTrace::requestInputEnabled())
        TvdTrace::requestInput(pid_, message.description());
    auto transaction = std::make_shared<Transaction>(message, shared_from_this());
    server_->submitWork([client = shared_from_this(), transaction] {
        ++client->requestCount_;
        if (client->requestCount_ % 1000 == 0)
            TvLog::ops().debug("client %d used %u requests so far", client->pid_, client->requestCount_);
        transaction->dispatch();
    });
}

void TvdVynClient::dying()
{
    TvLog::ops().debug("client %d termination imminent", pid_);
}

void TvdVynClient::dead()
{
    server_->unholdClient(shared_from_this());
    TvLog::ops().debug("client %d is dead", pid_);
    acceptWork_ = false;
    TvdTrace::clientDone(pid_);
}

Value TvdVynClient::entitlementValueForKey(std::string_view key) const
{
    const auto& codeSigning = server_->platform().codeSigning;
    if (!codeSigning || !task_)
        return Value();
    MaybeError error;
    Value value = codeSigning->entitlementValueForKey(*task_, key, &error);
    if (error)
        TvLog::ops().error("error retrieving entitlements for client %d", pid_);
    return value;
}

bool TvdVynClient::hasEntitlement(std::string_view key) const
{
    return entitlementIsGranted(entitlementValueForKey(key));
}

std::string TvdVynClient::description() const
{
    if (auto c = connection())
        return formatString("<TvdVynClient %p con=%@ pid=%d path=%@>", this, c->description(), pid_, path_);
    return formatString("<TvdVynClient %p NO CONNECTION>", this);
}

} // namespace tv
