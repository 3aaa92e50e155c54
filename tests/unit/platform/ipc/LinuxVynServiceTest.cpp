#include "platform/ipc/LinuxVynService.h"

#include "platform/ipc/LinuxVynConnection.h"

#include "base/ValueCodec.h"
#include "platform/ipc/VynFrame.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tv::platform {
namespace {

using namespace std::chrono_literals;

// Waits (bounded) until `condition` holds.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = 5000ms)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// Everything a handler was given, in order. The copies kept do not hold
// the requests' tickets: a recorded request counts as run.
class Recorder : public std::enable_shared_from_this<Recorder> {
public:
    void add(VynEvent e)
    {
        if (auto m = std::get_if<Message>(&e))
            m->setTicket({});
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(e));
    }
    std::vector<VynEvent> events() const { std::lock_guard lock(mutex_); return events_; }
    std::size_t size() const { return events().size(); }
    std::size_t errors(VynError::Kind kind) const
    {
        auto all = events();
        return std::count_if(all.begin(), all.end(), [&](const VynEvent& e) {
            auto err = eventError(e);
            return err && err->kind == kind;
        });
    }
    std::size_t invalid() const { return errors(VynError::Kind::ConnectionInvalid); }
    std::vector<Message> messages() const
    {
        std::vector<Message> out;
        for (const auto& e : events())
            if (auto m = eventMessage(e))
                out.push_back(*m);
        return out;
    }
    // Keeps the recorder alive for as long as the handler is.
    VynConnection::EventHandler handler()
    {
        return [self = shared_from_this()](const VynEvent& e) { self->add(e); };
    }

private:
    mutable std::mutex mutex_;
    std::vector<VynEvent> events_;
};

Message request(const std::string& text)
{
    Message m;
    m.set("request", text);
    return m;
}

// Answers `m` with {"echo": its body}.
void answer(VynConnection& connection, const Message& m)
{
    if (auto reply = Message::createReply(m)) {
        reply->set("echo", m.body());
        connection.send(*reply);
    }
}

// A daemon side: a listener whose accepted connections record their events
// and, unless told otherwise, answer every request with {"echo": body}.
// Without echo, requests are held (unanswered, not run) until dropped.
class Server {
public:
    struct Peer {
        std::shared_ptr<VynConnection> connection;
        Recorder events;
        std::mutex mutex;
        std::deque<Message> held;

        std::size_t heldCount() { std::lock_guard lock(mutex); return held.size(); }
        void dropOldest() { std::lock_guard lock(mutex); held.pop_front(); } // the oldest held request has run
    };

    Server(const PlatformConfig& config, const std::string& name, SocketActivation activation = {})
    {
        service_ = LinuxVynService::create(config, std::move(activation));
        auto listener = service_->listen(name, queue_);
        if (!listener) {
            error_ = listener.error();
            return;
        }
        listener_ = *listener;
        listener_->setConnectionHandler([state = state_](std::shared_ptr<VynConnection> c) { accept(state, c); });
        listener_->resume();
    }

    std::shared_ptr<Peer> peer(std::size_t i)
    {
        std::shared_ptr<Peer> p;
        eventually([&] {
            std::lock_guard lock(state_->mutex);
            if (state_->peers.size() > i)
                p = state_->peers[i];
            return p != nullptr;
        });
        return p;
    }
    std::size_t peerCount() { std::lock_guard lock(state_->mutex); return state_->peers.size(); }
    void setEcho(bool echo) { state_->echo = echo; }

    LinuxVynService& service() { return *service_; }
    const std::shared_ptr<VynListener>& listener() const { return listener_; }
    const std::optional<TvError>& error() const { return error_; }

private:
    struct State {
        std::atomic<bool> echo{true};
        std::mutex mutex;
        std::vector<std::shared_ptr<Peer>> peers;
    };

    static void accept(const std::shared_ptr<State>& state, const std::shared_ptr<VynConnection>& connection)
    {
        auto peer = std::make_shared<Peer>();
        peer->connection = connection;
        std::weak_ptr<VynConnection> weak = connection;
        connection->setEventHandler([state, peer, weak](const VynEvent& e) {
            // Held before it is recorded: a test that sees the event also
            // sees the request held.
            auto m = eventMessage(e);
            if (m && !state->echo) {
                std::lock_guard lock(peer->mutex);
                peer->held.push_back(*m);
            }
            peer->events.add(e);
            if (auto c = weak.lock(); m && c && state->echo)
                answer(*c, *m);
        });
        connection->resume();
        std::lock_guard lock(state->mutex);
        state->peers.push_back(peer);
    }

    std::shared_ptr<State> state_ = std::make_shared<State>();
    std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("test.server");
    std::shared_ptr<LinuxVynService> service_;
    std::shared_ptr<VynListener> listener_;
    std::optional<TvError> error_;
};

// A host side: a client connection recording its events.
struct Client {
    Client(LinuxVynService& service, const std::string& name)
    {
        connection = service.connect(name, queue);
        connection->setEventHandler(events->handler());
        connection->resume();
    }
    // Sends a request; its answer is recorded.
    std::shared_ptr<Recorder> send(Message request)
    {
        auto answer = std::make_shared<Recorder>();
        connection->sendWithReply(std::move(request), queue, answer->handler());
        return answer;
    }
    // Sends a request and waits for its answer.
    std::optional<VynEvent> call(Message request)
    {
        auto answer = send(std::move(request));
        if (!eventually([&] { return answer->size() >= 1; }))
            return std::nullopt;
        return answer->events().front();
    }
    std::shared_ptr<SerialQueue> queue = SerialQueue::create("test.client");
    std::shared_ptr<VynConnection> connection;
    std::shared_ptr<Recorder> events = std::make_shared<Recorder>();
};

std::string echoed(const std::optional<VynEvent>& answer)
{
    if (!answer)
        return "<no answer>";
    auto m = eventMessage(*answer);
    if (!m)
        return "<error: " + eventDescription(*answer) + ">";
    auto s = m->get("echo")["request"].asString();
    return s ? *s : "<no echo>";
}

void writeAll(int fd, const void* data, std::size_t size)
{
    auto p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
        ASSERT_GT(n, 0);
        p += n;
        size -= static_cast<std::size_t>(n);
    }
}

Bytes frame(const Message& m, std::uint64_t id, bool replyExpected = true)
{
    auto f = VynFrame::encode(m, replyExpected, 64);
    VynFrame::setMessageId(*f, id);
    return *f;
}

Bytes rawFrame(std::uint64_t id, const Bytes& body)
{
    Bytes f(VynFrame::kHeaderSize);
    VynFrame::Header h;
    h.bodyLength = static_cast<std::uint32_t>(body.size());
    h.messageId = id;
    VynFrame::writeHeader(h, f.data());
    f.insert(f.end(), body.begin(), body.end());
    return f;
}

// True once the daemon has closed `fd` (reads EOF), within the timeout.
bool closedByPeer(int fd, std::chrono::milliseconds timeout = 5000ms)
{
    char buf[4096];
    return eventually([&] {
        ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }, timeout);
}

class LinuxVynServiceTest : public ::testing::Test {
protected:
    LinuxVynServiceTest()
    {
        config_.socketDir = dir_.path() + "/sockets";
        config_.limits.incompleteFrameTimeoutMs = 300;
    }
    std::string socketPath() const { return config_.socketDir + "/svc"; }
    std::shared_ptr<LinuxVynService> clientService()
    {
        if (!clientService_)
            clientService_ = LinuxVynService::create(config_, SocketActivation());
        return clientService_;
    }

    test::TempDir dir_;
    PlatformConfig config_;
    test::LogCapture log_;
    std::shared_ptr<LinuxVynService> clientService_;
};

TEST_F(LinuxVynServiceTest, RepliesReachTheirOwnRequestsWithPeerIdentityOnBothSides)
{
    Server server(config_, "svc");
    ASSERT_FALSE(server.error());
    server.setEcho(false);
    EXPECT_EQ(server.listener()->path(), socketPath());
    struct stat st{};
    ASSERT_EQ(::stat(config_.socketDir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);

    Client client(*clientService(), "svc");
    std::vector<std::shared_ptr<Recorder>> answers;
    for (int i = 0; i < 3; ++i)
        answers.push_back(client.send(request("r" + std::to_string(i))));
    Message oneWay = request("one-way");
    client.connection->send(oneWay);

    auto peer = server.peer(0);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 4; }));
    auto requests = peer->events.messages();
    EXPECT_TRUE(requests[0].expectsReply());
    EXPECT_FALSE(requests[3].expectsReply());
    EXPECT_FALSE(Message::createReply(requests[3]));

    // Answer out of order; each answer must reach its own handler once.
    for (std::size_t i : {2, 0, 1})
        answer(*peer->connection, requests[i]);
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(eventually([&] { return answers[i]->size() == 1; }));
        EXPECT_EQ(echoed(answers[i]->events().front()), "r" + std::to_string(i));
    }
    EXPECT_EQ(client.events->size(), 0u); // replies never reach the event handler

    const AuditToken& daemonSide = peer->connection->auditToken();
    EXPECT_EQ(std::tuple(daemonSide.pid, daemonSide.uid, daemonSide.gid),
              std::tuple(::getpid(), ::getuid(), ::getgid()));
    EXPECT_EQ(client.connection->pid(), ::getpid());
    if (daemonSide.pidfd >= 0) {
        EXPECT_EQ(::fcntl(daemonSide.pidfd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
}

TEST_F(LinuxVynServiceTest, BrokenConnectionsFailPendingRepliesAndInvalidateExactlyOnce)
{
    auto server = std::make_unique<Server>(config_, "svc");
    server->setEcho(false);
    Client client(*clientService(), "svc");
    auto pending = client.send(request("never answered"));
    auto peer = server->peer(0);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 1; }));

    // The daemon side goes away: the pending reply and the connection fail.
    std::weak_ptr<VynConnection> daemonSide = peer->connection;
    peer->connection->cancel();
    peer->connection->cancel();
    ASSERT_TRUE(eventually([&] { return pending->size() == 1 && client.events->invalid() == 1; }));
    EXPECT_EQ(pending->invalid(), 1u);
    ASSERT_TRUE(eventually([&] { return peer->events.invalid() == 1; }));

    // After the end, requests fail at once and nothing more is delivered.
    auto late = client.send(request("late"));
    client.connection->cancel();
    ASSERT_TRUE(eventually([&] { return late->size() == 1; }));
    EXPECT_EQ(late->invalid(), 1u);
    client.queue->sync([] {});
    server.reset();
    EXPECT_EQ(client.events->size(), 1u);
    EXPECT_EQ(pending->size(), 1u);
    EXPECT_EQ(peer->events.invalid(), 1u);

    // Nothing but the test refers to the closed daemon-side connection.
    peer->connection.reset();
    EXPECT_TRUE(eventually([&] { return daemonSide.expired(); }));
}

TEST_F(LinuxVynServiceTest, UnreachableServiceInvalidatesAfterResumeAndFailsRequests)
{
    Client client(*clientService(), "nobody-listens");
    auto answer = client.call(request("x"));
    ASSERT_TRUE(answer);
    ASSERT_TRUE(eventError(*answer));
    EXPECT_EQ(eventError(*answer)->kind, VynError::Kind::ConnectionInvalid);
    EXPECT_EQ(eventDescription(*answer), "Connection invalid");
    ASSERT_TRUE(eventually([&] { return client.events->invalid() == 1; }));

    // A request the transport cannot carry fails without touching the connection.
    Server server(config_, "svc");
    Client good(*clientService(), "svc");
    Message withUrl = request("url");
    withUrl.set("where", Value::url("file:///tmp"));
    auto refused = good.call(withUrl);
    ASSERT_TRUE(refused && eventError(*refused));
    EXPECT_EQ(eventError(*refused)->kind, VynError::Kind::Other);
    EXPECT_EQ(echoed(good.call(request("still fine"))), "still fine");
}

TEST_F(LinuxVynServiceTest, StaleSocketIsReplacedButALiveOneIsNot)
{
    ASSERT_EQ(::mkdir(config_.socketDir.c_str(), 0755), 0);
    int stale = test::listenUnix(socketPath());
    ASSERT_GE(stale, 0);
    ::close(stale); // leaves a socket file nobody listens on
    Server server(config_, "svc");
    ASSERT_FALSE(server.error());
    EXPECT_EQ(log_.countContaining("replacing stale socket"), 1u);

    Server second(config_, "svc");
    ASSERT_TRUE(second.error());
    EXPECT_EQ(second.error()->code, EADDRINUSE);
    EXPECT_EQ(second.error()->description->rfind("address in use", 0), 0u);
    Client client(*clientService(), "svc");
    EXPECT_EQ(echoed(client.call(request("first still serves"))), "first still serves");

    std::string plainFile = dir_.path() + "/plain";
    ::close(::open(plainFile.c_str(), O_CREAT | O_WRONLY, 0644));
    Server onFile(config_, plainFile);
    ASSERT_TRUE(onFile.error());
    EXPECT_TRUE(std::filesystem::exists(plainFile));
}

TEST_F(LinuxVynServiceTest, MalformedFramesCutOnlyTheirOwnConnection)
{
    config_.limits.maxRequestFrame = 4096;
    config_.limits.maxDepth = 8;
    config_.limits.maxQueuedPerConnection = 64u << 10;
    Server server(config_, "svc");
    Client bystander(*clientService(), "svc");

    Value deep = Value::emptyDictionary();
    for (int i = 0; i < 10; ++i)
        deep = Value::emptyDictionary().with("d", deep);
    Bytes deepBody;
    ASSERT_FALSE(encodeValue(deep, deepBody, ValueCodecOptions{.allowUrl = false, .maxDepth = 64}));
    Bytes arrayBody;
    ASSERT_FALSE(encodeValue(Value::emptyArray(), arrayBody));
    Bytes urlBody;
    ASSERT_FALSE(encodeValue(Value::emptyDictionary().with("u", Value::url("file:///x")), urlBody));
    // 4000 encoded bytes that would decode to about 96 KiB.
    Message amplifying;
    amplifying.set("b", Value(Array(4000, Value(true))));

    Bytes giant = rawFrame(1, {});
    giant[4] = 0xff, giant[5] = 0xff, giant[6] = 0xff, giant[7] = 0xff; // 4 GiB announced, nothing sent
    Bytes badFormat = frame(request("x"), 1);
    badFormat[0] = 0x7f;
    Bytes badFlags = frame(request("x"), 1);
    badFlags[1] = 0x80;
    Bytes zeroId = frame(request("x"), 1);
    VynFrame::setMessageId(zeroId, 0);
    Bytes reusedId = frame(request("a"), 7);
    Bytes again = frame(request("b"), 7);
    reusedId.insert(reusedId.end(), again.begin(), again.end());

    struct Case {
        const char* name;
        Bytes bytes;
        const char* logged;
    };
    std::vector<Case> cases = {
        {"giant frame", giant, "exceeds the limit of 4096 bytes"},
        {"format byte", badFormat, "unknown frame format"},
        {"flags", badFlags, "unknown frame flags"},
        {"zero id", zeroId, "without a message id"},
        {"too deep", rawFrame(1, deepBody), "nesting deeper than 8"},
        {"amplifying", frame(amplifying, 1), "decoded value larger than 65536 bytes"},
        {"URL", rawFrame(1, urlBody), "URL values are not allowed"},
        {"undecodable", rawFrame(1, Bytes{0x0b, 0x05, 0x00}), "truncated"},
        {"reused id", reusedId, "reused while its request is unanswered"},
    };
    server.setEcho(false); // keeps the first request of "reused id" unanswered
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        log_.clear();
        int fd = test::connectUnix(socketPath());
        ASSERT_GE(fd, 0);
        writeAll(fd, c.bytes.data(), c.bytes.size());
        EXPECT_TRUE(closedByPeer(fd));
        ::close(fd);
        EXPECT_TRUE(eventually([&] { return log_.countContaining(c.logged) == 1; }));
        EXPECT_EQ(log_.countContaining("cut <vyn connection from pid"), 1u);
    }
    server.setEcho(true);
    EXPECT_EQ(echoed(bystander.call(request("unharmed"))), "unharmed");
    EXPECT_EQ(bystander.events->size(), 0u);
    EXPECT_TRUE(eventually([&] { return server.service().connectionCount() == 1; }));

    // A well-formed body of another kind is the handler's to judge: it is
    // delivered and the connection stays.
    log_.clear();
    std::size_t before = server.peerCount();
    Bytes oddFrame = rawFrame(1, arrayBody);
    Bytes after = frame(request("after"), 2);
    oddFrame.insert(oddFrame.end(), after.begin(), after.end());
    int fd = test::connectUnix(socketPath());
    writeAll(fd, oddFrame.data(), oddFrame.size());
    auto peer = server.peer(before);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 2; }));
    EXPECT_TRUE(peer->events.messages()[0].body().isArray());
    EXPECT_EQ(peer->events.invalid(), 0u);
    EXPECT_EQ(log_.countContaining("cut"), 0u);
    ::close(fd);
}

TEST_F(LinuxVynServiceTest, IncompleteFrameTimesOutButIdleConnectionStays)
{
    config_.limits.incompleteFrameTimeoutMs = 150;
    Server server(config_, "svc");
    int idle = test::connectUnix(socketPath());
    Bytes whole = frame(request("complete"), 1, false);
    writeAll(idle, whole.data(), whole.size());

    int stalled = test::connectUnix(socketPath());
    Bytes partial = frame(request("partial"), 1);
    writeAll(stalled, partial.data(), partial.size() - 3);
    auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(closedByPeer(stalled));
    EXPECT_GE(std::chrono::steady_clock::now() - started, 100ms);
    EXPECT_EQ(log_.countContaining("frame left incomplete for 150 ms"), 1u);

    // The idle connection (whole frames only) outlived the timeout several times.
    ASSERT_TRUE(server.peer(0));
    EXPECT_EQ(server.peer(0)->events.messages().size(), 1u);
    EXPECT_EQ(server.peer(0)->events.invalid(), 0u);
    pollfd p{idle, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 0), 0);
    ::close(idle);
    ::close(stalled);
}

TEST_F(LinuxVynServiceTest, ConnectionsPastTheLimitsAreRefusedAndSlotsComeBack)
{
    struct Case {
        std::size_t perUid, total;
        const char* logged;
    };
    for (const Case& tc : {Case{2, 10, "2 connections for uid"}, Case{10, 2, "2 connections in all (limit 2)"}}) {
        SCOPED_TRACE(tc.logged);
        log_.clear();
        config_.limits.maxConnectionsPerUid = tc.perUid;
        config_.limits.maxConnections = tc.total;
        Server server(config_, "svc");
        auto first = std::make_unique<Client>(*clientService(), "svc");
        Client second(*clientService(), "svc");
        ASSERT_EQ(echoed(second.call(request("in"))), "in");

        int third = test::connectUnix(socketPath());
        ASSERT_GE(third, 0);
        EXPECT_TRUE(closedByPeer(third));
        ::close(third);
        EXPECT_EQ(log_.countContaining("refused connection from pid"), 1u);
        EXPECT_EQ(log_.countContaining(tc.logged), 1u);
        EXPECT_EQ(server.peerCount(), 2u);

        // A closed connection's place comes back.
        first->connection->cancel();
        ASSERT_TRUE(eventually([&] { return server.service().connectionCount() == 1; }));
        Client fourth(*clientService(), "svc");
        EXPECT_EQ(echoed(fourth.call(request("admitted"))), "admitted");
    }
}

TEST_F(LinuxVynServiceTest, PeerThatDoesNotReadIsCutForUnsentOutput)
{
    config_.limits.maxUnsentOutput = 256u << 10;
    Server server(config_, "svc");
    Client bystander(*clientService(), "svc");
    int deaf = test::connectUnix(socketPath());
    Bytes hello = frame(request("hello"), 1, false);
    writeAll(deaf, hello.data(), hello.size());
    auto peer = server.peer(1);
    ASSERT_TRUE(peer);

    Message bulk;
    bulk.set("payload", Value::data(Bytes(64u << 10, 0x5a)));
    // Far more than the socket buffers plus the limit hold.
    for (int i = 0; i < 200 && peer->events.invalid() == 0; ++i)
        peer->connection->send(bulk);
    EXPECT_TRUE(eventually([&] { return peer->events.invalid() == 1; }));
    EXPECT_EQ(log_.countContaining("bytes of unsent output exceed the limit of 262144 bytes"), 1u);
    EXPECT_EQ(echoed(bystander.call(request("unharmed"))), "unharmed");
    ::close(deaf);
}

TEST_F(LinuxVynServiceTest, RequestsWrittenFromManyThreadsAtOnceArriveWholeAndAreAnswered)
{
    // Requests are written on the sending threads and replies on the
    // daemon's; concurrent writers must never interleave their frames.
    Server server(config_, "svc");
    Client client(*clientService(), "svc");
    constexpr int kThreads = 4, kEach = 150;
    std::vector<std::vector<std::shared_ptr<Recorder>>> answers(kThreads);
    std::vector<std::thread> threads;
    auto text = [](int t, int i) {
        return std::to_string(t) + "/" + std::to_string(i) + std::string(static_cast<std::size_t>(i) * 37, 'x');
    };
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i)
                answers[t].push_back(client.send(request(text(t, i))));
        });
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kEach; ++i) {
            ASSERT_TRUE(eventually([&] { return answers[t][i]->size() == 1; })) << t << "/" << i;
            EXPECT_EQ(echoed(answers[t][i]->events().front()), text(t, i));
        }
    EXPECT_EQ(server.peer(0)->events.size(), static_cast<std::size_t>(kThreads * kEach));
    EXPECT_EQ(log_.countContaining("cut "), 0u);
}

TEST_F(LinuxVynServiceTest, EveryRequestCountsInFlightUntilAnsweredOrRun)
{
    config_.limits.maxInFlight = 3;
    Server server(config_, "svc");
    server.setEcho(false);
    Client client(*clientService(), "svc");
    // One-way requests count too, until they have run.
    for (int i = 0; i < 2; ++i)
        client.connection->send(request("one-way"));
    std::vector<std::shared_ptr<Recorder>> answers;
    for (int i = 0; i < 4; ++i)
        answers.push_back(client.send(request("q" + std::to_string(i))));
    auto peer = server.peer(0);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 3; }));
    std::this_thread::sleep_for(100ms); // give a fourth request the chance to slip through
    ASSERT_EQ(peer->events.size(), 3u);

    peer->dropOldest(); // the first one-way request has run
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 4; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(peer->events.size(), 4u);

    // A reply handed to send() frees the place at once, even while the
    // request is still held.
    auto answerQ = [&](std::size_t i) { answer(*peer->connection, peer->events.messages().at(2 + i)); };
    answerQ(1);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 5; }));
    answerQ(0);
    answerQ(2);
    ASSERT_TRUE(eventually([&] { return peer->events.size() == 6; }));
    answerQ(3);
    for (std::size_t i = 0; i < 4; ++i) {
        ASSERT_TRUE(eventually([&] { return answers[i]->size() == 1; }));
        EXPECT_EQ(echoed(answers[i]->events().front()), "q" + std::to_string(i));
    }
    EXPECT_EQ(log_.countContaining("cut"), 0u);
}

TEST_F(LinuxVynServiceTest, DecodedRequestsAreBoundedPerConnectionAndPerUid)
{
    // Each request decodes to about 192 KiB: one fits a connection, and a
    // second one from another connection of the same uid does not fit the
    // uid's quota.
    config_.limits.maxQueuedPerConnection = 256u << 10;
    config_.limits.maxQueuedPerUid = 320u << 10;
    Server server(config_, "svc");
    server.setEcho(false);
    Message big = request("big");
    big.set("b", Value(Array(8000, Value(true))));
    Client a(*clientService(), "svc");
    for (int i = 0; i < 3; ++i)
        a.connection->send(big);
    auto peerA = server.peer(0);
    ASSERT_TRUE(peerA);
    ASSERT_TRUE(eventually([&] { return peerA->events.size() == 1; }));
    Client b(*clientService(), "svc");
    b.connection->send(big);
    auto peerB = server.peer(1);
    ASSERT_TRUE(peerB);
    std::this_thread::sleep_for(100ms); // a second request would have arrived by now
    EXPECT_EQ(peerA->events.size() + peerB->events.size(), 1u);
    EXPECT_EQ(log_.countContaining("quota of uid"), 1u);

    // Each request that has run lets exactly the next one in.
    for (std::size_t delivered = 2; delivered <= 4; ++delivered) {
        auto& holder = peerA->heldCount() ? *peerA : *peerB;
        holder.dropOldest();
        ASSERT_TRUE(eventually([&] { return peerA->events.size() + peerB->events.size() == delivered; }));
        EXPECT_EQ(peerA->heldCount() + peerB->heldCount(), 1u);
    }
    EXPECT_EQ(peerB->events.size(), 1u);
    EXPECT_EQ(log_.countContaining("cut"), 0u);
}

TEST_F(LinuxVynServiceTest, ReadBufferGrowsWithTheBytesThatArrive)
{
    config_.limits.incompleteFrameTimeoutMs = 30000;
    Server server(config_, "svc");
    int fd = test::connectUnix(socketPath());
    Bytes claim = rawFrame(1, {});
    std::uint32_t body = (4u << 20) - 24; // the whole limit, announced
    std::memcpy(claim.data() + 4, &body, 4);
    claim.push_back(0x0b);
    writeAll(fd, claim.data(), claim.size());
    auto peer = server.peer(0);
    ASSERT_TRUE(peer);
    auto connection = std::dynamic_pointer_cast<LinuxVynConnection>(peer->connection);
    ASSERT_TRUE(eventually([&] { return connection->readBufferSize() > 0; }));
    EXPECT_LE(connection->readBufferSize(), 64u << 10);

    Bytes more(1u << 20, 0);
    writeAll(fd, more.data(), more.size());
    ASSERT_TRUE(eventually([&] { return connection->readBufferSize() > (1u << 20); }));
    EXPECT_LE(connection->readBufferSize(), 3u << 20);
    ::close(fd);
}

TEST_F(LinuxVynServiceTest, PassedFileDescriptorsAreClosedAtOnce)
{
    Server server(config_, "svc");
    int fd = test::connectUnix(socketPath());
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);

    Bytes f = frame(request("with descriptor"), 1, false);
    iovec iov{f.data(), f.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &pipeFds[1], sizeof(int));
    ASSERT_EQ(::sendmsg(fd, &msg, MSG_NOSIGNAL), static_cast<ssize_t>(f.size()));
    ::close(pipeFds[1]);

    // Once the daemon's copy of the write end is closed, the pipe reads EOF.
    pollfd p{pipeFds[0], POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    char byte;
    EXPECT_EQ(::read(pipeFds[0], &byte, 1), 0);
    ASSERT_TRUE(server.peer(0));
    ASSERT_TRUE(eventually([&] { return server.peer(0)->events.size() == 1; }));
    EXPECT_EQ(log_.countContaining("closed 1 file descriptor(s) passed with a message"), 1u);
    EXPECT_EQ(server.peer(0)->events.invalid(), 0u);
    ::close(pipeFds[0]);
    ::close(fd);
}

TEST_F(LinuxVynServiceTest, TerminationImminentPrecedesTheEnd)
{
    auto server = std::make_unique<Server>(config_, "svc");
    Client client(*clientService(), "svc");
    ASSERT_EQ(echoed(client.call(request("hi"))), "hi");
    auto peer = server->peer(0);
    server->service().announceTermination();
    ASSERT_TRUE(eventually([&] { return peer->events.errors(VynError::Kind::TerminationImminent) == 1; }));
    server.reset();
    ASSERT_TRUE(eventually([&] { return peer->events.invalid() == 1; }));
    auto events = peer->events.events();
    EXPECT_EQ(eventError(events.back())->kind, VynError::Kind::ConnectionInvalid);
    EXPECT_TRUE(eventually([&] { return client.events->invalid() == 1; }));
}

TEST_F(LinuxVynServiceTest, InheritedSocketIsUsedInsteadOfBinding)
{
    std::string path = dir_.path() + "/activated";
    int fd = test::listenUnix(path);
    ASSERT_GE(fd, 0);

    {
        Server server(config_, "com.example.unit", SocketActivation({{fd, "tvd.socket"}}));
        ASSERT_FALSE(server.error());
        EXPECT_TRUE(server.service().socketActivated());
        EXPECT_EQ(server.listener()->path(), path);
        EXPECT_FALSE(std::filesystem::exists(config_.socketDir + "/com.example.unit"));
        Client client(*clientService(), path);
        EXPECT_EQ(echoed(client.call(request("activated"))), "activated");
    }
    // The socket file belongs to the service manager and stays.
    EXPECT_TRUE(std::filesystem::exists(path));

    int notListening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Server refused(config_, "svc", SocketActivation({{notListening, ""}}));
    EXPECT_TRUE(refused.error());
    ::close(notListening);
}

TEST(SocketActivationTest, TakesOnlySocketsMeantForThisProcess)
{
    struct Case {
        const char *pid, *fds;
    };
    // Another process's sockets, none, a malformed count, no LISTEN_PID.
    for (const Case& tc : {Case{"41", "1"}, Case{"42", "0"}, Case{"42", "x"}, Case{nullptr, "1"}})
        EXPECT_TRUE(SocketActivation::parse(tc.pid, tc.fds, nullptr, 42).empty()) << (tc.pid ? tc.pid : "null");
    auto sockets = SocketActivation::parse("42", "3", "a:tvd.socket", 42);
    ASSERT_EQ(sockets.size(), 3u);
    EXPECT_EQ(sockets[0].fd, 3);
    EXPECT_EQ(sockets[2].fd, 5);
    EXPECT_EQ(sockets[1].name, "tvd.socket");
    EXPECT_EQ(sockets[2].name, "");

    SocketActivation activation(sockets);
    EXPECT_EQ(activation.take("tvd"), 4);
    EXPECT_EQ(activation.take("tvd"), 3);
    EXPECT_EQ(activation.take("other"), 5);
    EXPECT_EQ(activation.take("other"), -1);
}

} // namespace
} // namespace tv::platform
