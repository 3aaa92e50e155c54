// VynConnection: one IPC connection, daemon side (accepted by a listener) or
// client side (made by VynService::connect).
//
// Events (requests, and errors of the connection) are delivered to the event
// handler on the queue the connection was made with; replies to
// sendWithReply() go to their own handler on the queue given with the send.
// ConnectionInvalid is the last event of a connection; after it the
// transport drops its reference, so the connection (and the context it
// holds) is destroyed once no one else refers to it.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include "base/SerialQueue.h"
#include "platform/ipc/VynEvent.h"

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

namespace tv::platform {

// The peer's identity, taken from the kernel when the connection was made
// (SO_PEERCRED, plus a pidfd where the kernel has one so that later lookups
// about the peer cannot hit a recycled pid).
struct AuditToken {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    int pidfd = -1; // owned by the connection; -1 when unavailable
};

class VynConnection {
public:
    using EventHandler = std::function<void(const VynEvent&)>;
    using ReplyHandler = std::function<void(const VynEvent&)>;

    virtual ~VynConnection() = default;

    virtual const AuditToken& auditToken() const = 0;
    pid_t pid() const { return auditToken().pid; }

    // REQUIRES: called before resume().
    virtual void setEventHandler(EventHandler handler) = 0;
    // Starts delivering events. Until then nothing is read.
    virtual void resume() = 0;
    // Closes the connection; ConnectionInvalid is delivered if it was not yet.
    virtual void cancel() = 0;

    // Sends a message without expecting a reply (replies are sent this way).
    // On a connection that is gone the message is dropped.
    virtual void send(Message message) = 0;

    // Sends a request; `handler` runs exactly once on `queue` with the reply,
    // or with a VynError when the connection breaks before it comes.
    virtual void sendWithReply(Message message, std::shared_ptr<SerialQueue> queue, ReplyHandler handler) = 0;

    // Sends a request and waits on the calling thread for its answer: the
    // reply, or a VynError when the connection breaks before it comes. The
    // caller reads the reply itself when no other thread reads the
    // connection (handing out what else it reads as that thread would);
    // else the thread that reads the reply hands it straight to the caller,
    // without passing through a queue. May be called from a reply handler.
    // REQUIRES: not called on the thread that reads the connection (raised
    // as an internal-consistency failure: it would wait for itself).
    virtual VynEvent sendWithReplySync(Message message) = 0;

    // An object the connection keeps alive for as long as it lives.
    virtual void setContext(std::shared_ptr<void> context) = 0;
    virtual std::shared_ptr<void> context() const = 0;

    virtual std::string description() const = 0;
};

} // namespace tv::platform
