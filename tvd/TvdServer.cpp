#include "tvd/TvdServer.h"

#include "Tarvik/TvLog.h"
#include "platform/ipc/VynService.h"
#include "platform/jobs/JobManager.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdPlugInHold.h"
#include "tvd/TvdStatusService.h"
#include "tvd/TvdUserPrefs.h"
#include "tvd/TvdVynClient.h"

#include <algorithm>
#include <cerrno>
#include <mutex>

namespace tv {

namespace {
std::mutex gServerMutex;
std::weak_ptr<TvdServer> gServer;
} // namespace

std::shared_ptr<TvdServer> TvdServer::initForServiceDatabase(const char* serviceName, const char* database,
                                                             TvdPlatform platform)
{
    std::shared_ptr<TvdServer> server(new TvdServer(std::move(platform)));
    TvdAnnotationStore::Services store;
    store.persona = server->platform_.userPersona;
    store.containers = server->platform_.containers;
    store.globalPath = server->platform_.globalAnnotationsFile;
    if (!server->setupWithDatabase(database, server->platform_.applicationRegistry,
                                   std::weak_ptr<platform::ApplicationRegistryObserver>(server), std::move(store),
                                   server->platform_.notifications))
        return nullptr;
    server->serviceName_ = serviceName ? serviceName : "";

    const auto& makeQueue = server->platform_.makeQueue;
    server->vynQueue_ = makeQueue("vyn", SerialQueue::QoS::Default);
    server->mainQueue_ = makeQueue("service", SerialQueue::QoS::UserInitiated);
    server->syncQueue_ = makeQueue("serverSync", SerialQueue::QoS::Default);
    server->identifyQueue_ = makeQueue("identify", SerialQueue::QoS::Utility);
    server->requestScheduler_ = RoundRobinScheduler::create(server->mainQueue_);
    // A request that finds "service" idle, read by an I/O thread with nothing
    // else to do, runs its first step there instead of waking the queue's
    // thread (docs/ipc-transport.md, "Threads").
    server->requestScheduler_->setRunsTurnsInline(true);

    auto listener = server->platform_.vyn->listen(server->serviceName_, server->vynQueue_);
    if (!listener) {
        TvLog::ops().error("unable to listen on %{public}s: %{public}@", server->serviceName_,
                           listener.error().localizedDescription());
        return nullptr;
    }
    server->service_ = std::move(listener).value();
    // The daemon serves without its status listener when that cannot be made.
    server->status_ = TvdStatusService::initWithServer(server);

    {
        std::lock_guard lock(gServerMutex);
        gServer = server;
    }
    server->setDelegate(std::static_pointer_cast<TvDatabaseDelegate>(server));

    // The handler keeps no reference to the clients it makes: each
    // connection owns its client.
    std::weak_ptr<TvdServer> weak = server;
    server->service_->setConnectionHandler([weak](std::shared_ptr<platform::VynConnection> connection) {
        if (auto s = weak.lock())
            s->acceptConnection(connection);
    });
    server->setUserPrefs(TvdUserPrefs::init(server->platform_.preferences));
    return server;
}

std::shared_ptr<TvdServer> TvdServer::server()
{
    std::lock_guard lock(gServerMutex);
    return gServer.lock();
}

void TvdServer::acceptConnection(const std::shared_ptr<platform::VynConnection>& connection)
{
    TvdVynClient::initWithConnectionServer(connection, shared_from_this());
}

int TvdServer::run()
{
    service_->resume();
    if (status_)
        status_->resume();
    return platform_.runMainLoop ? platform_.runMainLoop(*this) : 0;
}

void TvdServer::submitWork(std::function<void()> work)
{
    mainQueue_->async(std::move(work));
}

void TvdServer::removedPlugIns(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns)
{
    auto completion = [](int result) {
        if (result == 0)
            TvLog::ops().debug("jobd reported plug-ins have been terminated");
        else if (result == ESRCH)
            TvLog::ops().debug("jobd reported no plug-ins on record");
        else
            TvLog::ops().info("jobd error attempting to terminate plug-ins: error=%d", result);
    };
    for (const auto& p : plugIns) {
        TvLog::ops().debug("requesting jobd termination of plug-in: %s(%s) %{public}@", p->bundleIdentifier,
                           p->bundleVersion, p->uuid.string());
        if (platform_.jobManager)
            platform_.jobManager->removeExternalService(p->bundleIdentifier, p->bundleVersion, mainQueue_, completion);
        else
            mainQueue_->async([completion] { completion(ESRCH); });
    }
}

std::vector<bool> TvdServer::holdsOnPlugIns(const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns)
{
    std::vector<bool> held(plugIns.size(), false);
    syncQueue_->sync([&] {
        if (holds_.empty())
            return;
        for (std::size_t i = 0; i < plugIns.size(); ++i)
            held[i] = std::any_of(holds_.begin(), holds_.end(),
                                  [&](const auto& hold) { return hold->blocks(*plugIns[i]); });
    });
    return held;
}

bool TvdServer::holdOnPlugIn(const TvdPlugIn& plugIn)
{
    bool held = false;
    syncQueue_->sync([&] {
        for (const auto& hold : holds_)
            if (hold->blocks(plugIn)) {
                held = true;
                return;
            }
    });
    return held;
}

bool TvdServer::addHold(std::shared_ptr<TvdPlugInHold> hold)
{
    if (!hold)
        return false;
    bool added = false;
    syncQueue_->sync([&] {
        const uid_t uid = hold->uid();
        auto ofUid = std::count_if(holds_.begin(), holds_.end(), [uid](const auto& h) { return h->uid() == uid; });
        if (static_cast<std::size_t>(ofUid) >= kMaxHoldsPerUid)
            return;
        holds_.push_back(std::move(hold));
        added = true;
    });
    if (added)
        notifyAnnotationChange();
    return added; // a refused hold ends its keep-alive transaction here
}

void TvdServer::unholdToken(const Uuid& token)
{
    // The released hold is destroyed (ending its keep-alive transaction)
    // after the queue is left, once nothing else refers to it.
    std::shared_ptr<TvdPlugInHold> released;
    syncQueue_->sync([&] {
        for (auto it = holds_.begin(); it != holds_.end(); ++it) {
            if ((*it)->uuid() != token)
                continue;
            TvLog::ops().debug("releasing plug-in hold %{public}@ at client's request", token.string());
            released = std::move(*it);
            holds_.erase(it);
            notifyAnnotationChange();
            return;
        }
    });
}

void TvdServer::unholdClient(const std::shared_ptr<TvdVynClient>& client)
{
    std::vector<std::shared_ptr<TvdPlugInHold>> released;
    syncQueue_->sync([&] {
        // One walk in order, releasing as it goes: the same holds, in the
        // same order, as restarting the walk after each release.
        for (auto it = holds_.begin(); it != holds_.end();) {
            if (!(*it)->placedBy(client)) {
                ++it;
                continue;
            }
            TvLog::ops().debug("releasing plug-in hold %{public}@ for dead client pid %d", (*it)->uuid().string(),
                               client ? client->pid() : -1);
            released.push_back(std::move(*it));
            it = holds_.erase(it);
            notifyAnnotationChange();
        }
    });
}

std::size_t TvdServer::holdCount()
{
    std::size_t count = 0;
    syncQueue_->sync([&] { count = holds_.size(); });
    return count;
}

} // namespace tv
