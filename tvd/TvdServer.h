// TvdServer: the daemon's one server object. It owns the IPC listener under
// the daemon's service name, the three work queues and the table of plug-in
// holds, and it is the registry database (TvDatabase) and its own delegate.
//
// Queues:
//   "vyn"        the listener's events and every client connection's events;
//   "service"    every request handler, one at a time (user-initiated
//                priority), and the job manager's completions. Requests are
//                served through a round-robin scheduler: clients take turns,
//                each client's requests run in arrival order, and a long
//                request yields after the request time slice;
//   "serverSync" every read and change of the hold table, always entered
//                synchronously;
//   "identify"   reading who a new client is (executable, bundle,
//                entitlements), off the paths of established connections.
//
// Thread-safety: the accessors may be called from any thread. The hold table
// is only touched on "serverSync".
#pragma once

#include "base/RoundRobinScheduler.h"
#include "tvd/TvDatabase.h"
#include "tvd/TvdPlatform.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tv {

namespace platform {
class VynListener;
class VynConnection;
} // namespace platform

class TvdVynClient;
class TvdPlugInHold;
class TvdStatusService;
class TvdUserPrefs;

class TvdServer final : public TvDatabase,
                        public TvDatabaseDelegate,
                        public std::enable_shared_from_this<TvdServer> {
public:
    // Builds the server for `serviceName` with the annotation file at
    // `database` (null: default location): the registry database first, then
    // the queues, the suspended listener, the empty hold table, the
    // process-wide server pointer, the delegate role and the listener's
    // handler. Null when the database or the listener cannot be made.
    static std::shared_ptr<TvdServer> initForServiceDatabase(const char* serviceName, const char* database,
                                                             TvdPlatform platform);

    // The process-wide server (the last one built), or null.
    static std::shared_ptr<TvdServer> server();

    // Resumes the listener and enters the main event loop, which returns only
    // when the process should end (SIGTERM, or idleness of a socket-activated
    // daemon), with the status to exit with.
    int run();

    // Schedules `work` on the "service" queue and returns at once.
    void submitWork(std::function<void()> work);

    // TvDatabaseDelegate: asks the job manager to terminate the running
    // instances of each uninstalled plug-in, in list order, without waiting;
    // each completion logs one line on the "service" queue.
    void removedPlugIns(const std::vector<platform::RegistryPlugInRecordPtr>& plugIns) override;

    // Serves clients' requests in turns on the "service" queue.
    const std::shared_ptr<RoundRobinScheduler>& requestScheduler() const { return requestScheduler_; }
    // How long one request runs before it yields to other clients' requests
    // (between elements of the arrays it walks). 10 ms by default.
    std::chrono::nanoseconds requestTimeSlice() const { return std::chrono::nanoseconds(requestTimeSlice_.load()); }
    void setRequestTimeSlice(std::chrono::nanoseconds slice) { requestTimeSlice_.store(slice.count()); }

    // --- Plug-in holds (docs/match.md, "Holds") ----------------------------
    // Each runs its whole work synchronously on "serverSync" and returns when
    // it is done; none may be called from "serverSync" itself.

    // True when some hold in the table blocks `plugIn`.
    bool holdOnPlugIn(const TvdPlugIn& plugIn);
    // For each of `plugIns`, whether some hold blocks it: the table read in
    // one visit of "serverSync" rather than one per plug-in.
    std::vector<bool> holdsOnPlugIns(const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns);
    // Holds in the table placed by clients of one uid, at most: each is
    // memory and a keep-alive transaction, and every "match" looks at all.
    static constexpr std::size_t kMaxHoldsPerUid = 256;
    // Appends `hold` to the table, then (off the queue) posts the
    // annotation-change notification. False, and nothing added or posted,
    // when the hold's uid has kMaxHoldsPerUid holds in the table.
    bool addHold(std::shared_ptr<TvdPlugInHold> hold);
    // Releases the hold with this token, if there is one, and posts the
    // notification; nothing happens (and nothing is posted) otherwise.
    void unholdToken(const Uuid& token);
    // Releases every hold placed by `client` (its connection died), posting
    // one notification per released hold.
    void unholdClient(const std::shared_ptr<TvdVynClient>& client);
    // The number of holds in the table (diagnostics, tests).
    std::size_t holdCount();

    std::uint32_t verbose() const { return verbose_.load(); }
    void setVerbose(std::uint32_t v) { verbose_.store(v); }
    const std::shared_ptr<SerialQueue>& vynQueue() const { return vynQueue_; }
    const std::shared_ptr<SerialQueue>& mainQueue() const { return mainQueue_; }
    const std::shared_ptr<SerialQueue>& syncQueue() const { return syncQueue_; }
    const std::shared_ptr<SerialQueue>& identifyQueue() const { return identifyQueue_; }
    const std::shared_ptr<platform::VynListener>& service() const { return service_; }
    const TvdPlatform& platform() const { return platform_; }
    // The daemon's preferences (global exclusions), made last at construction.
    std::shared_ptr<TvdUserPrefs> userPrefs() const { return userPrefs_.load(); }
    void setUserPrefs(std::shared_ptr<TvdUserPrefs> prefs) { userPrefs_.store(std::move(prefs)); }
    const std::string& serviceName() const { return serviceName_; }

    // For the status listener (TvdStatusService): when the server was built
    // and how many requests it has begun to serve since.
    std::chrono::steady_clock::time_point startTime() const { return startTime_; }
    std::uint64_t requestsServed() const { return requestsServed_.load(std::memory_order_relaxed); }
    void noteRequestServed() { requestsServed_.fetch_add(1, std::memory_order_relaxed); }

private:
    explicit TvdServer(TvdPlatform platform) : platform_(std::move(platform)) {}
    void acceptConnection(const std::shared_ptr<platform::VynConnection>& connection);

    TvdPlatform platform_;
    std::string serviceName_;
    std::atomic<std::uint32_t> verbose_{0};
    std::shared_ptr<SerialQueue> vynQueue_;
    std::shared_ptr<SerialQueue> mainQueue_;
    std::shared_ptr<platform::VynListener> service_;
    std::shared_ptr<TvdStatusService> status_;
    const std::chrono::steady_clock::time_point startTime_ = std::chrono::steady_clock::now();
    std::atomic<std::uint64_t> requestsServed_{0};
    std::atomic<std::shared_ptr<TvdUserPrefs>> userPrefs_;
    std::vector<std::shared_ptr<TvdPlugInHold>> holds_; // only on syncQueue_
    std::shared_ptr<SerialQueue> syncQueue_;
    std::shared_ptr<SerialQueue> identifyQueue_;
    std::shared_ptr<RoundRobinScheduler> requestScheduler_;
    std::atomic<std::int64_t> requestTimeSlice_{std::chrono::nanoseconds(std::chrono::milliseconds(10)).count()};
};

} // namespace tv
