// FakeVynService: an in-memory IPC service for unit tests. Connections made
// through it record what is sent; a test answers requests and injects events
// by hand, and drives delivery through the queues it handed in.
#pragma once

#include "platform/ipc/VynService.h"

#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace tv::test {

class FakeVynConnection final : public platform::VynConnection {
public:
    explicit FakeVynConnection(std::shared_ptr<SerialQueue> queue, platform::AuditToken token = {})
        : queue_(std::move(queue)), token_(token) {}

    const platform::AuditToken& auditToken() const override { return token_; }
    void setEventHandler(EventHandler handler) override { handler_ = std::move(handler); }
    void resume() override { resumed_ = true; }
    void cancel() override {}
    void send(platform::Message message) override
    {
        std::lock_guard lock(mutex_);
        sent_.push_back(std::move(message));
    }
    void sendWithReply(platform::Message message, std::shared_ptr<SerialQueue> queue, ReplyHandler handler) override
    {
        std::lock_guard lock(mutex_);
        message.setMessageId(nextId_++);
        message.setExpectsReply(true);
        pending_[message.messageId()] = {std::move(queue), std::move(handler)};
        sent_.push_back(std::move(message));
    }
    // Waits until a test answers (answer()).
    platform::VynEvent sendWithReplySync(platform::Message message) override
    {
        std::promise<platform::VynEvent> answered;
        sendWithReply(std::move(message), nullptr, [&](const platform::VynEvent& a) { answered.set_value(a); });
        return answered.get_future().get();
    }
    void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
    std::shared_ptr<void> context() const override { return context_; }
    std::string description() const override { return "<fake connection>"; }

    bool resumed() const { return resumed_; }
    std::vector<platform::Message> sent() const
    {
        std::lock_guard lock(mutex_);
        return sent_;
    }
    // Delivers an event to the event handler on the connection's queue.
    void deliver(platform::VynEvent event)
    {
        queue_->async([handler = handler_, event = std::move(event)] {
            if (handler)
                handler(event);
        });
    }
    // Answers the oldest pending request.
    void answer(platform::VynEvent answer)
    {
        std::unique_lock lock(mutex_);
        if (pending_.empty())
            return;
        auto [queue, handler] = std::move(pending_.begin()->second);
        pending_.erase(pending_.begin());
        lock.unlock();
        if (queue)
            queue->async([h = std::move(handler), answer = std::move(answer)] { h(answer); });
        else
            handler(answer);
    }

private:
    std::shared_ptr<SerialQueue> queue_;
    platform::AuditToken token_;
    EventHandler handler_;
    std::shared_ptr<void> context_;
    bool resumed_ = false;
    mutable std::mutex mutex_;
    std::vector<platform::Message> sent_;
    std::map<std::uint64_t, std::pair<std::shared_ptr<SerialQueue>, ReplyHandler>> pending_;
    std::uint64_t nextId_ = 1;
};

class FakeVynListener final : public platform::VynListener {
public:
    FakeVynListener(std::string path, std::shared_ptr<SerialQueue> queue) : path_(std::move(path)), queue_(std::move(queue)) {}

    void setConnectionHandler(ConnectionHandler handler) override { handler_ = std::move(handler); }
    void resume() override { resumed_ = true; }
    const std::string& path() const override { return path_; }

    bool resumed() const { return resumed_; }
    // Hands a new connection to the handler on the listener's queue.
    std::shared_ptr<FakeVynConnection> connect(platform::AuditToken token = {})
    {
        auto connection = std::make_shared<FakeVynConnection>(queue_, token);
        queue_->async([handler = handler_, connection] {
            if (handler)
                handler(connection);
        });
        return connection;
    }

private:
    std::string path_;
    std::shared_ptr<SerialQueue> queue_;
    ConnectionHandler handler_;
    bool resumed_ = false;
};

class FakeVynService final : public platform::VynService {
public:
    Result<std::shared_ptr<platform::VynListener>> listen(const std::string& name, std::shared_ptr<SerialQueue> queue) override
    {
        // listener() is the first one made (the daemon's service); the
        // others (its status listener) are kept alongside.
        auto made = std::make_shared<FakeVynListener>(name, std::move(queue));
        (listener_ ? others_.emplace_back() : listener_) = made;
        return std::shared_ptr<platform::VynListener>(made);
    }
    std::shared_ptr<platform::VynConnection> connect(const std::string& name, std::shared_ptr<SerialQueue> queue) override
    {
        lastConnectName_ = name;
        return lastConnection_ = std::make_shared<FakeVynConnection>(std::move(queue));
    }
    void beginTransaction() override { ++transactions_; }
    void endTransaction() override { --transactions_; }
    std::size_t openTransactions() const override { return transactions_; }
    std::size_t connectionCount() const override { return 0; }

    std::shared_ptr<FakeVynListener> listener() const { return listener_; }
    std::shared_ptr<FakeVynConnection> lastConnection() const { return lastConnection_; }
    std::string lastConnectName() const { return lastConnectName_; }

private:
    std::shared_ptr<FakeVynListener> listener_;
    std::vector<std::shared_ptr<FakeVynListener>> others_;
    std::shared_ptr<FakeVynConnection> lastConnection_;
    std::string lastConnectName_;
    std::size_t transactions_ = 0;
};

} // namespace tv::test
