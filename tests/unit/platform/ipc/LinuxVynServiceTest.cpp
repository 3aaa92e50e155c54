#include "platform/ipc/LinuxVynService.h"

#include "base/ValueCodec.h"
#include "platform/ipc/VynFrame.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <future>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tv::platform {
namespace {

using namespace std::chrono_literals;

using test::eventually;

// Everything a handler was given; a recorded request has run (no ticket).
struct Recorder {
    void add(VynEvent e)
    {
        if (auto m = std::get_if<Message>(&e))
            m->setTicket({});
        std::lock_guard lock(mutex);
        events.push_back(std::move(e));
    }
    std::vector<VynEvent> all() { std::lock_guard lock(mutex); return events; }
    std::size_t size() { return all().size(); }
    Message message(std::size_t i) { return *eventMessage(all().at(i)); }
    std::size_t invalid()
    {
        auto a = all();
        return std::count_if(a.begin(), a.end(), [](auto& e) { return eventError(e) && eventError(e)->kind == VynError::Kind::ConnectionInvalid; });
    }
    std::mutex mutex;
    std::vector<VynEvent> events;
};

auto recordInto(std::shared_ptr<Recorder> r) { return [r](const VynEvent& e) { r->add(e); }; }

Message request(const std::string& text) { return Message(Value::emptyDictionary().with("request", text)); }

void answer(VynConnection& connection, const Message& m)
{
    if (auto reply = Message::createReply(m)) {
        reply->set("echo", m.body());
        connection.send(*reply);
    }
}

// Each accepted connection records its events and answers {"echo": body};
// without echo, requests are held (unanswered, not run) until dropped.
class Server {
public:
    struct Peer {
        std::shared_ptr<VynConnection> connection;
        Recorder events;
        std::mutex mutex;
        std::deque<Message> held;
        void dropOldest() { std::lock_guard lock(mutex); held.pop_front(); }
    };

    explicit Server(const PlatformConfig& config) : service_(LinuxVynService::create(config, SocketActivation()))
    {
        listener_ = service_->listen("svc", SerialQueue::create("test.server")).value();
        listener_->setConnectionHandler([s = state_](std::shared_ptr<VynConnection> c) {
            auto peer = std::make_shared<Peer>();
            peer->connection = c;
            c->setEventHandler([s, peer, weak = std::weak_ptr<VynConnection>(c)](const VynEvent& e) {
                auto m = eventMessage(e);
                if (m && m->stringForKey("request") && *m->stringForKey("request") == "gate") {
                    s->gated = true;
                    s->gate.wait();
                }
                s->order.add(e);
                if (m && !s->echo) {
                    std::lock_guard lock(peer->mutex);
                    peer->held.push_back(*m); // held before recorded
                }
                peer->events.add(e);
                if (auto conn = weak.lock(); m && conn && s->echo)
                    answer(*conn, *m);
            });
            c->resume();
            std::lock_guard lock(s->mutex);
            s->peers.push_back(peer);
        });
        listener_->resume();
    }
    std::shared_ptr<Peer> peer(std::size_t i)
    {
        std::shared_ptr<Peer> p;
        eventually([&] {
            std::lock_guard lock(state_->mutex);
            return (p = state_->peers.size() > i ? state_->peers[i] : nullptr) != nullptr;
        });
        return p;
    }
    void setEcho(bool echo) { state_->echo = echo; }
    // A request "gate" keeps the thread that hands it out until `opened`.
    void setGate(std::shared_future<void> opened) { state_->gate = std::move(opened); }
    bool gated() const { return state_->gated; }
    // Every connection's events, in the order they were handed out.
    Recorder& order() { return state_->order; }
    LinuxVynService& service() { return *service_; }

private:
    struct State {
        std::atomic<bool> echo{true};
        std::atomic<bool> gated{false};
        std::shared_future<void> gate;
        Recorder order;
        std::mutex mutex;
        std::vector<std::shared_ptr<Peer>> peers;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
    std::shared_ptr<LinuxVynService> service_;
    std::shared_ptr<VynListener> listener_;
};

// The request text an answer echoes, or the error it is.
std::string echoedText(const VynEvent& e)
{
    const std::string* s = eventMessage(e) ? eventMessage(e)->get("echo")["request"].asString() : nullptr;
    return s ? *s : "<error: " + eventDescription(e) + ">";
}

struct Client {
    Client(LinuxVynService& service, const std::string& name) : connection(service.connect(name, queue))
    {
        connection->setEventHandler(recordInto(events));
        connection->resume();
    }
    std::shared_ptr<Recorder> send(Message request)
    {
        auto answer = std::make_shared<Recorder>();
        connection->sendWithReply(std::move(request), queue, recordInto(answer));
        return answer;
    }
    std::string call(Message request)
    {
        auto answer = send(std::move(request));
        return eventually([&] { return answer->size() >= 1; }) ? echoed(answer) : "<no answer>";
    }
    static std::string echoed(const std::shared_ptr<Recorder>& answer) { return echoedText(answer->all().front()); }
    std::shared_ptr<SerialQueue> queue = SerialQueue::create("test.client");
    std::shared_ptr<VynConnection> connection;
    std::shared_ptr<Recorder> events = std::make_shared<Recorder>();
};

Bytes frame(const Message& m, std::uint64_t id, bool replyExpected = true)
{
    auto f = VynFrame::encode(m, replyExpected, 64);
    VynFrame::setMessageId(*f, id);
    return *f;
}

bool closedByPeer(int fd)
{
    char buf[4096];
    return eventually([&] { ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT); return n == 0 || (n < 0 && errno == ECONNRESET); });
}

class LinuxVynServiceTest : public ::testing::Test {
protected:
    LinuxVynServiceTest() { config_.socketDir = dir_.path() + "/sockets"; }
    std::string socketPath() const { return config_.socketDir + "/svc"; }
    LinuxVynService& clients()
    {
        if (!clients_) // after the test has set its limits
            clients_ = LinuxVynService::create(config_, SocketActivation());
        return *clients_;
    }

    test::TempDir dir_;
    PlatformConfig config_;
    test::LogCapture log_;
    std::shared_ptr<LinuxVynService> clients_;
};

TEST_F(LinuxVynServiceTest, BrokenConnectionsFailPendingRepliesAndInvalidateExactlyOnce)
{
    auto server = std::make_unique<Server>(config_);
    server->setEcho(false);
    Client client(clients(), "svc");
    auto pending = client.send(request("never answered"));
    auto peer = server->peer(0);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 1; }));
    peer->connection->cancel();
    peer->connection->cancel();
    ASSERT_TRUE(eventually([&] { return pending->invalid() + client.events->invalid() + peer->events.invalid() == 3; }));
    auto late = client.send(request("late"));
    ASSERT_TRUE(eventually([&] { return late->invalid() == 1; }));
    client.queue->sync([] {});
    server.reset();
    EXPECT_EQ(client.events->size(), 1u);
    EXPECT_EQ(pending->size(), 1u);
    EXPECT_EQ(peer->events.invalid(), 1u);
    EXPECT_EQ(Client(clients(), "nobody-listens").call(request("x")), "<error: Connection invalid>");
}

TEST_F(LinuxVynServiceTest, SynchronousRequestsAreAnsweredAlsoFromAReplyHandlerOrWhenTheConnectionBreaks)
{
    auto server = std::make_unique<Server>(config_);
    Client client(clients(), "svc");
    EXPECT_EQ(echoedText(client.connection->sendWithReplySync(request("direct"))), "direct");
    // A completion that waits for another answer holds the client's queue;
    // the answer does not need it.
    std::promise<std::string> nested;
    client.connection->sendWithReply(request("outer"), client.queue, [&](const VynEvent&) {
        nested.set_value(echoedText(client.connection->sendWithReplySync(request("inner"))));
    });
    auto inner = nested.get_future();
    ASSERT_EQ(inner.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(inner.get(), "inner");

    server->setEcho(false);
    auto waiting = std::async(std::launch::async, [&] { return echoedText(client.connection->sendWithReplySync(request("x"))); });
    auto peer = server->peer(0);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 4; }));
    peer->connection->cancel();
    ASSERT_EQ(waiting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), "<error: Connection invalid>");
    EXPECT_EQ(echoedText(client.connection->sendWithReplySync(request("late"))), "<error: Connection invalid>");
}

// A caller waiting for its answer reads the socket itself: what else it
// reads goes out in order, reading goes on after it, and a close of the
// connection wakes it.
TEST_F(LinuxVynServiceTest, ACallerReadingItsReplyHandsOutOtherFramesInOrderAndWakesOnClose)
{
    std::future<std::string> waiting; // outlives the server, whose end wakes it
    auto server = std::make_unique<Server>(config_);
    server->setEcho(false);
    Client client(clients(), "svc");
    auto peer = server->peer(0);
    auto sync = [&](const char* text) {
        return std::async(std::launch::async, [&, text] { return echoedText(client.connection->sendWithReplySync(request(text))); });
    };
    waiting = sync("x");
    auto other = client.send(request("other"));
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 2; }));
    peer->connection->send(request("e1"));
    answer(*peer->connection, peer->events.message(1));
    answer(*peer->connection, peer->events.message(0));
    peer->connection->send(request("e2"));
    ASSERT_EQ(waiting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), "x");
    ASSERT_TRUE(eventually([&] { return client.events->size() == 2 && other->size() == 1; }));
    EXPECT_EQ(Client::echoed(other), "other");

    waiting = sync("y");
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 3; }));
    peer->connection->send(request("e3"));
    ASSERT_TRUE(eventually([&] { return client.events->size() == 3; }));
    client.connection->cancel();
    ASSERT_EQ(waiting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), "<error: Connection invalid>");
    // The caller is woken by the close; ConnectionInvalid is queued after it.
    ASSERT_TRUE(eventually([&] { return client.events->invalid() == 1; }));
    ASSERT_EQ(client.events->size(), 4u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(*client.events->message(i).stringForKey("request"), "e" + std::to_string(i + 1));
}

TEST_F(LinuxVynServiceTest, MalformedOrStalledFramesCutOnlyTheirOwnConnection)
{
    config_.limits.maxRequestFrame = 4096;
    config_.limits.maxDepth = 8;
    config_.limits.maxQueuedPerConnection = 64u << 10;
    config_.limits.incompleteFrameTimeoutMs = 150;
    config_.limits.maxUnsentOutput = 256u << 10;
    Server server(config_);
    Client bystander(clients(), "svc");
    Value deep = Value::emptyDictionary();
    for (int i = 0; i < 10; ++i)
        deep = Value::emptyDictionary().with("d", deep);
    Bytes deepBody, urlBody;
    ASSERT_FALSE(encodeValue(deep, deepBody, ValueCodecOptions{.allowUrl = false, .maxDepth = 64}));
    ASSERT_FALSE(encodeValue(Value::emptyDictionary().with("u", Value::url("file:///x")), urlBody));
    auto raw = [](const Bytes& body) {
        Bytes f(VynFrame::kHeaderSize);
        VynFrame::writeHeader({.bodyLength = static_cast<std::uint32_t>(body.size()), .messageId = 1}, f.data());
        f.insert(f.end(), body.begin(), body.end());
        return f;
    };
    auto patched = [](std::size_t at, std::uint8_t byte) {
        Bytes f = frame(request("x"), 1);
        f[at] = byte;
        return f;
    };
    Message amplifying; // 4000 encoded bytes that decode to about 96 KiB
    amplifying.set("b", Value(Array(4000, Value(true))));
    Bytes reusedId = frame(request("a"), 7), again = frame(request("b"), 7);
    reusedId.insert(reusedId.end(), again.begin(), again.end());
    Bytes partial = frame(request("partial"), 1);
    partial.resize(partial.size() - 3);

    const std::vector<std::pair<Bytes, const char*>> cases = {
        {patched(7, 0xff), "exceeds the limit of 4096 bytes"},
        {patched(0, 0x7f), "unknown frame format"},
        {patched(1, 0x80), "unknown frame flags"},
        {frame(request("x"), 0), "without a message id"},
        {raw(deepBody), "nesting deeper than 8"},
        {frame(amplifying, 1), "decoded value larger than 65536 bytes"},
        {raw(urlBody), "URL values are not allowed"},
        {raw(Bytes{0x0b, 0x05, 0x00}), "truncated"},
        {reusedId, "reused while its request is unanswered"},
        {partial, "frame left incomplete for 150 ms"},
    };
    server.setEcho(false); // keeps the first request of the reused id unanswered
    for (auto& [bytes, logged] : cases) {
        SCOPED_TRACE(logged);
        log_.clear();
        int fd = test::connectUnix(socketPath());
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        EXPECT_TRUE(closedByPeer(fd));
        ::close(fd);
        EXPECT_TRUE(eventually([&] { return log_.countContaining(logged) == 1; }));
        EXPECT_EQ(log_.countContaining("cut <vyn connection from pid"), 1u);
    }
    // A peer that does not read is cut for its unsent output.
    int deaf = test::connectUnix(socketPath());
    auto peer = server.peer(std::size(cases) + 1);
    ASSERT_TRUE(peer);
    Message bulk(Value::emptyDictionary().with("payload", Value::data(Bytes(64u << 10, 0x5a))));
    for (int i = 0; i < 200 && peer->events.invalid() == 0; ++i)
        peer->connection->send(bulk);
    EXPECT_TRUE(eventually([&] { return peer->events.invalid() == 1; }));
    EXPECT_EQ(log_.countContaining("bytes of unsent output exceed the limit of 262144 bytes"), 1u);
    ::close(deaf);
    server.setEcho(true);
    EXPECT_EQ(bystander.call(request("unharmed")), "unharmed"); // idle far past the timeout
}

TEST_F(LinuxVynServiceTest, ConnectionsPastTheLimitsAreRefusedAndSlotsComeBack)
{
    for (auto [perUid, total, logged] : {std::tuple{2u, 10u, "2 connections for uid"},
                                         std::tuple{10u, 2u, "2 connections in all (limit 2)"}}) {
        SCOPED_TRACE(logged);
        log_.clear();
        config_.limits.maxConnectionsPerUid = perUid;
        config_.limits.maxConnections = total;
        Server server(config_);
        auto first = std::make_unique<Client>(clients(), "svc");
        Client second(clients(), "svc");
        ASSERT_EQ(second.call(request("in")), "in");
        int third = test::connectUnix(socketPath());
        EXPECT_TRUE(closedByPeer(third));
        ::close(third);
        EXPECT_EQ(log_.countContaining("refused connection from pid"), 1u);
        EXPECT_EQ(log_.countContaining(logged), 1u);
        first->connection->cancel();
        ASSERT_TRUE(eventually([&] { return server.service().connectionCount() == 1; }));
        EXPECT_EQ(Client(clients(), "svc").call(request("admitted")), "admitted");
    }
}

TEST_F(LinuxVynServiceTest, EveryRequestCountsInFlightUntilAnsweredOrRun)
{
    config_.limits.maxInFlight = 3;
    Server server(config_);
    server.setEcho(false);
    Client client(clients(), "svc");
    for (int i = 0; i < 2; ++i) // one-way requests count until they have run
        client.connection->send(request("one-way"));
    std::vector<std::shared_ptr<Recorder>> answers;
    for (int i = 0; i < 4; ++i)
        answers.push_back(client.send(request("q" + std::to_string(i))));
    auto peer = server.peer(0);
    ASSERT_TRUE(peer);
    auto settlesAt = [&](std::size_t n) {
        bool reached = eventually([&] { return peer->events.size() == n; });
        std::this_thread::sleep_for(50ms); // room for one more to slip through
        return reached && peer->events.size() == n;
    };
    ASSERT_TRUE(settlesAt(3));
    peer->dropOldest();
    ASSERT_TRUE(settlesAt(4));
    // A reply handed to send() frees the place while the request is still
    // held; it reaches its own request (q1, ahead of q0), not the handler.
    answer(*peer->connection, peer->events.message(3));
    ASSERT_TRUE(settlesAt(5));
    ASSERT_TRUE(eventually([&] { return answers[1]->size() == 1; }));
    EXPECT_EQ(Client::echoed(answers[1]), "q1");
    EXPECT_EQ(answers[0]->size() + client.events->size(), 0u);
    const AuditToken& token = peer->connection->auditToken();
    EXPECT_EQ(std::tuple(token.pid, token.uid, token.gid), std::tuple(::getpid(), ::getuid(), ::getgid()));
}

// A connection with thousands of small requests buffered takes turns with
// the others: another connection's request is handed out after at most one
// turn's share of them, not after all that one read brought in.
TEST_F(LinuxVynServiceTest, APipeliningConnectionTakesTurnsWithTheOthers)
{
    Server server(config_);
    std::promise<void> open;
    server.setGate(open.get_future().share());
    int fds[3];
    for (int i = 0; i < 3; ++i) {
        fds[i] = test::connectUnix(socketPath());
        ASSERT_TRUE(server.peer(static_cast<std::size_t>(i)));
    }
    // The runtime's thread stops in the gate's handler while the other two
    // connections' bytes arrive, so that one wake-up finds both readable.
    Bytes gate = frame(request("gate"), 1), flood, other = frame(request("other"), 1);
    ASSERT_EQ(::send(fds[0], gate.data(), gate.size(), 0), static_cast<ssize_t>(gate.size()));
    ASSERT_TRUE(eventually([&] { return server.gated(); }));
    constexpr int kFlood = 2000;
    for (int i = 1; i <= kFlood; ++i) {
        Bytes f = frame(request("flood"), static_cast<std::uint64_t>(i));
        flood.insert(flood.end(), f.begin(), f.end());
    }
    ASSERT_EQ(::send(fds[1], flood.data(), flood.size(), 0), static_cast<ssize_t>(flood.size()));
    ASSERT_EQ(::send(fds[2], other.data(), other.size(), 0), static_cast<ssize_t>(other.size()));
    open.set_value();
    ASSERT_TRUE(eventually([&] { return server.order().size() == kFlood + 2; }));
    auto all = server.order().all();
    auto at = std::find_if(all.begin(), all.end(), [](const VynEvent& e) {
        auto m = eventMessage(e);
        return m && m->stringForKey("request") && *m->stringForKey("request") == "other";
    });
    EXPECT_LT(at - all.begin(), 200);
    for (int fd : fds)
        ::close(fd);
}

// Each request decodes to about 192 KiB: one fits a connection, and a
// second from another connection of the same uid does not fit the uid's
// quota; each request that has run lets exactly the next one in.
TEST_F(LinuxVynServiceTest, DecodedRequestsAreBoundedPerConnectionAndPerUid)
{
    config_.limits.maxQueuedPerConnection = 256u << 10;
    config_.limits.maxQueuedPerUid = 320u << 10;
    Server server(config_);
    server.setEcho(false);
    Message big = request("big");
    big.set("b", Value(Array(8000, Value(true))));
    Client a(clients(), "svc");
    for (int i = 0; i < 3; ++i)
        a.connection->send(big);
    auto peerA = server.peer(0);
    ASSERT_TRUE(peerA);
    ASSERT_TRUE(eventually([&] { return peerA->events.size() == 1; }));
    Client b(clients(), "svc");
    b.connection->send(big);
    auto peerB = server.peer(1);
    ASSERT_TRUE(peerB);
    auto delivered = [&] { return peerA->events.size() + peerB->events.size(); };
    std::this_thread::sleep_for(100ms); // a second request would have arrived by now
    EXPECT_EQ(delivered(), 1u);
    EXPECT_EQ(log_.countContaining("quota of uid"), 1u);
    for (std::size_t n = 2; n <= 4; ++n) {
        auto holds = [](Server::Peer& p) { std::lock_guard lock(p.mutex); return !p.held.empty(); };
        auto& holder = holds(*peerA) ? *peerA : *peerB;
        holder.dropOldest();
        ASSERT_TRUE(eventually([&] { return delivered() == n; }));
    }
    EXPECT_EQ(peerB->events.size(), 1u);
}

// A descriptor passed with a message is closed at once: the pipe's write
// end sent along reads EOF once the daemon's copy is gone.
TEST_F(LinuxVynServiceTest, PassedFileDescriptorsAreClosedAtOnce)
{
    Server server(config_);
    int fd = test::connectUnix(socketPath());
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    Bytes f = frame(request("with descriptor"), 1, false);
    iovec iov{f.data(), f.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr msg{nullptr, 0, &iov, 1, control, sizeof control, 0}; // no address, one buffer, the descriptor
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    *c = cmsghdr{CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(c), &pipeFds[1], sizeof(int));
    ASSERT_EQ(::sendmsg(fd, &msg, MSG_NOSIGNAL), static_cast<ssize_t>(f.size()));
    ::close(pipeFds[1]);
    pollfd p{pipeFds[0], POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    char byte;
    EXPECT_EQ(::read(pipeFds[0], &byte, 1), 0);
    ASSERT_TRUE(server.peer(0));
    ASSERT_TRUE(eventually([&] { return server.peer(0)->events.size() == 1; }));
    EXPECT_EQ(log_.countContaining("closed 1 file descriptor(s) passed with a message"), 1u);
    ::close(pipeFds[0]);
    ::close(fd);
}

TEST(SocketActivationTest, TakesOnlySocketsMeantForThisProcessByName)
{
    SocketActivation activation(SocketActivation::parse("42", "3", "a:tvd.socket", 42));
    EXPECT_EQ(std::vector({activation.take("tvd"), activation.take("tvd"), activation.take("other"), activation.take("other")}),
              std::vector({4, 3, 5, -1}));
    for (auto [pid, fds] : {std::pair{"41", "1"}, {"42", "x"}, {nullptr, "1"}})
        EXPECT_TRUE(SocketActivation::parse(pid, fds, nullptr, 42).empty());
}

} // namespace
} // namespace tv::platform
