// LinuxVynConnection: one IPC connection over a Unix stream socket, either
// accepted by a listener (daemon side) or made by VynService::connect
// (client side).
//
// Reading, decoding and connection state live on the service's VynRuntime
// thread. Writing does not: send() and sendWithReply() encode and write the
// frame on the calling thread when nothing is queued before it (the output
// side is guarded by a mutex), and leave the rest to the runtime thread,
// which writes when the socket can take more. While the sending thread has a
// DeferredFlush run open (the request scheduler's turns), frames are only
// queued, and each connection's frames go out in one write when the run
// ends. A daemon-side connection runs
// its event handler on the runtime thread when the connection's queue is
// idle (SerialQueue::runOrAsync), so a request costs no thread hand-off
// before it reaches the handler.
// A client-side caller waiting in sendWithReplySync() reads its reply from
// the socket itself when no other thread is reading it (the read role):
// frames that are not its reply are handed out as the runtime's thread
// would hand them out, and that thread leaves the socket alone meanwhile.
// Events go to the event handler on the connection's queue, in the order
// the frames arrived; replies go to their own handler on the queue given
// with sendWithReply(). ConnectionInvalid is delivered exactly once and
// last, after every pending reply handler has been handed its error; after
// it the runtime no longer refers to the connection.
//
// Messages sent before resume() are queued and written once it is resumed.
//
// Limits (VynLimits) and what happens past them:
//  - a frame longer than maxRequestFrame (daemon side) or maxReplyFrame
//    (client side) cuts the connection, decided from its header alone;
//  - a garbled frame (header, body encoding, nesting deeper than maxDepth)
//    cuts the connection; a well-formed body of another kind than a
//    dictionary is delivered like any message;
//  - daemon side: every request (one-way or not) holds a ticket from the
//    frame's decoding until it has run (the last copy of its message is
//    gone) or its reply is handed to send(). Reading stops while maxInFlight
//    tickets are out, or while the decoded memory they hold would pass
//    maxQueuedPerConnection or the uid's maxQueuedPerUid (shared by all
//    connections of the uid, VynConnectionTable), and resumes as tickets
//    come back;
//  - a frame whose decoded form would take more than the smaller quota is
//    cut; read buffers grow with the bytes that arrive, never to the size a
//    header announces;
//  - daemon side: more than maxUnsentOutput bytes queued behind the frame
//    being written cuts a peer that does not read;
//  - a frame left incomplete for incompleteFrameTimeoutMs while reading
//    cuts the connection (idle time between frames is unlimited);
//  - file descriptors passed with SCM_RIGHTS are received close-on-exec and
//    closed at once.
// Every cut is logged in category "vyn" and affects only this connection.
#pragma once

#include "base/DeferredFlush.h"
#include "platform/PlatformConfig.h"
#include "platform/ipc/VynConnection.h"
#include "platform/ipc/VynConnectionTable.h"
#include "platform/ipc/VynFrame.h"
#include "platform/ipc/VynRuntime.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tv::platform {

class LinuxVynConnection final : public VynConnection,
                                 public VynRuntime::Watcher,
                                 public DeferredFlush::Target,
                                 public std::enable_shared_from_this<LinuxVynConnection> {
public:
    enum class Role { Accepted, Client };

    struct Setup {
        std::shared_ptr<VynRuntime> runtime;
        std::shared_ptr<SerialQueue> queue;
        VynLimits limits;
        Role role = Role::Client;
        // A connected, non-blocking, close-on-exec socket (owned), or -1 when
        // the connection could not be made; `failure` then says why.
        int fd = -1;
        std::string failure;
        AuditToken auditToken; // its pidfd is owned by the connection
        std::string path;      // the socket path, for descriptions
        std::unique_ptr<VynConnectionTable::Slot> slot; // accepted connections
    };

    explicit LinuxVynConnection(Setup setup);
    ~LinuxVynConnection() override;

    // VynConnection
    const AuditToken& auditToken() const override { return auditToken_; }
    void setEventHandler(EventHandler handler) override;
    void resume() override;
    void cancel() override;
    void send(Message message) override;
    void sendWithReply(Message message, std::shared_ptr<SerialQueue> queue, ReplyHandler handler) override;
    VynEvent sendWithReplySync(Message message) override;
    void setContext(std::shared_ptr<void> context) override;
    std::shared_ptr<void> context() const override;
    std::string description() const override { return description_; }

    // Delivers TerminationImminent unless the connection is closed.
    // REQUIRES: on the runtime's thread.
    void announceTermination();

    // VynRuntime::Watcher
    void handleEvents(std::uint32_t events) override;
    void shutdown() override;

    // DeferredFlush::Target: writes the output queued during a run of
    // DeferredFlush on the sending thread. Any thread.
    void flushDeferred() override;

    // Bytes of the read buffer, for diagnostics and tests. Any thread.
    std::size_t readBufferSize() const { return readBufferSize_.load(); }
    // Room made for the next read: what has arrived of the frame so far
    // (at least one chunk), never more than the frame still misses.
    static std::size_t readRoom(std::size_t buffered, std::size_t frameMissing);

private:
    struct PendingReply {
        // Null: the handler is the transport's own hand-over to a waiting
        // caller and runs on the thread that has the answer.
        std::shared_ptr<SerialQueue> queue;
        ReplyHandler handler;
    };

    // A reason to close the connection found while writing.
    struct Failure {
        std::string reason;
        bool cut = false;
    };
    class Ticket;

    // Runtime's thread.
    void start();
    void readAvailable();
    void resumeReading();
    void checkIncompleteFrame();
    // The turn's frames are spent with complete frames left in the buffer:
    // another turn is posted for them.
    void endTurnEarly();
    // Gives the read buffer back (it grows with big frames).
    void releaseReadBuffer();

    // The thread that holds the read role (the runtime's, or a waiting
    // caller's on the client side): reads what the socket has, up to
    // `budget` bytes, and hands out the complete frames. Returns why the
    // connection must close, if it must.
    std::optional<Failure> readSocket(int fd, std::size_t budget);
    std::optional<Failure> processFrames();
    std::optional<Failure> dispatch(Message message, std::size_t cost);

    // Client side: the read role. A caller takes it only when no one reads
    // and no partial frame is buffered, and gives it back when its answer
    // came (`answered`) or the connection failed.
    bool beginRuntimeRead();
    void endRuntimeRead();
    void readAsCaller(const std::function<bool()>& answered);
    // Whether a request reserving `reserve` decoded bytes may be read now;
    // when not, reading is marked paused, to be resumed by a finished
    // request of this connection or by the uid's quota freeing up.
    bool mayDecode(std::size_t reserve);
    // Wakes connections that waited for their uid's quota and gives freed
    // memory back to the system when the table asks for it.
    static void afterRelease(const VynConnectionTable::Released& freed);
    void setReading(bool reading);
    void updateIncompleteFrameTimer();
    void close(const std::string& reason, bool cut);

    // Any thread, with outMutex_ held.
    std::optional<Failure> enqueueLocked(Bytes frame);
    std::optional<std::string> flushLocked();
    void updateInterestLocked();
    // The ticket of an unanswered request, taken out of the table: its
    // reply is being sent.
    std::shared_ptr<Ticket> answeredLocked(std::uint64_t requestId);
    std::pair<std::unordered_map<std::uint64_t, std::weak_ptr<Ticket>>::iterator, bool>
    rememberUnansweredLocked(std::uint64_t requestId, const std::shared_ptr<Ticket>& ticket);
    void forgetUnansweredLocked(std::unordered_map<std::uint64_t, std::weak_ptr<Ticket>>::iterator it);

    // Any thread: a ticket came back (its request ran or was answered).
    // Counts the request done; true when reading waits to resume.
    bool requestDone(std::uint64_t requestId, const Ticket* ticket, std::size_t bytes);
    bool requestDoneLocked(std::size_t bytes); // with outMutex_ held

    // Any thread.
    // Closes the connection for a failure found while writing, on the
    // runtime's thread.
    void afterWrite(std::optional<Failure> failure);
    void deliverEvent(VynEvent event);
    void deliverInvalidOnce();
    static void failReply(const std::shared_ptr<PendingReply>& pending, VynError error);
    static void deliverReply(const std::shared_ptr<PendingReply>& pending, VynEvent answer);
    void sendRequest(Message message, std::shared_ptr<PendingReply> pending);
    std::size_t readLimit() const;

    const std::shared_ptr<VynRuntime> runtime_;
    const std::shared_ptr<SerialQueue> queue_;
    const VynLimits limits_;
    const Role role_;
    AuditToken auditToken_;
    const std::string description_;

    mutable std::mutex mutex_;
    std::shared_ptr<const EventHandler> handler_;
    std::shared_ptr<void> context_;
    std::atomic<bool> invalidDelivered_{false};
    std::atomic<bool> resumeRequested_{false};

    // Runtime's thread only; the fields also under outMutex_ are written
    // with it held, so that other threads may read them under it.
    int fd_;                 // also outMutex_
    std::string failure_;
    std::unique_ptr<VynConnectionTable::Slot> slot_;
    bool resumed_ = false;
    bool closed_ = false;    // also outMutex_
    bool watched_ = false;   // also outMutex_
    bool reading_ = true;    // also outMutex_

    Bytes in_;
    std::size_t inStart_ = 0;
    std::size_t inEnd_ = 0;
    std::optional<VynFrame::Header> header_; // of the frame being read
    std::uint64_t framesRead_ = 0;
    std::optional<VynRuntime::TimerId> incompleteTimer_;
    std::uint64_t incompleteTimerFrame_ = 0;
    // Daemon side: frames this turn may still hand out, whether complete
    // frames wait in in_ for the next turn, and whether that turn is posted.
    std::size_t turnFramesLeft_ = 0;
    bool framesLeftOver_ = false;
    bool turnPosted_ = false;

    // The output side and the request bookkeeping, shared by the writing
    // threads and the runtime's thread.
    std::mutex outMutex_;
    bool writing_ = false;
    bool flushDeferred_ = false; // registered with the sending thread's run
    std::uint32_t interest_ = 0;
    std::deque<Bytes> out_;
    std::size_t outOffset_ = 0;  // bytes of out_.front() already written
    std::size_t outPending_ = 0; // unwritten bytes in out_
    std::uint64_t nextMessageId_ = 1;
    std::unordered_map<std::uint64_t, std::shared_ptr<PendingReply>> pending_;
    // Daemon side: tickets of requests expecting a reply, by message id, and
    // what all tickets out hold.
    using Unanswered = std::unordered_map<std::uint64_t, std::weak_ptr<Ticket>>;
    Unanswered unanswered_;
    std::vector<Unanswered::node_type> spareUnanswered_; // emptied entries, reused
    std::size_t inFlight_ = 0;
    std::size_t queuedBytes_ = 0;
    bool readingPaused_ = false; // reading stopped for tickets or quota
    // Client side: who holds the read role (in_, inStart_, inEnd_, header_,
    // framesRead_ and the reading of the socket). While a caller reads, the
    // socket is watched one-shot and only for output, so the runtime's
    // thread is not woken for the caller's input nor, over and over, for a
    // hangup; `disarmed_`: such a report came and the watch is spent.
    bool callerReads_ = false;
    bool runtimeReads_ = false;
    bool partialBuffered_ = false; // part of a frame waits in the read buffer
    bool readFailed_ = false;      // a caller found the connection broken; its close is posted
    bool disarmed_ = false;
    std::atomic<std::size_t> readBufferSize_{0};
};

} // namespace tv::platform
