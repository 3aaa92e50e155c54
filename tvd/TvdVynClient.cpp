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
    client->uid_ = connection->auditToken().uid;
    TvdTrace::clientNew(client->pid_);

    // Requests wait, in order, until the client is identified; reading the
    // executable and its bundle happens on the "identify" queue, so that a
    // slow file system stalls neither the connection queue nor the requests
    // of other clients.
    const auto& scheduler = client->server_->requestScheduler();
    scheduler->hold(client.get());
    connection->setContext(client);
    connection->setEventHandler([client](const platform::VynEvent& event) { client->handleEvent(event); });
    connection->resume();
    // The task keeps the connection, and with it the pidfd, alive while the
    // client is identified.
    client->server_->identifyQueue()->async([client, connection] {
        client->identify(*connection);
        client->server_->requestScheduler()->release(client.get());
    });
    return client;
}

void TvdVynClient::identify(const platform::VynConnection& connection)
{
    const TvdPlatform& platform = server_->platform();
    if (platform.processInfo) {
        auto path = platform.processInfo->executablePath(pid_, connection.auditToken().pidfd);
        if (path) {
            path_ = *path;
            if (!path_.empty() && path_.back() != '/')
                bundle_ = TvBundle::initWithExecutableURL(Value::fileURL(path_));
        }
    }
    TvLog::ops().debug("new client %d %s", pid_, path_);
    if (platform.codeSigning)
        task_ = platform.codeSigning->createTask(connection.auditToken());
    identified_.store(true, std::memory_order_release);
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
    // The transaction is made when the request first runs, on the thread
    // that serves it and lets it go: the connection's thread only queues.
    auto client = shared_from_this();
    server_->requestScheduler()->submit(this, [client, message,
                                               transaction = std::shared_ptr<Transaction>()]() mutable {
        if (transaction)
            return transaction->resume();
        transaction = std::make_shared<Transaction>(std::move(message), client);
        ++client->requestCount_;
        client->server_->noteRequestServed();
        if (client->requestCount_ % 1000 == 0)
            TvLog::ops().debug("client %d used %u requests so far", client->pid_, client->requestCount_);
        transaction->dispatch();
        return !transaction->suspended();
    });
}

void TvdVynClient::dying()
{
    TvLog::ops().debug("client %d termination imminent", pid_);
}

void TvdVynClient::dead()
{
    // Work is refused before the holds go, so that a hold request served
    // meanwhile either sees the client dead (and releases its hold itself)
    // or added its hold in time to be released here.
    acceptWork_ = false;
    server_->unholdClient(shared_from_this());
    TvLog::ops().debug("client %d is dead", pid_);
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
    static const std::string kNotYetRead;
    const std::string& path = identified_.load(std::memory_order_acquire) ? path_ : kNotYetRead;
    if (auto c = connection())
        return formatString("<TvdVynClient %p con=%@ pid=%d path=%@>", this, c->description(), pid_, path);
    return formatString("<TvdVynClient %p NO CONNECTION>", this);
}

} // namespace tv
