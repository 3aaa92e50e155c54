// FakeVynService: an in-memory IPC service for unit tests. Connections made
// through it record what is sent; a test answers requests and injects events
// by hand, and drives delivery through the queues it handed in.
#pragma once

#include "platform/ipc/VynService.h"

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace tv::test {

class FakeVynConnection final : public platform::VynConnection {
public:
    explicit FakeVynConnection(std::shared_ptr<SerialQueue> queue, platform::AuditToken token = {});

    // platform::VynConnection
    const platform::AuditToken& auditToken() const override { return token_; }
    void setEventHandler(EventHandler handler) override;
    void resume() override { resumed_ = true; }
    void cancel() override;
    void send(platform::Message message) override;
    void sendWithReply(platform::Message message, std::shared_ptr<SerialQueue> queue, ReplyHandler handler) override;
    void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
    std::shared_ptr<void> context() const override { return context_; }
    std::string description() const override { return "<fake connection>"; }

    // Test side.
    bool resumed() const { return resumed_; }
    bool cancelled() const { return cancelled_; }
    std::vector<platform::Message> sent() const;
    // Delivers an event to the event handler on the connection's queue.
    void deliver(platform::VynEvent event);
    // Answers the pending request with message id `id` (or the oldest when 0).
    void answer(platform::VynEvent answer, std::uint64_t id = 0);
    std::size_t pendingReplies() const;

private:
    struct Pending {
        std::shared_ptr<SerialQueue> queue;
        ReplyHandler handler;
    };
    std::shared_ptr<SerialQueue> queue_;
    platform::AuditToken token_;
    EventHandler handler_;
    std::shared_ptr<void> context_;
    bool resumed_ = false;
    bool cancelled_ = false;
    mutable std::mutex mutex_;
    std::vector<platform::Message> sent_;
    std::map<std::uint64_t, Pending> pending_;
    std::uint64_t nextId_ = 1;
};

class FakeVynListener final : public platform::VynListener {
public:
    explicit FakeVynListener(std::string path, std::shared_ptr<SerialQueue> queue)
        : path_(std::move(path)), queue_(std::move(queue)) {}

    // platform::VynListener
    void setConnectionHandler(ConnectionHandler handler) override { handler_ = std::move(handler); }
    void resume() override { resumed_ = true; }
    const std::string& path() const override { return path_; }

    bool resumed() const { return resumed_; }
    // Hands a new connection to the handler on the listener's queue.
    std::shared_ptr<FakeVynConnection> connect(platform::AuditToken token = {});

private:
    std::string path_;
    std::shared_ptr<SerialQueue> queue_;
    ConnectionHandler handler_;
    bool resumed_ = false;
};

class FakeVynService final : public platform::VynService {
public:
    // platform::VynService
    Result<std::shared_ptr<platform::VynListener>> listen(const std::string& name,
                                                          std::shared_ptr<SerialQueue> queue) override;
    std::shared_ptr<platform::VynConnection> connect(const std::string& name,
                                                     std::shared_ptr<SerialQueue> queue) override;
    void beginTransaction() override { ++transactions_; }
    void endTransaction() override { --transactions_; }
    std::size_t openTransactions() const override { return transactions_; }

    std::shared_ptr<FakeVynListener> listener() const { return listener_; }
    std::shared_ptr<FakeVynConnection> lastConnection() const { return lastConnection_; }
    std::string lastConnectName() const { return lastConnectName_; }

private:
    std::shared_ptr<FakeVynListener> listener_;
    std::shared_ptr<FakeVynConnection> lastConnection_;
    std::string lastConnectName_;
    std::size_t transactions_ = 0;
};

} // namespace tv::test
