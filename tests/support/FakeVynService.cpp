#include "tests/support/FakeVynService.h"

namespace tv::test {

FakeVynConnection::FakeVynConnection(std::shared_ptr<SerialQueue> queue, platform::AuditToken token)
    : queue_(std::move(queue)), token_(token)
{}

void FakeVynConnection::setEventHandler(EventHandler handler)
{
    handler_ = std::move(handler);
}

void FakeVynConnection::cancel()
{
    cancelled_ = true;
}

void FakeVynConnection::send(platform::Message message)
{
    std::lock_guard lock(mutex_);
    sent_.push_back(std::move(message));
}

void FakeVynConnection::sendWithReply(platform::Message message, std::shared_ptr<SerialQueue> queue,
                                      ReplyHandler handler)
{
    std::lock_guard lock(mutex_);
    message.setMessageId(nextId_++);
    message.setExpectsReply(true);
    pending_[message.messageId()] = Pending{std::move(queue), std::move(handler)};
    sent_.push_back(std::move(message));
}

std::vector<platform::Message> FakeVynConnection::sent() const
{
    std::lock_guard lock(mutex_);
    return sent_;
}

void FakeVynConnection::deliver(platform::VynEvent event)
{
    auto handler = handler_;
    queue_->async([handler, event = std::move(event)] {
        if (handler)
            handler(event);
    });
}

void FakeVynConnection::answer(platform::VynEvent answer, std::uint64_t id)
{
    Pending p;
    {
        std::lock_guard lock(mutex_);
        auto it = id ? pending_.find(id) : pending_.begin();
        if (it == pending_.end())
            return;
        p = std::move(it->second);
        pending_.erase(it);
    }
    p.queue->async([h = std::move(p.handler), answer = std::move(answer)] { h(answer); });
}

std::size_t FakeVynConnection::pendingReplies() const
{
    std::lock_guard lock(mutex_);
    return pending_.size();
}

std::shared_ptr<FakeVynConnection> FakeVynListener::connect(platform::AuditToken token)
{
    auto connection = std::make_shared<FakeVynConnection>(queue_, token);
    auto handler = handler_;
    queue_->async([handler, connection] {
        if (handler)
            handler(connection);
    });
    return connection;
}

Result<std::shared_ptr<platform::VynListener>> FakeVynService::listen(const std::string& name,
                                                                      std::shared_ptr<SerialQueue> queue)
{
    listener_ = std::make_shared<FakeVynListener>(name, std::move(queue));
    return std::shared_ptr<platform::VynListener>(listener_);
}

std::shared_ptr<platform::VynConnection> FakeVynService::connect(const std::string& name,
                                                                 std::shared_ptr<SerialQueue> queue)
{
    lastConnectName_ = name;
    lastConnection_ = std::make_shared<FakeVynConnection>(std::move(queue));
    return lastConnection_;
}

} // namespace tv::test
