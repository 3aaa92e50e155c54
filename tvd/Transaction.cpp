#include "tvd/Transaction.h"

#include "Tarvik/TvLog.h"
#include "base/InternalInconsistency.h"
#include "platform/ipc/VynConnection.h"
#include "tvd/TvdTrace.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdServer.h"
#include "tvd/TvdVynClient.h"

#include <array>
#include <filesystem>
#include <string_view>

namespace tv {

namespace {

using Handler = void (Transaction::*)();

// Request types in the order they are matched.
struct Route {
    std::string_view type;
    Handler handler; // null: not served by this daemon yet
};

const std::array<Route, 9> kRoutes{{
    {"add", &Transaction::addPlugIns},
    {"remove", &Transaction::removePlugIns},
    {"bulk", &Transaction::bulkPlugIns},
    {"match", nullptr},
    {"ready", nullptr},
    {"access", nullptr},
    {"annotate", nullptr},
    {"bulk-annotate", nullptr},
    {"lock", nullptr},
}};

} // namespace

// A walk over "paths" that may span several slices.
struct Transaction::PathWalk {
    PathStep step;
    std::function<void()> walked;
    std::size_t next = 0;
};

Transaction::~Transaction() = default;

Transaction::Transaction(platform::Message request, std::shared_ptr<TvdVynClient> client)
    : client_(std::move(client)), request_(std::move(request))
{
    if (auto reply = platform::Message::createReply(request_)) {
        reply_ = std::move(*reply);
        replyRoutable_ = true;
    }
}

std::shared_ptr<TvdServer> Transaction::server() const
{
    return client_->server();
}

std::shared_ptr<platform::VynConnection> Transaction::connection() const
{
    return client_->connection();
}

void Transaction::dispatch()
{
    const std::string* type = request_.stringForKey("request");
    version_ = request_.uint64ForKey("version");
    if ((version_ & ~std::uint64_t{1}) != 2) {
        failMessage(7, formatString("unsupported protocol version %d (current %d)", version_, kCurrentVersion));
        return;
    }
    if (!client_->acceptWork())
        return;
    TvLog::ops().debug("client %d requested %{public}s", client_->pid(), type ? type->c_str() : nullptr);
    TvdTrace::request(client_->pid(), type ? type->c_str() : nullptr);

    startSlice();
    guarded(type ? type->c_str() : "untyped", [&] {
        if (!type)
            failMessage(4, "invalid request format (missing type)");
        else
            route(*type);
    });
}

bool Transaction::resume()
{
    if (!walk_)
        return true;
    if (!client_->acceptWork()) {
        // The client died while its request was suspended: nobody waits for
        // the rest.
        walk_.reset();
        return true;
    }
    startSlice();
    const std::string* type = request_.stringForKey("request");
    guarded(type ? type->c_str() : "untyped", [&] { continueWalk(); });
    return !walk_;
}

void Transaction::guarded(const char* type, const std::function<void()>& serve)
{
    try {
        serve();
    } catch (const TvInternalInconsistency& e) {
        // A broken invariant ends this request only; the client learns that
        // it failed, not why.
        walk_.reset();
        TvLog::ops().error("internal inconsistency while serving %{public}s request of client %d: %{public}s", type,
                           client_->pid(), e.what());
        if (!replied_)
            failMessage(4, "internal error");
    } catch (const std::exception& e) {
        // Anything else a handler throws (allocation failure, a library
        // error) also ends only this request, with its one reply.
        walk_.reset();
        TvLog::ops().error("exception while serving %{public}s request of client %d: %{public}s", type,
                           client_->pid(), e.what());
        if (!replied_)
            failMessage(4, "internal error");
    } catch (...) {
        walk_.reset();
        TvLog::ops().error("unknown exception while serving %{public}s request of client %d", type,
                           client_->pid());
        if (!replied_)
            failMessage(4, "internal error");
    }
}

void Transaction::startSlice()
{
    auto slice = std::chrono::steady_clock::duration::zero();
    if (auto s = server())
        slice = s->requestTimeSlice();
    sliceEnd_ = std::chrono::steady_clock::now() + slice;
}

void Transaction::route(const std::string& type)
{
    for (const auto& r : kRoutes) {
        if (r.type != type)
            continue;
        if (!r.handler)
            break;
        (this->*r.handler)();
        return;
    }
    failMessage(4, "unrecognized request");
}

void Transaction::done()
{
    if (replied_) {
        TvLog::ops().error("second reply to one request of client %d refused", client_->pid());
        return;
    }
    replied_ = true;
    if (TvdTrace::requestOutputEnabled())
        TvdTrace::requestOutput(client_->pid(), reply_.description());
    if (!replyRoutable_)
        return; // one-way request: nobody waits for this reply
    auto c = connection();
    if (!c) {
        TvLog::ops().debug("reply to client %d dropped: connection gone", client_->pid());
        return;
    }
    c->send(reply_);
}

void Transaction::failMessage(std::uint64_t code, const std::string& message)
{
    reply_.set("errorcode", Value(code));
    reply_.set("error", Value(message));
    done();
}

void Transaction::failError(std::uint64_t code, const TvError& error)
{
    if (error.domain == kTarvikErrorDomain) {
        reply_.set("errorcode", Value(static_cast<std::uint64_t>(error.code)));
        reply_.set("error", error.description ? Value(*error.description) : Value());
        done();
        return;
    }
    failMessage(code, error.localizedDescription());
}

bool Transaction::marshalPaths(PathStep step, std::function<void()> walked)
{
    if (!request_.arrayForKey("paths")) {
        failMessage(4, "invalid request format");
        return false;
    }
    walk_ = std::make_unique<PathWalk>(PathWalk{std::move(step), std::move(walked), 0});
    if (sliceEnd_ == std::chrono::steady_clock::time_point{})
        startSlice(); // walked outside dispatch()
    return continueWalk();
}

bool Transaction::continueWalk()
{
    const Array& paths = *request_.arrayForKey("paths");
    // At least one element per slice, so that a walk always advances.
    for (std::size_t inSlice = 0; walk_->next < paths.size(); ++inSlice) {
        if (inSlice > 0 && std::chrono::steady_clock::now() >= sliceEnd_)
            return true; // yield: the rest runs on the client's next turn
        const std::string* path = paths[walk_->next++].asString();
        if (!path) {
            walk_.reset();
            failMessage(4, "invalid request format");
            return false;
        }
        if (path->empty() || (*path)[0] != '/') {
            walk_.reset();
            failMessage(9, formatString("absolute path required: %s", *path));
            return false;
        }
        // The file system would read such a path only up to its NUL: a
        // different file from the one named.
        if (path->find('\0') != std::string::npos) {
            failMessage(9, formatString("invalid path: %@", *path));
            return false;
        }
        std::error_code ec;
        auto canonical = std::filesystem::canonical(*path, ec);
        bool goOn = ec ? walk_->step(*path, false) : walk_->step(canonical.string(), true);
        if (!goOn) {
            walk_.reset();
            return false;
        }
    }
    auto walk = std::move(walk_);
    if (walk->walked)
        walk->walked();
    return true;
}

bool Transaction::processPaths(PathStep step)
{
    return marshalPaths(std::move(step), [this] { done(); });
}

bool Transaction::processUuidList(const UuidStep& step)
{
    const Array* uuids = request_.arrayForKey("uuids");
    if (!uuids) {
        failMessage(4, "invalid request format (uuid)");
        return false;
    }
    auto db = server();
    for (const Value& element : *uuids) {
        const Uuid* uuid = element.asUuid();
        if (!uuid) {
            failMessage(4, "invalid request (bad uuid array)");
            return false;
        }
        // A UUID value always carries its 16 bytes (the decoder refuses any
        // other length), so making a UUID of it cannot fail here; the refusal
        // "invalid request (uuid allocation failure)" is never needed.
        auto plugIn = db->findPlugIn(*uuid);
        if (!plugIn) {
            failMessage(4, "no such plugin (uuid not found)");
            return false;
        }
        if (!step(plugIn))
            return false;
    }
    return true;
}

void Transaction::addPlugIns()
{
    auto db = server();
    processPaths([this, db](const std::string& path, bool resolved) {
        if (!resolved) {
            failMessage(9, formatString("invalid plugin path: %@", path));
            return false;
        }
        TvdTrace::pluginAdd(path);
        if (db->addPlugIn(Value::fileURL(path))) {
            TvLog::ops().notice("failed to register plug-in at %@", path);
            failMessage(2, formatString("unable to register plug-in at %@", path));
            return false;
        }
        return true;
    });
}

void Transaction::removePlugIns()
{
    auto db = server();
    processPaths([this, db](const std::string& path, bool resolved) {
        TvdTrace::pluginRemove(path, resolved);
        if (!client_->hasEntitlement(kManagerEntitlement)) {
            // Refusals of privileged requests go to the console log, where
            // an administrator looks for them.
            TvLog::defaultLog().notice(
                "refused request from pid=%d to remove plug-in at %{public}@ - client lacks required entitlement",
                client_->pid(), path);
            failMessage(11, "caller lacks entitlement for this operation");
            return false;
        }
        if (db->removePlugIn(Value::fileURL(path))) {
            failMessage(9, formatString("no plugin at %@", path));
            return false;
        }
        return true;
    });
}

void Transaction::bulkPlugIns()
{
    std::uint64_t flags = request_.uint64ForKey("flags");
    TvLog::ops().info("bulk options 0x%lx not supported", flags);
    done();
}

} // namespace tv
