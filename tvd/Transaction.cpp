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
    {"annotate", &Transaction::annotatePlugIns},
    {"bulk-annotate", &Transaction::bulkAnnotatePlugIns},
    {"lock", nullptr},
}};

} // namespace

// A walk over the elements of a request's array or dictionary that may span
// several slices. The request is never changed while it is served, so what
// `element` refers to stays valid between slices.
struct Transaction::Walk {
    std::size_t count = 0;
    WalkElement element;
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
    const Array* paths = request_.arrayForKey("paths");
    if (!paths) {
        failMessage(4, "invalid request format");
        return false;
    }
    auto element = [this, paths, step = std::move(step)] { return walkPath((*paths)[walk_->next], step); };
    return walk(paths->size(), std::move(element), std::move(walked));
}

bool Transaction::walk(std::size_t count, WalkElement element, std::function<void()> walked)
{
    walk_ = std::make_unique<Walk>(Walk{count, std::move(element), std::move(walked), 0});
    if (sliceEnd_ == std::chrono::steady_clock::time_point{})
        startSlice(); // walked outside dispatch()
    return continueWalk();
}

bool Transaction::continueWalk()
{
    // At least one element per slice, so that a walk always advances.
    for (std::size_t inSlice = 0; walk_->next < walk_->count; ++inSlice) {
        if (inSlice > 0 && std::chrono::steady_clock::now() >= sliceEnd_)
            return true; // yield: the rest runs on the client's next turn
        bool goOn = walk_->element();
        if (!goOn) {
            // Whatever ended the request ends the walk: nothing after the
            // failing element is handled, on this turn or a later one.
            walk_.reset();
            return false;
        }
        ++walk_->next;
    }
    auto walk = std::move(walk_);
    if (walk->walked)
        walk->walked();
    return true;
}

bool Transaction::walkPath(const Value& element, const PathStep& step)
{
    const std::string* path = element.asString();
    if (!path) {
        failMessage(4, "invalid request format");
        return false;
    }
    if (path->empty() || (*path)[0] != '/') {
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
    return ec ? step(*path, false) : step(canonical.string(), true);
}

bool Transaction::processPaths(PathStep step)
{
    return marshalPaths(std::move(step), [this] { done(); });
}

bool Transaction::walkUuid(const Value& element, const UuidStep& step)
{
    const Uuid* uuid = element.asUuid();
    if (!uuid) {
        failMessage(4, "invalid request (bad uuid array)");
        return false;
    }
    // A UUID value always carries its 16 bytes (the decoder refuses any
    // other length), so making a UUID of it cannot fail here; the refusal
    // "invalid request (uuid allocation failure)" is never needed.
    auto plugIn = server()->findPlugIn(*uuid);
    if (!plugIn) {
        failMessage(4, "no such plugin (uuid not found)");
        return false;
    }
    return step(plugIn);
}

bool Transaction::processUuidList(const UuidStep& step)
{
    const Array* uuids = request_.arrayForKey("uuids");
    if (!uuids) {
        failMessage(4, "invalid request format (uuid)");
        return false;
    }
    for (const Value& element : *uuids)
        if (!walkUuid(element, step))
            return false;
    return true;
}

bool Transaction::marshalUuids(UuidStep step, std::function<void()> walked)
{
    const Array* uuids = request_.arrayForKey("uuids");
    if (!uuids) {
        failMessage(4, "invalid request format (uuid)");
        return false;
    }
    auto element = [this, uuids, step = std::move(step)] { return walkUuid((*uuids)[walk_->next], step); };
    return walk(uuids->size(), std::move(element), std::move(walked));
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
            TvLog::console("refused request from pid=%d to remove plug-in at %@ - client lacks required entitlement",
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

namespace {

// The plug-in's identifier and UUID as the annotation log lines show them.
std::string identifierText(const TvdPlugIn& plugIn)
{
    return plugIn.identifier().value_or("(null)");
}

std::string uuidText(const TvdPlugIn& plugIn)
{
    auto uuid = plugIn.uuid();
    return uuid ? uuid->string() : "(null)";
}

} // namespace

void Transaction::annotatePlugIns()
{
    const Value& annotations = request_.get("annotations");
    if (!annotations.isDictionary()) {
        failMessage(4, "invalid request format (bad annotations dictionary)");
        return;
    }
    // The change holds only "election" and "extension"; both are checked
    // before anything is stored, so a malformed change stores nothing.
    Value change = Value::emptyDictionary();
    if (const Value& election = annotations["election"]; !election.isNull()) {
        if (!election.isNumber()) {
            failMessage(4, "invalid request format (annotation election)");
            return;
        }
        change = change.with("election", election);
    }
    if (const Value& extension = annotations["extension"]; !extension.isNull()) {
        if (!extension.isDictionary()) {
            failMessage(4, "invalid request format (annotation extension)");
            return;
        }
        change = change.with("extension", extension);
    }
    if (change.asDictionary()->empty()) {
        done(); // nothing to store, nothing to broadcast; "uuids" is not read
        return;
    }
    auto db = server();
    auto step = [this, db, change](const std::shared_ptr<TvdPlugIn>& plugIn) {
        TvLog::ops().debug("client %d plug-in %@(%{public}@) annotation change: %@", client_->pid(),
                           identifierText(*plugIn), uuidText(*plugIn), change);
        if (const Value& election = change["election"]; !election.isNull())
            TvLog::ops().info("client %d plug-in %@(%{public}@) election := %@", client_->pid(),
                              identifierText(*plugIn), uuidText(*plugIn), election);
        db->setAnnotationForPlugIn(change, *plugIn);
        return true;
    };
    // One notification for the whole request, and only when every plug-in
    // was changed.
    marshalUuids(step, [this, db] {
        db->notifyAnnotationChange();
        done();
    });
}

void Transaction::bulkAnnotatePlugIns()
{
    const Dictionary* annotations = request_.dictionaryForKey("annotations");
    if (!annotations) {
        failMessage(4, "invalid request format (bad annotations dictionary)");
        return;
    }
    TvLog::ops().debug("bulk change requested for %u plug-ins", annotations->size());
    auto db = server();
    // Entries are handled in the dictionary's order, one per walk element;
    // the walk visits indices in order, so one iterator follows it.
    auto element = [this, db, entry = annotations->begin()]() mutable {
        const auto& [key, value] = *entry++;
        if (!value.isDictionary()) {
            failMessage(18, "annotations values must be dictionaries");
            return false;
        }
        auto uuid = Uuid::parse(key);
        if (!uuid) {
            failMessage(18, "invalid plug-in UUID value");
            return false;
        }
        auto plugIn = db->findPlugIn(*uuid);
        if (!plugIn) {
            failMessage(2, "no plug-in with the requested uuid");
            return false;
        }
        TvLog::ops().debug("client %d bulk plug-in %@(%{public}@) annotation change: %@", client_->pid(),
                           identifierText(*plugIn), uuidText(*plugIn), value);
        // "extension" is replaced whole; "election" is left as it is.
        db->setAnnotationForPlugIn(Value::emptyDictionary().with("extension", value), *plugIn);
        return true;
    };
    // An empty dictionary walks nothing and still broadcasts.
    walk(annotations->size(), std::move(element), [this, db] {
        db->notifyAnnotationChange();
        done();
    });
}

} // namespace tv
