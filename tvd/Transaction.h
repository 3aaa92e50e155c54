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
// All transactions run one at a time on the server's "service" queue.
#pragma once

#include "base/TvError.h"
#include "platform/ipc/Message.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

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

    // Serves the request. REQUIRES: on the "service" queue, called once.
    void dispatch();

    void done();
    void failMessage(std::uint64_t code, const std::string& message);
    void failError(std::uint64_t code, const TvError& error);

    // Walks "paths": true when every path was walked (an empty array is walked
    // at once); false after the request was ended with a failure.
    bool marshalPaths(const PathStep& step);
    // marshalPaths(), and the success reply when it returns true.
    bool processPaths(const PathStep& step);

    // Walks "uuids", resolving each element to a registered plug-in through
    // the registry database: true when every element was walked (an empty
    // array at once); false after the request was ended with a failure (code
    // 4: not an array, an element that is not a UUID, a UUID the registry
    // does not know). Sends no reply on success: the handler does.
    bool processUuidList(const UuidStep& step);

    // Handlers, one per request type.
    void addPlugIns();
    void removePlugIns();
    void bulkPlugIns();

    const std::shared_ptr<TvdVynClient>& client() const { return client_; }
    const platform::Message& request() const { return request_; }
    platform::Message& reply() { return reply_; }
    std::uint64_t version() const { return version_; }
    bool replied() const { return replied_; }
    std::shared_ptr<TvdServer> server() const;
    std::shared_ptr<platform::VynConnection> connection() const;

private:
    void route(const std::string& type);

    std::shared_ptr<TvdVynClient> client_;
    platform::Message request_;
    platform::Message reply_;
    bool replyRoutable_ = false;
    bool replied_ = false;
    std::uint64_t version_ = 0;
};

} // namespace tv
