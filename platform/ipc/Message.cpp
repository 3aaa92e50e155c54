#include "platform/ipc/Message.h"

namespace tv::platform {

Message::Message(Value body)
{
    setBody(std::move(body));
}

void Message::setBody(Value body)
{
    body_ = std::move(body);
}

std::optional<Message> Message::createReply(const Message& request)
{
    if (!request.expectsReply_ || request.messageId_ == 0)
        return std::nullopt;
    Message reply;
    reply.replyTo_ = request.messageId_;
    return reply;
}

std::optional<Uuid> Message::uuidForKey(std::string_view key) const
{
    if (auto u = get(key).asUuid())
        return *u;
    return std::nullopt;
}

} // namespace tv::platform
