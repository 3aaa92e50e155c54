#include "platform/ipc/LinuxVynConnection.h"

#include "base/IdleCaller.h"
#include "base/InternalInconsistency.h"
#include "base/ValueCodec.h"

#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"
#include "platform/process/ProcessResources.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace tv::platform {

namespace {

// The smallest read; larger frames get room as their bytes arrive.
constexpr std::size_t kReadChunk = 16u << 10;
// Bytes read from one connection per wake-up, and frames handed out in one
// turn, so that a fast sender cannot starve the other connections of the
// runtime: small frames cost more to hand out than to read, and a read
// brings in hundreds of them.
constexpr std::size_t kReadBudget = 1u << 20;
constexpr std::size_t kFramesPerTurn = 4;
// A read buffer larger than this is given back once it drains.
constexpr std::size_t kKeepBuffer = 64u << 10;
constexpr int kMaxIov = 64;
constexpr int kMaxPassedFds = 32;

VynError invalidError()
{
    return VynError{VynError::Kind::ConnectionInvalid, "Connection invalid"};
}

std::string describe(LinuxVynConnection::Role role, const AuditToken& t, const std::string& path)
{
    if (role == LinuxVynConnection::Role::Accepted)
        return "<vyn connection from pid " + std::to_string(t.pid) + " uid " + std::to_string(t.uid) + " on " +
               path + ">";
    return "<vyn connection to " + path + " pid " + std::to_string(t.pid) + ">";
}

// Closes every descriptor an SCM_RIGHTS message brought; returns how many.
int closePassedDescriptors(msghdr& msg)
{
    int count = 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
            continue;
        std::size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < n; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
            ::close(fd);
            ++count;
        }
    }
    return count;
}

} // namespace

// What one received request holds against its connection and uid: a place
// among the requests in flight and its decoded memory. Given back once:
// when its reply is handed to send() or when the last copy of the request's
// message is gone, whichever comes first.
class LinuxVynConnection::Ticket {
public:
    Ticket(std::weak_ptr<LinuxVynConnection> connection, std::shared_ptr<VynRuntime> runtime,
           std::shared_ptr<VynConnectionTable> table, uid_t uid, std::uint64_t requestId, std::size_t bytes)
        : connection_(std::move(connection)),
          runtime_(std::move(runtime)),
          table_(std::move(table)),
          uid_(uid),
          requestId_(requestId),
          bytes_(bytes)
    {
    }
    ~Ticket() { release(); }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    bool released() const { return released_.load(); }
    std::size_t bytes() const { return bytes_; }

    // Any thread, holding none of the connection's locks. The bookkeeping
    // is done here; the runtime's thread is woken only when reading must
    // resume, another connection waits for the uid's quota or memory is to
    // be given back.
    void release()
    {
        if (!claim())
            return;
        bool resume = false;
        if (auto c = connection_.lock())
            resume = c->requestDone(requestId_, this, bytes_);
        releaseClaimed(resume);
    }

    // True for the one caller that gives the ticket back. One that holds
    // the connection's output lock (a reply being sent) counts the request
    // done under it and finishes with releaseClaimed() after the lock.
    bool claim() { return !released_.exchange(true); }

    // Gives back the uid's share; `resume`: the connection counted the
    // request done and its reading waits to resume.
    void releaseClaimed(bool resume)
    {
        VynConnectionTable::Released freed;
        if (table_)
            freed = table_->release(uid_, bytes_);
        if (!resume && freed.waiters.empty() && !freed.trimMemory)
            return;
        runtime_->post([connection = connection_, resume, freed = std::move(freed)] {
            if (resume)
                if (auto c = connection.lock())
                    c->resumeReading();
            afterRelease(freed);
        });
    }

private:
    const std::weak_ptr<LinuxVynConnection> connection_;
    const std::shared_ptr<VynRuntime> runtime_;
    const std::shared_ptr<VynConnectionTable> table_;
    const uid_t uid_;
    const std::uint64_t requestId_; // 0: no reply expected
    const std::size_t bytes_;
    std::atomic<bool> released_{false};
};

void LinuxVynConnection::afterRelease(const VynConnectionTable::Released& freed)
{
    for (const auto& waiter : freed.waiters)
        if (auto c = waiter.lock())
            c->resumeReading();
    if (freed.trimMemory)
        ProcessResources::releaseFreedMemory();
}

std::size_t LinuxVynConnection::readRoom(std::size_t buffered, std::size_t frameMissing)
{
    return std::max(kReadChunk, std::min(frameMissing, buffered));
}

LinuxVynConnection::LinuxVynConnection(Setup setup)
    : runtime_(std::move(setup.runtime)),
      queue_(std::move(setup.queue)),
      limits_(setup.limits),
      role_(setup.role),
      auditToken_(setup.auditToken),
      description_(describe(setup.role, setup.auditToken, setup.path)),
      fd_(setup.fd),
      failure_(std::move(setup.failure)),
      slot_(std::move(setup.slot))
{
    if (fd_ < 0) {
        closed_ = true;
        platformLog(LogLevel::Info, "vyn", "%{public}s: %{public}s", description_, failure_);
    }
}

LinuxVynConnection::~LinuxVynConnection()
{
    if (fd_ >= 0)
        ::close(fd_);
    if (auditToken_.pidfd >= 0)
        ::close(auditToken_.pidfd);
    for (auto& [id, pending] : pending_)
        failReply(pending, invalidError());
}

void LinuxVynConnection::setEventHandler(EventHandler handler)
{
    std::lock_guard lock(mutex_);
    handler_ = std::make_shared<const EventHandler>(std::move(handler));
}

void LinuxVynConnection::setContext(std::shared_ptr<void> context)
{
    std::lock_guard lock(mutex_);
    context_ = std::move(context);
}

std::shared_ptr<void> LinuxVynConnection::context() const
{
    std::lock_guard lock(mutex_);
    return context_;
}

void LinuxVynConnection::resume()
{
    if (resumeRequested_.exchange(true))
        return;
    auto self = shared_from_this();
    if (!runtime_->post([self] { self->start(); }))
        deliverInvalidOnce();
}

void LinuxVynConnection::cancel()
{
    auto self = shared_from_this();
    bool posted = runtime_->post([self] {
        self->close("cancelled", false);
        self->deliverInvalidOnce();
    });
    if (!posted)
        deliverInvalidOnce();
}

void LinuxVynConnection::send(Message message)
{
    std::uint64_t replyTo = message.replyTo();
    auto frame = VynFrame::encode(message, false, limits_.maxDepth);
    if (!frame)
        platformLog(LogLevel::Error, "vyn", "%{public}s: message dropped: %{public}s", description_,
                    frame.error().localizedDescription());
    std::optional<Failure> failure;
    std::shared_ptr<Ticket> answered; // its uid's share is given back after the lock
    bool resume = false;
    {
        std::lock_guard lock(outMutex_);
        if (frame && !closed_) {
            VynFrame::setMessageId(*frame, nextMessageId_++);
            failure = enqueueLocked(std::move(frame).value());
        }
        // A reply that could not be encoded still answers its request, or
        // the connection would stop reading for good. The request is
        // counted done under this same lock.
        if (replyTo != 0) {
            answered = answeredLocked(replyTo);
            if (answered && answered->claim())
                resume = requestDoneLocked(answered->bytes());
            else
                answered.reset();
        }
    }
    afterWrite(std::move(failure));
    if (answered)
        answered->releaseClaimed(resume);
}

void LinuxVynConnection::sendWithReply(Message message, std::shared_ptr<SerialQueue> queue, ReplyHandler handler)
{
    sendRequest(std::move(message),
                std::make_shared<PendingReply>(PendingReply{queue ? std::move(queue) : queue_, std::move(handler)}));
}

VynEvent LinuxVynConnection::sendWithReplySync(Message message)
{
    if (runtime_->isCurrent())
        raiseInternalInconsistency("synchronous request on the thread that reads its reply");
    struct Waiter {
        std::mutex mutex;
        std::condition_variable answered;
        std::optional<VynEvent> answer;
        std::atomic<bool> done{false};
    };
    auto self = shared_from_this();
    auto waiter = std::make_shared<Waiter>();
    sendRequest(std::move(message), std::make_shared<PendingReply>(PendingReply{nullptr, [waiter](const VynEvent& a) {
                    {
                        std::lock_guard lock(waiter->mutex);
                        waiter->answer = a;
                        waiter->done.store(true, std::memory_order_release);
                    }
                    waiter->answered.notify_one();
                }}));
    // Reading the reply here saves the hand-off from the runtime's thread;
    // when another thread is reading, the answer comes from it.
    if (role_ == Role::Client && !waiter->done.load(std::memory_order_acquire))
        readAsCaller([&] { return waiter->done.load(std::memory_order_acquire); });
    std::unique_lock lock(waiter->mutex);
    waiter->answered.wait(lock, [&] { return waiter->answer.has_value(); });
    return std::move(*waiter->answer);
}

void LinuxVynConnection::readAsCaller(const std::function<bool()>& answered)
{
    int fd;
    {
        std::lock_guard lock(outMutex_);
        if (closed_ || !watched_ || !reading_ || fd_ < 0 || callerReads_ || runtimeReads_ || partialBuffered_ ||
            readFailed_)
            return;
        callerReads_ = true;
        fd = fd_;
        updateInterestLocked();
    }
    std::optional<Failure> failure;
    while (!failure && !answered()) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, -1) < 0) {
            if (errno != EINTR)
                failure = Failure{*posixError(errno, "poll").description, false};
            continue;
        }
        failure = readSocket(fd, kReadBudget);
    }
    bool partial = inEnd_ > inStart_;
    bool post = false;
    {
        std::lock_guard lock(outMutex_);
        callerReads_ = false;
        if (closed_) {
            // The connection was closed meanwhile; its socket was only shut
            // down, for this thread to close.
            ::close(fd_);
            fd_ = -1;
            releaseReadBuffer();
            return;
        }
        if (failure) {
            readFailed_ = true; // no one reads until the close below
        } else {
            if (!partial && in_.size() > kKeepBuffer)
                releaseReadBuffer();
            partialBuffered_ = partial;
            post = partial;
            updateInterestLocked();
        }
    }
    if (failure)
        runtime_->post([self = shared_from_this(), failure = std::move(*failure)] {
            self->close(failure.reason, failure.cut);
        }); // refused only while stopping, which closes the connection anyway
    else if (post)
        runtime_->post([weak = weak_from_this()] {
            if (auto self = weak.lock())
                self->checkIncompleteFrame();
        });
}

void LinuxVynConnection::sendRequest(Message message, std::shared_ptr<PendingReply> pending)
{
    auto frame = VynFrame::encode(message, true, limits_.maxDepth);
    if (!frame) {
        failReply(pending, VynError{VynError::Kind::Other,
                                    "message cannot be sent: " + frame.error().localizedDescription()});
        return;
    }
    if (role_ == Role::Client && frame->size() > limits_.maxRequestFrame) {
        failReply(pending, VynError{VynError::Kind::Other,
                                    "message of " + std::to_string(frame->size()) + " bytes exceeds the limit of " +
                                        std::to_string(limits_.maxRequestFrame) + " bytes"});
        return;
    }
    std::optional<Failure> failure;
    bool gone = false;
    {
        std::lock_guard lock(outMutex_);
        if (closed_) {
            gone = true;
        } else {
            std::uint64_t id = nextMessageId_++;
            VynFrame::setMessageId(*frame, id);
            pending_.emplace(id, pending);
            failure = enqueueLocked(std::move(frame).value());
        }
    }
    if (gone)
        failReply(pending, invalidError());
    afterWrite(std::move(failure));
}

void LinuxVynConnection::afterWrite(std::optional<Failure> failure)
{
    if (!failure)
        return;
    auto work = [self = shared_from_this(), failure = std::move(*failure)] { self->close(failure.reason, failure.cut); };
    if (runtime_->isCurrent())
        work();
    else
        runtime_->post(std::move(work)); // refused only while stopping, which closes the connection anyway
}

void LinuxVynConnection::announceTermination()
{
    if (!closed_ && resumed_)
        deliverEvent(VynError{VynError::Kind::TerminationImminent, "Termination imminent"});
}

void LinuxVynConnection::shutdown()
{
    close("the IPC service is shutting down", false);
}

// ---------------------------------------------------------------------------
// Runtime's thread

void LinuxVynConnection::start()
{
    resumed_ = true;
    if (closed_) {
        deliverInvalidOnce();
        return;
    }
    if (slot_)
        slot_->attach(weak_from_this());
    std::optional<std::string> error;
    {
        std::lock_guard lock(outMutex_);
        writing_ = !out_.empty();
        interest_ = (reading_ ? EPOLLIN | EPOLLRDHUP : 0u) | (writing_ ? EPOLLOUT : 0u);
        runtime_->watch(fd_, interest_, shared_from_this());
        watched_ = true;
        error = flushLocked();
    }
    if (error)
        close(*error, false);
}

std::optional<LinuxVynConnection::Failure> LinuxVynConnection::enqueueLocked(Bytes frame)
{
    outPending_ += frame.size();
    out_.push_back(std::move(frame));
    // While earlier output waits for the socket, the runtime's thread writes
    // this frame with it once the socket is writable. In a run of
    // DeferredFlush the frame waits for the run's end, to go out with the
    // connection's other frames of the run in one write.
    if (watched_ && !writing_) {
        if (!flushDeferred_ && DeferredFlush::active())
            flushDeferred_ = DeferredFlush::defer(shared_from_this());
        if (!flushDeferred_)
            if (auto error = flushLocked())
                return Failure{*error, false};
    }
    if (role_ != Role::Accepted || out_.empty())
        return std::nullopt;
    std::size_t behind = outPending_ - (out_.front().size() - outOffset_);
    if (behind > limits_.maxUnsentOutput)
        return Failure{std::to_string(behind) + " bytes of unsent output exceed the limit of " +
                           std::to_string(limits_.maxUnsentOutput) + " bytes",
                       true};
    return std::nullopt;
}

std::optional<std::string> LinuxVynConnection::flushLocked()
{
    while (!out_.empty()) {
        iovec iov[kMaxIov];
        int n = 0;
        for (auto it = out_.begin(); it != out_.end() && n < kMaxIov; ++it, ++n) {
            std::size_t skip = n == 0 ? outOffset_ : 0;
            iov[n].iov_base = it->data() + skip;
            iov[n].iov_len = it->size() - skip;
        }
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = static_cast<std::size_t>(n);
        ssize_t written = ::sendmsg(fd_, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            return *posixError(errno, "write").description;
        }
        auto left = static_cast<std::size_t>(written);
        outPending_ -= left;
        while (left > 0) {
            std::size_t rest = out_.front().size() - outOffset_;
            if (left >= rest) {
                left -= rest;
                out_.pop_front();
                outOffset_ = 0;
            } else {
                outOffset_ += left;
                left = 0;
            }
        }
    }
    bool wantWrite = !out_.empty();
    if (wantWrite != writing_) {
        writing_ = wantWrite;
        updateInterestLocked();
    }
    return std::nullopt;
}

void LinuxVynConnection::flushDeferred()
{
    std::optional<std::string> error;
    {
        std::lock_guard lock(outMutex_);
        flushDeferred_ = false;
        if (!closed_ && watched_ && !writing_)
            error = flushLocked();
    }
    if (error)
        afterWrite(Failure{*error, false});
}

void LinuxVynConnection::handleEvents(std::uint32_t events)
{
    if (closed_)
        return;
    bool read = role_ != Role::Client || beginRuntimeRead();
    if (events & EPOLLOUT) {
        std::optional<std::string> error;
        {
            std::lock_guard lock(outMutex_);
            error = flushLocked();
        }
        if (error) {
            close(*error, false);
            return;
        }
    }
    if (!read)
        return;
    if (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
        if (reading_)
            readAvailable();
        else if (events & (EPOLLHUP | EPOLLERR))
            close("peer closed", false); // not reading: a hangup would be reported forever
    }
    if (role_ == Role::Client)
        endRuntimeRead();
}

bool LinuxVynConnection::beginRuntimeRead()
{
    std::lock_guard lock(outMutex_);
    if (callerReads_ || readFailed_) {
        disarmed_ = true; // the one-shot watch reported; see updateInterestLocked()
        return false;
    }
    runtimeReads_ = true;
    return true;
}

void LinuxVynConnection::endRuntimeRead()
{
    std::lock_guard lock(outMutex_);
    runtimeReads_ = false;
    partialBuffered_ = inEnd_ > inStart_;
}

void LinuxVynConnection::endTurnEarly()
{
    // The frames left in the buffer are handed out in a turn of their own
    // after the other connections' turns: the socket may have nothing more
    // to report.
    framesLeftOver_ = true;
    if (turnPosted_)
        return;
    turnPosted_ = runtime_->post([weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->turnPosted_ = false;
            if (!self->closed_ && self->reading_ && self->framesLeftOver_)
                self->readAvailable();
        }
    }); // refused only while stopping, which closes the connection anyway
}

void LinuxVynConnection::checkIncompleteFrame()
{
    if (closed_ || !beginRuntimeRead())
        return; // a caller that reads now checks again when it is done
    updateIncompleteFrameTimer();
    endRuntimeRead();
}

void LinuxVynConnection::releaseReadBuffer()
{
    // Only called with nothing buffered (or on close), so the frame header
    // read last goes with the bytes.
    Bytes().swap(in_);
    inStart_ = inEnd_ = 0;
    readBufferSize_ = 0;
    header_.reset();
}

void LinuxVynConnection::readAvailable()
{
    turnFramesLeft_ = kFramesPerTurn;
    std::optional<Failure> failure;
    if (framesLeftOver_) { // from the last turn, before reading more
        framesLeftOver_ = false;
        failure = processFrames();
    }
    if (!failure)
        failure = readSocket(fd_, kReadBudget);
    if (failure) {
        close(failure->reason, failure->cut);
        return;
    }
    if (closed_)
        return;
    if (inStart_ == inEnd_ && in_.size() > kKeepBuffer)
        releaseReadBuffer();
    updateIncompleteFrameTimer();
}

std::optional<LinuxVynConnection::Failure> LinuxVynConnection::readSocket(int fd, std::size_t budget)
{
    // A daemon-side connection stops reading when its requests fill their
    // quota (processFrames), or when a handler that ran here closed it; a
    // client's runs no handler here, and a caller that reads learns of a
    // close from the socket, which is shut down.
    while (budget > 0 && (role_ == Role::Client || (reading_ && !closed_ && turnFramesLeft_ > 0))) {
        std::size_t buffered = inEnd_ - inStart_;
        std::size_t missing = header_ && header_->frameSize() > buffered ? header_->frameSize() - buffered : 0;
        std::size_t want = readRoom(buffered, missing);
        if (inStart_ == inEnd_)
            inStart_ = inEnd_ = 0;
        if (in_.size() - inEnd_ < want) {
            if (inStart_ > 0) {
                std::memmove(in_.data(), in_.data() + inStart_, inEnd_ - inStart_);
                inEnd_ -= inStart_;
                inStart_ = 0;
            }
            if (in_.size() - inEnd_ < want) {
                in_.resize(inEnd_ + want);
                readBufferSize_ = in_.capacity();
            }
        }

        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxPassedFds)];
        iovec iov{in_.data() + inEnd_, in_.size() - inEnd_};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        ssize_t n = ::recvmsg(fd, &msg, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            return Failure{*posixError(errno, "read").description, false};
        }
        if (msg.msg_controllen > 0) {
            int passed = closePassedDescriptors(msg);
            if (passed > 0 || (msg.msg_flags & MSG_CTRUNC))
                platformLog(LogLevel::Default, "vyn", "%{public}s: closed %d file descriptor(s) passed with a message",
                            description_, passed);
        }
        if (n == 0)
            return Failure{inEnd_ > inStart_ ? "peer closed in the middle of a frame" : "peer closed", false};
        inEnd_ += static_cast<std::size_t>(n);
        budget -= std::min(budget, static_cast<std::size_t>(n));
        if (auto failure = processFrames())
            return failure;
        // A short read emptied the socket: no need to ask again for EAGAIN.
        if (static_cast<std::size_t>(n) < iov.iov_len)
            break;
    }
    return std::nullopt;
}

std::optional<LinuxVynConnection::Failure> LinuxVynConnection::processFrames()
{
    for (;;) {
        if (role_ == Role::Accepted) {
            if (closed_)
                return std::nullopt;
            bool full;
            {
                std::lock_guard lock(outMutex_);
                full = inFlight_ >= limits_.maxInFlight;
                readingPaused_ = full;
            }
            if (full) {
                setReading(false);
                return std::nullopt;
            }
        }
        std::size_t available = inEnd_ - inStart_;
        if (!header_) {
            if (available < VynFrame::kHeaderSize)
                return std::nullopt;
            auto header = VynFrame::parseHeader(
                std::span<const std::uint8_t, VynFrame::kHeaderSize>(in_.data() + inStart_, VynFrame::kHeaderSize));
            if (!header)
                return Failure{"garbled frame: " + header.error().localizedDescription(), true};
            if (header->frameSize() > readLimit())
                return Failure{"frame of " + std::to_string(header->frameSize()) + " bytes exceeds the limit of " +
                                   std::to_string(readLimit()) + " bytes",
                               true};
            header_ = *header;
        }
        if (available < header_->frameSize())
            return std::nullopt;
        if (role_ == Role::Accepted) {
            if (turnFramesLeft_ == 0) {
                endTurnEarly();
                return std::nullopt;
            }
            --turnFramesLeft_;
        }
        // A request reserves the most its decoded form can cost before it is
        // decoded, and keeps what it turned out to cost.
        bool request = role_ == Role::Accepted && header_->replyTo == 0;
        std::size_t reserve = SIZE_MAX;
        if (request) {
            reserve = std::min({limits_.maxQueuedPerConnection, limits_.maxQueuedPerUid,
                                header_->bodyLength * kMaxDecodedCostPerByte + kDecodedCostOverhead});
            if (!mayDecode(reserve)) { // marks the pause
                setReading(false);
                return std::nullopt;
            }
        }
        std::size_t cost = 0;
        auto message = VynFrame::decodeBody(
            *header_, std::span<const std::uint8_t>(in_.data() + inStart_ + VynFrame::kHeaderSize, header_->bodyLength),
            limits_.maxDepth, reserve, &cost);
        inStart_ += header_->frameSize();
        header_.reset();
        ++framesRead_;
        if (request) {
            auto freed = slot_->table()->release(auditToken_.uid, message ? reserve - cost : reserve);
            if (!freed.waiters.empty() || freed.trimMemory)
                runtime_->post([freed = std::move(freed)] { afterRelease(freed); });
        }
        if (!message)
            return Failure{"garbled frame: " + message.error().localizedDescription(), true};
        // A frame with more read behind it leaves this thread work to do.
        IdleCaller::Scope idle(IdleCaller::isIdle() && inStart_ == inEnd_);
        if (auto failure = dispatch(std::move(message).value(), cost))
            return failure;
    }
}

bool LinuxVynConnection::mayDecode(std::size_t reserve)
{
    // The pause is marked under the same lock as the check: a request that
    // finishes on another thread meanwhile (requestDone) then sees the pause
    // and resumes reading, instead of finding nothing paused yet.
    std::size_t queued;
    bool full;
    {
        std::lock_guard lock(outMutex_);
        queued = queuedBytes_;
        full = queued > 0 && queued + reserve > limits_.maxQueuedPerConnection;
        if (full)
            readingPaused_ = true;
    }
    if (full) {
        platformLog(LogLevel::Debug, "vyn", "%{public}s: reading paused: %zu bytes of requests queued", description_,
                    queued);
        return false;
    }
    // A connection waiting for its uid's quota is woken through the table.
    if (!slot_->table()->reserve(auditToken_.uid, reserve, weak_from_this())) {
        {
            std::lock_guard lock(outMutex_);
            readingPaused_ = true;
        }
        platformLog(LogLevel::Debug, "vyn", "%{public}s: reading paused: quota of uid %u full", description_,
                    auditToken_.uid);
        return false;
    }
    return true;
}

std::optional<LinuxVynConnection::Failure> LinuxVynConnection::dispatch(Message message, std::size_t cost)
{
    if (message.isReply()) {
        std::shared_ptr<PendingReply> pending;
        {
            std::lock_guard lock(outMutex_);
            if (closed_)
                return std::nullopt; // a reading caller's late frame: the handlers have their error
            auto it = pending_.find(message.replyTo());
            if (it != pending_.end()) {
                pending = std::move(it->second);
                pending_.erase(it);
            }
        }
        if (!pending) {
            platformLog(LogLevel::Info, "vyn", "%{public}s: dropped a reply to unknown message %llu", description_,
                        message.replyTo());
            return std::nullopt;
        }
        deliverReply(pending, std::move(message));
        return std::nullopt;
    }
    if (role_ == Role::Client) {
        // Queued under the lock that close() marks the connection closed
        // with: an event a reading caller hands out cannot follow
        // ConnectionInvalid.
        std::lock_guard lock(outMutex_);
        if (!closed_)
            deliverEvent(std::move(message));
        return std::nullopt;
    }
    if (role_ == Role::Accepted) {
        std::uint64_t id = message.expectsReply() ? message.messageId() : 0;
        auto ticket =
            std::make_shared<Ticket>(weak_from_this(), runtime_, slot_->table(), auditToken_.uid, id, cost);
        bool reused = false;
        std::shared_ptr<Ticket> earlier; // dropped after the lock
        {
            std::lock_guard lock(outMutex_);
            ++inFlight_;
            queuedBytes_ += cost;
            if (id != 0) {
                auto [it, inserted] = rememberUnansweredLocked(id, ticket);
                if (!inserted) {
                    earlier = it->second.lock();
                    reused = earlier && !earlier->released();
                    if (!reused)
                        it->second = ticket;
                }
            }
        }
        if (reused)
            return Failure{"message id " + std::to_string(id) + " reused while its request is unanswered", true};
        message.setTicket(std::move(ticket));
    }
    deliverEvent(std::move(message));
    return std::nullopt;
}

std::shared_ptr<LinuxVynConnection::Ticket> LinuxVynConnection::answeredLocked(std::uint64_t requestId)
{
    auto it = unanswered_.find(requestId);
    if (it == unanswered_.end())
        return nullptr;
    auto ticket = it->second.lock();
    forgetUnansweredLocked(it);
    return ticket;
}

std::pair<LinuxVynConnection::Unanswered::iterator, bool>
LinuxVynConnection::rememberUnansweredLocked(std::uint64_t requestId, const std::shared_ptr<Ticket>& ticket)
{
    if (spareUnanswered_.empty())
        return unanswered_.try_emplace(requestId, ticket);
    auto node = std::move(spareUnanswered_.back());
    spareUnanswered_.pop_back();
    node.key() = requestId;
    node.mapped() = ticket;
    auto result = unanswered_.insert(std::move(node));
    if (!result.inserted) {
        result.node.mapped().reset();
        spareUnanswered_.push_back(std::move(result.node));
    }
    return {result.position, result.inserted};
}

void LinuxVynConnection::forgetUnansweredLocked(Unanswered::iterator it)
{
    // The entry's storage is kept for the next request: it was made on the
    // runtime's thread and is mostly let go on the one that replies.
    constexpr std::size_t kMaxSpare = 16;
    if (spareUnanswered_.size() >= kMaxSpare) {
        unanswered_.erase(it);
        return;
    }
    auto node = unanswered_.extract(it);
    node.mapped().reset();
    spareUnanswered_.push_back(std::move(node));
}

bool LinuxVynConnection::requestDone(std::uint64_t requestId, const Ticket* ticket, std::size_t bytes)
{
    std::shared_ptr<Ticket> held; // dropped after the lock
    std::lock_guard lock(outMutex_);
    if (requestId != 0) {
        auto it = unanswered_.find(requestId);
        if (it != unanswered_.end()) {
            held = it->second.lock();
            if (!held || held.get() == ticket)
                forgetUnansweredLocked(it);
        }
    }
    return requestDoneLocked(bytes);
}

bool LinuxVynConnection::requestDoneLocked(std::size_t bytes)
{
    inFlight_ -= std::min<std::size_t>(inFlight_, 1);
    queuedBytes_ -= std::min(queuedBytes_, bytes);
    return readingPaused_ && !closed_;
}

void LinuxVynConnection::resumeReading()
{
    if (closed_ || reading_)
        return;
    {
        std::lock_guard lock(outMutex_);
        if (inFlight_ >= limits_.maxInFlight)
            return;
        readingPaused_ = false;
    }
    setReading(true);
    turnFramesLeft_ = kFramesPerTurn;
    framesLeftOver_ = false;
    if (auto failure = processFrames())
        close(failure->reason, failure->cut);
    else if (!closed_)
        updateIncompleteFrameTimer();
}

void LinuxVynConnection::setReading(bool reading)
{
    {
        std::lock_guard lock(outMutex_);
        reading_ = reading;
        updateInterestLocked();
    }
    if (!reading)
        updateIncompleteFrameTimer();
}

void LinuxVynConnection::updateInterestLocked()
{
    if (!watched_)
        return;
    // While a caller reads, the runtime's thread is woken only to write, and
    // once per arming: a hangup (always reported) would wake it over and
    // over. A spent watch is armed again when output waits or the caller is
    // done; epoll then reports what is pending, so no readiness is lost.
    std::uint32_t events = callerReads_
                               ? EPOLLONESHOT | (writing_ ? EPOLLOUT : 0u)
                               : (reading_ ? EPOLLIN | EPOLLRDHUP : 0u) | (writing_ ? EPOLLOUT : 0u);
    bool spent = disarmed_ && (!callerReads_ || writing_);
    if (events != interest_ || spent) {
        interest_ = events;
        disarmed_ = false;
        runtime_->modify(fd_, events);
    }
}

void LinuxVynConnection::updateIncompleteFrameTimer()
{
    bool partial = reading_ && !closed_ && inEnd_ > inStart_;
    if (partial && incompleteTimer_ && incompleteTimerFrame_ == framesRead_)
        return; // still the same frame: its deadline stands
    if (incompleteTimer_) {
        runtime_->cancelTimer(*incompleteTimer_);
        incompleteTimer_.reset();
    }
    if (!partial)
        return;
    incompleteTimerFrame_ = framesRead_;
    std::weak_ptr<LinuxVynConnection> weak = weak_from_this();
    std::uint32_t ms = limits_.incompleteFrameTimeoutMs;
    incompleteTimer_ = runtime_->addTimer(VynRuntime::Clock::now() + std::chrono::milliseconds(ms), [weak, ms] {
        if (auto self = weak.lock()) {
            self->incompleteTimer_.reset();
            self->close("frame left incomplete for " + std::to_string(ms) + " ms", true);
        }
    });
}

void LinuxVynConnection::close(const std::string& reason, bool cut)
{
    if (closed_)
        return;
    std::unordered_map<std::uint64_t, std::shared_ptr<PendingReply>> pending;
    bool callerReads;
    {
        std::lock_guard lock(outMutex_);
        closed_ = true;
        callerReads = callerReads_;
        if (watched_) {
            watched_ = false;
            runtime_->unwatch(fd_);
        }
        if (callerReads) {
            // Wakes the caller that reads the socket; it closes the socket
            // and frees the read buffer when it gives the read role back.
            ::shutdown(fd_, SHUT_RDWR);
        } else if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
        out_.clear();
        outPending_ = 0;
        outOffset_ = 0;
        unanswered_.clear();
        spareUnanswered_.clear();
        pending = std::move(pending_);
        pending_.clear();
    }
    if (cut)
        platformLog(LogLevel::Default, "vyn", "cut %{public}s: %{public}s", description_, reason);
    else
        platformLog(LogLevel::Debug, "vyn", "%{public}s closed: %{public}s", description_, reason);
    if (incompleteTimer_) {
        runtime_->cancelTimer(*incompleteTimer_);
        incompleteTimer_.reset();
    }
    slot_.reset();
    if (!callerReads)
        releaseReadBuffer();
    for (auto& [id, p] : pending)
        failReply(p, invalidError());
    if (resumed_)
        deliverInvalidOnce();
}

// ---------------------------------------------------------------------------
// Any thread

void LinuxVynConnection::deliverEvent(VynEvent event)
{
    auto task = [self = shared_from_this(), event = std::move(event)] {
        std::shared_ptr<const EventHandler> handler;
        {
            std::lock_guard lock(self->mutex_);
            handler = self->handler_;
        }
        if (handler && *handler)
            (*handler)(event);
    };
    // The daemon's handlers of connection events are short (they queue the
    // request); a client's run its own code and keep their thread.
    if (role_ == Role::Accepted)
        queue_->runOrAsync(std::move(task));
    else
        queue_->async(std::move(task));
}

void LinuxVynConnection::deliverInvalidOnce()
{
    if (invalidDelivered_.exchange(true))
        return;
    queue_->async([self = shared_from_this()] {
        std::shared_ptr<const EventHandler> handler;
        {
            std::lock_guard lock(self->mutex_);
            handler = std::move(self->handler_);
        }
        // The handler is let go after its last event, so that references it
        // holds (often to the connection's owner) do not outlive the connection.
        if (handler && *handler)
            (*handler)(VynEvent(invalidError()));
    });
}

void LinuxVynConnection::failReply(const std::shared_ptr<PendingReply>& pending, VynError error)
{
    if (pending->handler)
        deliverReply(pending, VynEvent(std::move(error)));
}

void LinuxVynConnection::deliverReply(const std::shared_ptr<PendingReply>& pending, VynEvent answer)
{
    // A waiting caller gets the answer from this thread: one hand-off, not
    // two (to the reply queue, then to the caller).
    if (!pending->queue)
        pending->handler(answer);
    else
        pending->queue->async([pending, answer = std::move(answer)] { pending->handler(answer); });
}

std::size_t LinuxVynConnection::readLimit() const
{
    return role_ == Role::Accepted ? limits_.maxRequestFrame : limits_.maxReplyFrame;
}

} // namespace tv::platform
