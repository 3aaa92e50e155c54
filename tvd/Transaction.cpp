#include "tvd/Transaction.h"

#include "Tarvik/TvBundle.h"
#include "Tarvik/TvDaemonClient.h"
#include "Tarvik/TvDiscoveryFlags.h"
#include "Tarvik/TvFileReadGrant.h"
#include "Tarvik/TvLog.h"
#include "Tarvik/TvMessageConversion.h"
#include "Tarvik/TvVersionComparison.h"
#include "base/EncodedDictionary.h"
#include "base/InternalInconsistency.h"
#include "base/ValueCodec.h"
#include "platform/ipc/VynConnection.h"
#include "platform/security/SandboxService.h"
#include "platform/types/TypeConformanceSnapshot.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdTrace.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdPlugInHold.h"
#include "tvd/TvdServer.h"
#include "tvd/TvdUserPrefs.h"
#include "tvd/TvdVynClient.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

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
    {"match", &Transaction::matchPlugIns},
    {"ready", &Transaction::readyPlugIns},
    {"access", &Transaction::accessPlugIns},
    {"annotate", &Transaction::annotatePlugIns},
    {"bulk-annotate", &Transaction::bulkAnnotatePlugIns},
    {"lock", &Transaction::lockDownPlugIns},
}};

// The text of a version value: a string as it is, a number in decimal,
// anything else empty.
std::string versionText(const Value& version)
{
    if (const std::string* s = version.asString())
        return *s;
    if (version.asUInt())
        return std::to_string(*version.asUInt());
    if (version.isNumber())
        return std::to_string(version.integerValue());
    return std::string();
}

std::string uuidText(const TvdPlugIn& plugIn)
{
    auto uuid = plugIn.uuid();
    return uuid ? uuid->string() : "(null)";
}

// p (not yet in the results) is preferred over the result form r when it is
// on the system volume and r is not system-resident, else when it was
// modified later (equal times prefer r).
bool preferredOver(const TvdPlugIn& p, const Value& r)
{
    if (p.onSystemVolume() && !r["systemResident"].boolValue())
        return true;
    return p.lastModified() > r["lastmodified"].integerValue();
}

} // namespace

// The working state of a "match" request, kept across its slices.
struct Transaction::MatchWork {
    // The rules evaluator, and one view of the type declarations, for every
    // candidate's rules.
    std::shared_ptr<const TvdMatchRules> rules = TvdMatchRules::shared();
    platform::TypeConformanceSnapshot types{rules->services().types};
    // The sandbox service whose grants the kept forms carry, read at the
    // first kept form.
    std::optional<std::shared_ptr<platform::SandboxService>> sandbox;
    std::optional<Array> exclusions;
    std::optional<std::string> ownPlugIns;
    std::vector<std::shared_ptr<TvdPlugIn>> candidates;
    std::vector<bool> held; // per candidate; empty under TvDiscoverAll
    // A kept form, as the record keeps it, and the override marks it gets
    // in this reply (a null mark removes the key, as Value::with() does).
    struct Result {
        Value form;
        std::shared_ptr<const EncodedDictionary> encoded; // null: encode form whole
        const std::string* identifier = nullptr;          // the form's "identifier", when a string
        std::optional<Value> overrider;
        std::optional<Value> overriding;
    };
    // Results are shared so that an override mark set through the table
    // reaches the result in the list.
    std::vector<std::shared_ptr<Result>> results;
    std::vector<std::shared_ptr<TvdPlugIn>> kept; // the plug-in of each result
    // How many results carry each identifier: a candidate whose identifier
    // no result has skips the duplicate scan, which would find nothing.
    std::unordered_map<std::string, std::size_t> identifiers;
    std::unordered_map<std::string, std::shared_ptr<Result>> overrides;
};

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

void Transaction::matchPlugIns()
{
    const Value& rules = request_.get("rules");
    if (!rules.isNull() && !rules.isDictionary()) {
        failMessage(4, "invalid request format (bad rules dictionary)");
        return;
    }
    // The request is not changed while it is served: the query stays valid
    // across slices.
    const Value* query = &rules;
    const std::uint64_t flags = request_.uint64ForKey("flags");
    const bool discoverAll = flags & TvDiscoverAll;
    if (discoverAll) {
        // A process whose sandbox cannot be asked about counts as sandboxed.
        auto sandbox = platform::sandboxService();
        if (!client_->hasEntitlement(kManagerEntitlement) || !sandbox ||
            sandbox->isProcessSandboxed(client_->pid())) {
            failMessage(11, "unauthorized discovery flag (TvDiscoverAll)");
            return;
        }
    }
    const bool allVersions = flags & TvDiscoverAllVersions;
    const bool duplicates = flags & TvDiscoverDuplicates;
    const bool systemOnly = flags & TvDiscoverSystemOnly;

    auto db = server();
    auto work = std::make_shared<MatchWork>();
    if (auto prefs = db->userPrefs())
        work->exclusions = prefs->exclusions();
    work->candidates = db->findPlugIns(*query).value_or(std::vector<std::shared_ptr<TvdPlugIn>>{});
    TvdTrace::discoverRaw(static_cast<std::uint32_t>(work->candidates.size()));

    // The host's own plug-ins directory: dedicated plug-ins are offered only
    // to the application that contains them.
    if (const auto& bundle = client_->bundle())
        work->ownPlugIns = bundle->plugInsPath();
    // The hold table as it stands when the request starts.
    if (!discoverAll)
        work->held = db->holdsOnPlugIns(work->candidates);

    // One candidate per walk element, so that a large match yields to other
    // clients' requests between candidates.
    auto element = [this, work, query, discoverAll, allVersions, duplicates, systemOnly] {
        const std::size_t c = walk_->next;
        const auto& p = work->candidates[c];
        if (!discoverAll) {
            if (!p->onSystemVolume() && (p->containingUrl().isNull() || systemOnly))
                return true;
            if (p->isDedicated() &&
                (!work->ownPlugIns || p->path().compare(0, work->ownPlugIns->size(), *work->ownPlugIns) != 0))
                return true;
            if (work->held[c])
                return true;
        }
        if (!query->isNull() && !work->rules->match(*p, *query, &work->types))
            return true;
        if (work->exclusions) {
            for (const Value& exclusion : *work->exclusions) {
                if (work->rules->match(*p, exclusion, &work->types)) {
                    TvLog::ops().debug("client %d plugin %{public}@ globally excluded", client_->pid(), uuidText(*p));
                    return true;
                }
            }
        }
        if (!discoverAll) {
            if (auto reason = p->allowForClient(*client_)) {
                TvLog::ops().debug("client %d cannot use plugin %{public}@: %{public}@", client_->pid(), uuidText(*p),
                                   *reason);
                return true;
            }
        }
        auto exported = p->exportFormOnce();
        if (!exported.ok()) {
            TvLog::ops().error("failed to export matching plug-in %{public}@: %{public}@", uuidText(*p),
                               exported.error().localizedDescription());
            return true;
        }

        // Duplicate resolution against the results so far, in order.
        auto& results = work->results;
        const std::string* identifier = (*exported)["identifier"].asString();
        auto same = identifier ? work->identifiers.find(*identifier) : work->identifiers.end();
        std::optional<std::string> version;
        for (auto it = results.begin(); same != work->identifiers.end() && it != results.end(); ++it) {
            const Value& r = (*it)->form;
            const std::string* rIdentifier = (*it)->identifier;
            if (!rIdentifier || *rIdentifier != *identifier)
                continue;
            if (!version)
                version = versionText(p->version());
            TvOrdering order = compareVersionString(*version, versionText(r["version"]));
            if (allVersions && (duplicates || order != TvOrdering::Same))
                continue; // side by side; look at the next one
            if (order == TvOrdering::Descending || (order == TvOrdering::Same && preferredOver(*p, r))) {
                if (--same->second == 0)
                    work->identifiers.erase(same);
                work->kept.erase(work->kept.begin() + (it - results.begin()));
                results.erase(it);
                break;
            }
            return true;
        }

        // Annotations are added after the walk, for the survivors only.
        auto form = std::make_shared<MatchWork::Result>();
        if (!work->sandbox)
            work->sandbox = platform::sandboxService();
        form->encoded = p->encodedHostForm(*exported, form->form, *work->sandbox);
        form->identifier = form->form["identifier"].asString();
        if (form->identifier)
            ++work->identifiers[*form->identifier];
        results.push_back(form);
        work->kept.push_back(p);

        Value replaced = p->replacedIdentifiers();
        if (const std::string* one = replaced.asString()) {
            work->overrides.insert_or_assign(*one, form);
        } else if (const Array* many = replaced.asArray()) {
            for (const Value& name : *many)
                if (const std::string* text = name.asString())
                    work->overrides.insert_or_assign(*text, form);
        }
        return true;
    };
    walk(work->candidates.size(), std::move(element), [this, db, work] { replyMatches(*db, *work); });
}

void Transaction::replyMatches(TvdServer& db, MatchWork& work)
{
    auto& results = work.results;
    // Every form carries "annotations": the stored one, else an empty
    // dictionary; read in one pass on the database queue.
    auto annotations = db.annotationsForPlugIns(work.kept);
    for (auto& a : annotations)
        if (!a.isDictionary())
            a = Value::emptyDictionary();

    if (!work.overrides.empty()) {
        for (const auto& f : results) {
            const std::string* identifier = f->form["identifier"].asString();
            if (!identifier)
                continue;
            auto o = work.overrides.find(*identifier);
            if (o == work.overrides.end())
                continue;
            Value overriderUuid = o->second->form["uuid"];
            f->overrider = overriderUuid;
            o->second->overriding = f->form["identifier"];
            TvLog::ops().info("plug-in %{public}@ overrides %{public}@", overriderUuid, f->form["uuid"]);
        }
    }

    TvLog::ops().info("match returned %u plug-ins", results.size());
    // The entries each form gets in this reply, in key order.
    auto changes = [&](std::size_t i) {
        std::vector<EncodedDictionary::Change> c{{"annotations", annotations[i]}};
        if (results[i]->overrider)
            c.emplace_back("overrider", *results[i]->overrider);
        if (results[i]->overriding)
            c.emplace_back("overriding", *results[i]->overriding);
        return c;
    };
    const auto version = static_cast<std::int64_t>(version_);
    std::optional<Value> converted;
    if (version == kCurrentProtocolVersion) {
        // The message encoding of the array of forms, each form's kept bytes
        // copied with its reply entries spliced in (EncodedDictionary).
        const auto count = static_cast<std::uint32_t>(results.size());
        Bytes out{kMessageEncodingMark, kMessageEncodingVersion};
        appendContainerHeader(out, ValueTag::Array, count);
        std::size_t size = out.size();
        for (const auto& r : results)
            size += r->encoded ? r->encoded->bytes().size() + 64 : 0;
        out.reserve(size);
        bool spliced = true;
        for (std::size_t i = 0; spliced && i < results.size(); ++i) {
            auto c = changes(i);
            spliced = results[i]->encoded && !results[i]->encoded->appendWith(out, c);
        }
        if (spliced)
            converted = Value::data(std::move(out));
    }
    if (!converted) {
        // A form without a kept encoding: the whole array is encoded.
        Array matches;
        matches.reserve(results.size());
        for (std::size_t i = 0; i < results.size(); ++i) {
            Value form = results[i]->form;
            for (auto& [key, value] : changes(i))
                form = form.with(key, std::move(value));
            matches.push_back(std::move(form));
        }
        converted = TvDaemonClient::convertToVYNVersion(Value(std::move(matches)), version);
    }
    if (!converted->isNull())
        reply_.set("matches", std::move(*converted));
    TvLog::ops().debug("reply marshalled");
    done();
}

namespace {

// The plug-in's identifier as the annotation log lines show it.
std::string identifierText(const TvdPlugIn& plugIn)
{
    return plugIn.identifier().value_or("(null)");
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

void Transaction::accessPlugIns()
{
    // Any client may read the bundles of registered plug-ins it names: no
    // entitlement, hold or host rule is checked.
    auto tokens = std::make_shared<Array>();
    auto step = [this, tokens](const std::shared_ptr<TvdPlugIn>& plugIn) {
        std::optional<std::string> token = fileReadGrant(plugIn->url());
        if (!token) {
            const int error = errno;
            failMessage(4, formatString("cannot create extension to %@: %d", plugIn->path(), error));
            return false;
        }
        tokens->push_back(Value(std::move(*token)));
        return true;
    };
    marshalUuids(step, [this, tokens] {
        reply_.set("extensions", Value(std::move(*tokens)));
        done();
    });
}

void Transaction::readyPlugIns()
{
    // Two phases: every named plug-in is checked before any is enabled.
    auto db = server();
    auto kept = std::make_shared<std::vector<std::shared_ptr<TvdPlugIn>>>();
    auto seen = std::make_shared<std::unordered_set<Uuid>>();
    auto step = [this, db, kept, seen](const std::shared_ptr<TvdPlugIn>& plugIn) {
        TvdTrace::pluginReady(uuidText(*plugIn));
        if (db->holdOnPlugIn(*plugIn)) {
            TvLog::ops().notice("denied access to %d for plugin %@(%{public}@): the plug-in is on hold",
                                client_->pid(), identifierText(*plugIn), uuidText(*plugIn));
            failMessage(11, formatString("access to plugin %@ denied: the plug-in is on hold", identifierText(*plugIn)));
            return false;
        }
        if (plugIn->isData())
            return true; // never enabled
        if (auto reason = plugIn->allowForClient(*client_)) {
            TvLog::ops().notice("denied access to %d for plugin %@(%{public}@): %{public}@", client_->pid(),
                                identifierText(*plugIn), uuidText(*plugIn), *reason);
            failMessage(11, formatString("access to plugin %@ denied: %@", identifierText(*plugIn), *reason));
            return false;
        }
        if (auto uuid = plugIn->uuid(); uuid && seen->insert(*uuid).second)
            kept->push_back(plugIn);
        return true;
    };
    marshalUuids(step, [this, kept] {
        // Every kept plug-in is enabled even after a failure, the first
        // failure being answered; enabling yields between plug-ins like the
        // checks did.
        auto first = std::make_shared<MaybeError>();
        auto enable = [this, kept, first, next = std::size_t{0}]() mutable {
            if (MaybeError error = (*kept)[next++]->enableForClient(*client_); error && !*first)
                *first = std::move(error);
            return true;
        };
        walk(kept->size(), std::move(enable), [this, first] {
            if (*first)
                failError(static_cast<std::uint64_t>((*first)->code), **first);
            else
                done();
        });
    });
}

void Transaction::lockDownPlugIns()
{
    if (const Array* tokens = request_.arrayForKey("uuids"))
        releaseHolds(*tokens);
    else
        placeHold();
}

void Transaction::releaseHolds(const Array& tokens)
{
    auto db = server();
    // One token per walk element, so that a long list yields to other
    // clients; elements that are not UUID values are skipped.
    auto element = [this, db, &tokens] {
        if (const Uuid* token = tokens[walk_->next].asUuid())
            db->unholdToken(*token);
        return true;
    };
    walk(tokens.size(), std::move(element), [this] { done(); });
}

void Transaction::placeHold()
{
    const std::uint64_t flags = request_.uint64ForKey("flags");
    auto db = server();
    auto plugIns = std::make_shared<std::vector<std::shared_ptr<TvdPlugIn>>>();
    auto step = [this, db, flags, plugIns](const std::string& path, bool resolved) {
        if (!resolved) {
            failMessage(9, formatString("invalid path: %@", path));
            return false;
        }
        if (flags == 2) {
            auto plugIn = db->findPlugInAtPath(Value::fileURL(path));
            if (!plugIn) {
                failMessage(9, formatString("no plug-in at path:%@", path));
                return false;
            }
            plugIns->push_back(std::move(plugIn));
            return true;
        }
        if (flags == 1) {
            // An application without plug-ins adds nothing.
            auto within = db->plugInsWithinApplication(Value::fileURL(path));
            if (within)
                plugIns->insert(plugIns->end(), within->begin(), within->end());
            return true;
        }
        failMessage(4, "invalid request format (unsupported hold flags)");
        return false;
    };
    marshalPaths(std::move(step), [this, flags, plugIns] {
        if (flags == 2) {
            grantHold(*plugIns);
            return;
        }
        // Each busy check reads the process table, so the plug-ins are
        // checked one per walk element and a long list yields.
        auto busy = std::make_shared<Array>();
        auto conflicts = std::make_shared<Array>();
        auto check = [this, plugIns, busy, conflicts] {
            const auto& plugIn = (*plugIns)[walk_->next];
            Value conflict = plugIn->checkBusy();
            if (!conflict.isNull()) {
                busy->push_back(Value(identifierText(*plugIn) + "(" + uuidText(*plugIn) + ")"));
                conflicts->push_back(std::move(conflict));
            }
            return true;
        };
        walk(plugIns->size(), std::move(check), [this, plugIns, busy, conflicts] {
            if (!busy->empty()) {
                TvLog::ops().debug("hold rejected. Busy plug-ins:%@", Value(std::move(*busy)));
                reply_.set("conflicts", Value(std::move(*conflicts)));
                failMessage(14, "plug-ins are busy");
                return;
            }
            grantHold(*plugIns);
        });
    });
}

void Transaction::grantHold(const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns)
{
    auto db = server();
    auto hold = TvdPlugInHold::initWithPlugInsForClient(plugIns, client_);
    const Uuid token = hold->uuid();
    if (!db->addHold(std::move(hold))) {
        failMessage(14, formatString("too many plug-in holds (at most %u per user)",
                                     static_cast<unsigned>(TvdServer::kMaxHoldsPerUid)));
        return;
    }
    // A client that died while its request was served has had its holds
    // released already (the client stops accepting work before its holds
    // are released): this one would outlive it, so it goes the same way.
    // The reply is dropped with the connection.
    if (!client_->acceptWork())
        db->unholdClient(client_);
    reply_.set("uuids", Value(token));
    TvLog::ops().debug("hold request granted uuid:%{public}@", token.string());
    done();
}

} // namespace tv
