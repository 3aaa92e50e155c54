// Message: the IPC service's typed dictionary, one per frame.
//
// The body is a Value dictionary whose values are of the IPC kinds (every
// Value kind but URL). A received message may carry a body of another kind;
// it reads as a dictionary without keys, and its receiver decides whether it
// is one it understands. A message also carries its transport identity: the id
// the sender gave it, whether the sender expects a reply, and for a reply the
// id of the request it answers. Replies are made from their request with
// createReply(), which is how the IPC service routes them to the requester's
// reply handler.
//
// Lookups follow the protocol's typed reading: a key that is absent or holds
// another kind reads as null (pointers), or as 0 for unsigned integers.
#pragma once

#include "base/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tv::platform {

class Message {
public:
    // An empty dictionary message, not a reply, not expecting one.
    Message() = default;
    explicit Message(Value body);

    // A reply to `request`: empty body, routed to the request's reply handler.
    // None when the request was sent without a reply expected.
    static std::optional<Message> createReply(const Message& request);

    const Value& body() const { return body_; }
    void setBody(Value body);

    // Sets or (with a null value) removes one key.
    void set(std::string_view key, Value value) { body_ = body_.with(key, std::move(value)); }
    const Value& get(std::string_view key) const { return body_[key]; }

    const std::string* stringForKey(std::string_view key) const { return get(key).asString(); }
    std::uint64_t uint64ForKey(std::string_view key) const { return get(key).unsignedValue(); }
    const Array* arrayForKey(std::string_view key) const { return get(key).asArray(); }
    const Dictionary* dictionaryForKey(std::string_view key) const { return get(key).asDictionary(); }
    std::optional<Uuid> uuidForKey(std::string_view key) const;

    std::uint64_t messageId() const { return messageId_; }
    void setMessageId(std::uint64_t id) { messageId_ = id; }
    bool expectsReply() const { return expectsReply_; }
    void setExpectsReply(bool b) { expectsReply_ = b; }
    bool isReply() const { return replyTo_ != 0; }
    std::uint64_t replyTo() const { return replyTo_; }
    void setReplyTo(std::uint64_t id) { replyTo_ = id; }

    // The text form of the body (used by logs and tracing).
    std::string description() const { return body_.description(); }

    // The transport's claim on a received request: what the request counts
    // against its connection (a place among the requests in flight, its
    // decoded memory) stays taken while any copy of the message holds the
    // ticket, i.e. until the request has run. Replies made from the request
    // do not hold it. A copy kept for longer may drop it with setTicket({}).
    const std::shared_ptr<void>& ticket() const { return ticket_; }
    void setTicket(std::shared_ptr<void> ticket) { ticket_ = std::move(ticket); }

private:
    Value body_ = Value::emptyDictionary();
    std::uint64_t messageId_ = 0;
    std::uint64_t replyTo_ = 0;
    bool expectsReply_ = false;
    std::shared_ptr<void> ticket_;
};

} // namespace tv::platform
