// Transaction: one request being served.
//
// It holds the request, the reply under construction and the requesting
// client; dispatch() checks the protocol version, picks the handler by
// request type, and the request ends with exactly one reply sent through
// done(), failMessage() or failError(). A second attempt to reply is refused
// (logged, nothing sent), so no request is ever answered twice.
//
// Open cases, decided here:
//  - A request sent without a reply expected is served all the same, and
//    the reply it would have had is discarded: a one-way message still takes
//    effect, as the sender asked.
//  - A reply whose connection is already gone is dropped (the client cannot
//    receive it); only the version refusal can get there, since it comes
//    before the check for a dead client.
//
// Long requests yield: a walk over "paths", "uuids", the entries of a
// "bulk-annotate" dictionary or the candidates of a "match" stops between elements once the request has run
// for the server's request time slice, and resume() goes on with it on the
// client's next turn (docs/requests.md, "Fairness"), so that
// other clients' requests run in between. The request still ends with
// exactly one reply.
//
// All transactions run one at a time on the server's "service" queue.
#pragma once

#include "base/TvError.h"
#include "base/Value.h"
#include "platform/ipc/Message.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tv {

class TvdServer;
class TvdVynClient;
class TvdPlugIn;

namespace platform {
class VynConnection;
}

class Transaction {
public:
    // A step of the path walker: the path (canonical when resolved, else as
    // received) and whether it resolved; returns whether to go on. A step
    // that stops the walk has already ended the request with a failure.
    using PathStep = std::function<bool(const std::string& path, bool resolved)>;
    // A step of the UUID walker: a registered plug-in named by the request;
    // returns whether to go on, with the same contract as PathStep.
    using UuidStep = std::function<bool(const std::shared_ptr<TvdPlugIn>& plugIn)>;

    static constexpr std::uint64_t kCurrentVersion = 3;
    // The entitlement of clients that manage the registry.
    static constexpr const char* kManagerEntitlement = "com.veltra.private.tarvik.manager";

    Transaction(platform::Message request, std::shared_ptr<TvdVynClient> client);
    ~Transaction();

    // Serves the request, or its first slice. REQUIRES: on the "service"
    // queue, called once.
    void dispatch();
    // Serves the next slice of a request that yielded; true when nothing is
    // left to do (also when it was already finished). A request whose client
    // died meanwhile is dropped without a reply. REQUIRES: on "service".
    bool resume();
    // True while a walk is left to resume.
    bool suspended() const { return walk_ != nullptr; }

    void done();
    void failMessage(std::uint64_t code, const std::string& message);
    void failError(std::uint64_t code, const TvError& error);

    // Walks "paths", calling `walked` once every path was walked (at once for
    // an empty array). The walk yields between elements when the time slice
    // is used up; resume() continues it. Returns false when the walk has
    // already ended the request with a failure, else true (walked, or
    // suspended to be resumed).
    bool marshalPaths(PathStep step, std::function<void()> walked);
    // marshalPaths() with the success reply sent once every path was walked.
    bool processPaths(PathStep step);

    // Walks "uuids", resolving each element to a registered plug-in through
    // the registry database: true when every element was walked (an empty
    // array at once); false after the request was ended with a failure (code
    // 4: not an array, an element that is not a UUID, a UUID the registry
    // does not know). Sends no reply on success: the handler does.
    bool processUuidList(const UuidStep& step);
    // processUuidList() that yields between elements like marshalPaths(),
    // calling `walked` once every element was walked. Returns false when the
    // walk has already ended the request with a failure, else true.
    bool marshalUuids(UuidStep step, std::function<void()> walked);

    // Handlers, one per request type.
    void addPlugIns();
    void removePlugIns();
    void bulkPlugIns();
    // "match": the forms of the plug-ins that answer the host's query
    // (docs/match.md).
    void matchPlugIns();
    // "ready": checks every named plug-in, then enables the kept ones for
    // the client's process (TvdPlugIn::enableForClient).
    void readyPlugIns();
    // "access": one read-only token per named plug-in's bundle.
    void accessPlugIns();
    void annotatePlugIns();
    void bulkAnnotatePlugIns();
    // "lock": places a hold on plug-ins named by path, or releases holds by
    // token (docs/requests.md, "Holds").
    void lockDownPlugIns();

    const std::shared_ptr<TvdVynClient>& client() const { return client_; }
    const platform::Message& request() const { return request_; }
    platform::Message& reply() { return reply_; }
    std::uint64_t version() const { return version_; }
    bool replied() const { return replied_; }
    std::shared_ptr<TvdServer> server() const;
    std::shared_ptr<platform::VynConnection> connection() const;

private:
    // Handles one element of a walk; false when it ended the request.
    using WalkElement = std::function<bool()>;
    struct Walk;
    struct MatchWork;

    void route(const std::string& type);
    // Runs `serve` with broken invariants ending this request only.
    void guarded(const char* type, const std::function<void()>& serve);
    void startSlice();
    // Starts a walk of `count` elements, handled in order by `element`;
    // `walked` runs once all were. False when the walk ended the request.
    bool walk(std::size_t count, WalkElement element, std::function<void()> walked);
    // Walks on from walk_; false when a step or check ended the request.
    bool continueWalk();
    bool walkPath(const Value& element, const PathStep& step);
    bool walkUuid(const Value& element, const UuidStep& step);
    // Ends a "match" once every candidate was looked at: annotations,
    // override marks, the reply.
    void replyMatches(TvdServer& db, MatchWork& work);
    void releaseHolds(const Array& tokens);
    void placeHold();
    // Makes the hold on `plugIns` for the client, adds it to the server's
    // table and replies with its token.
    void grantHold(const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns);

    std::shared_ptr<TvdVynClient> client_;
    platform::Message request_;
    platform::Message reply_;
    bool replyRoutable_ = false;
    bool replied_ = false;
    std::uint64_t version_ = 0;
    std::unique_ptr<Walk> walk_;
    std::chrono::steady_clock::time_point sliceEnd_;
};

} // namespace tv
