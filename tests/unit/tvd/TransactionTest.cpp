#include "tvd/Transaction.h"

#include "base/InternalInconsistency.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ServerHarness.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <new>
#include <stdexcept>

namespace tv {
namespace {

using test::ServerHarness;

Value request(const char* type, Value version = Value(std::uint64_t{3}))
{
    Dictionary d;
    if (type)
        d["request"] = Value(type);
    d["version"] = version;
    return Value(std::move(d));
}

TEST(TransactionTest, OnlyVersionsTwoAndThreeAreServed)
{
    ServerHarness h;
    auto c = h.connect(42);
    for (Value v : {Value(std::uint64_t{0}), Value(std::uint64_t{1}), Value(std::uint64_t{2}), Value(std::uint64_t{3}),
                    Value(std::uint64_t{4}), Value(std::uint64_t{5}), Value(3) /* signed: reads as 0 */,
                    Value() /* absent: reads as 0 */, Value(UINT64_MAX)})
        h.send(*c, request("bulk", v));
    h.drain();
    auto r = h.replies(*c);
    ASSERT_EQ(r.size(), 9u);
    // The version is printed as received, never as a negative number.
    EXPECT_EQ(r[8].get("error"), Value("unsupported protocol version 18446744073709551615 (current 3)"));
    for (std::uint64_t v = 0; v <= 5; ++v) {
        SCOPED_TRACE(v);
        if (v == 2 || v == 3) {
            EXPECT_EQ(r[v].body(), Value::emptyDictionary());
        } else {
            EXPECT_EQ(r[v].get("errorcode"), Value(std::uint64_t{7}));
            EXPECT_EQ(r[v].get("error"),
                      Value("unsupported protocol version " + std::to_string(v) + " (current 3)"));
        }
    }
    EXPECT_EQ(r[6].get("error"), Value("unsupported protocol version 0 (current 3)"));
    EXPECT_EQ(r[7].get("errorcode"), Value(std::uint64_t{7}));
    EXPECT_NE(r[0].replyTo(), r[1].replyTo()); // each reply answers its own request
}

TEST(TransactionTest, TypesAreMatchedExactlyAndUnlandedOnesAreRefused)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(42);
    for (const char* type : {static_cast<const char*>(nullptr), "Add", "bulk-annotatex", "access"})
        h.send(*c, request(type));
    h.send(*c, request("bulk").with("flags", Value(std::uint64_t{0x10})));
    // A one-way request is served without a reply.
    h.send(*c, request("bulk").with("flags", Value(std::uint64_t{1})), false);
    h.drain();
    auto r = h.replies(*c);
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[0].get("errorcode"), Value(std::uint64_t{4}));
    EXPECT_EQ(r[0].get("error"), Value("invalid request format (missing type)"));
    for (int i : {1, 2, 3}) {
        EXPECT_EQ(r[i].get("errorcode"), Value(std::uint64_t{4}));
        EXPECT_EQ(r[i].get("error"), Value("unrecognized request"));
    }
    EXPECT_EQ(r[4].body(), Value::emptyDictionary());
    EXPECT_EQ(log.count("bulk options 0x10 not supported"), 1u);
    EXPECT_TRUE(log.contains("bulk options 0x1 not supported"));
    EXPECT_EQ(log.count("client 42 requested bulk"), 2u);
}

TEST(TransactionTest, DeadClientsQueuedRequestsGetNoReply)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(7);
    auto other = h.connect(8);
    h.send(*c, request("bulk"));
    h.send(*c, request("bulk", Value(std::uint64_t{9})));
    h.send(*other, request("bulk"));
    // The requests reach the "service" queue; then the connection dies
    // before they run.
    h.queues["vyn"]->runUntilIdle();
    c->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
    h.queues["vyn"]->runUntilIdle();
    EXPECT_TRUE(log.contains("client 7 is dead"));
    h.drain();
    // The supported request is dropped; the version refusal comes before the
    // check for a dead client and is still answered.
    auto r = h.replies(*c);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].get("errorcode"), Value(std::uint64_t{7}));
    EXPECT_EQ(log.count("client 7 requested bulk"), 0u);
    // Other clients are served as usual.
    EXPECT_EQ(h.replies(*other).size(), 1u);
}

TEST(TransactionTest, EveryThousandthRequestIsLogged)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(5);
    for (int i = 0; i < 999; ++i)
        h.send(*c, request("bulk"));
    h.drain();
    EXPECT_EQ(log.countContaining("requests so far"), 0u);
    for (int i = 0; i < 1001; ++i)
        h.send(*c, request("bulk"));
    h.drain();
    EXPECT_EQ(log.count("client 5 used 1000 requests so far"), 1u);
    EXPECT_EQ(log.count("client 5 used 2000 requests so far"), 1u);
    EXPECT_EQ(log.countContaining("requests so far"), 2u);
    EXPECT_EQ(h.replies(*c).size(), 2000u);
}

// A transaction of a live client, outside the queues, for the walkers.
struct Walk {
    ServerHarness h;
    std::shared_ptr<test::FakeVynConnection> c = h.connect(11);
    std::vector<std::pair<std::string, bool>> seen;

    bool run(Value paths, bool stopOnUnresolved = false)
    {
        platform::Message m(request("add").with("paths", std::move(paths)));
        m.setMessageId(1);
        m.setExpectsReply(true);
        auto client = std::static_pointer_cast<TvdVynClient>(c->context());
        Transaction t(m, client);
        bool result = t.processPaths([&](const std::string& p, bool resolved) {
            seen.emplace_back(p, resolved);
            if (stopOnUnresolved && !resolved) {
                t.failMessage(9, "stopped at " + p);
                return false;
            }
            return true;
        });
        while (!t.resume()) {
        } // a walk that used up its time slice goes on
        EXPECT_TRUE(t.replied());
        bool failed = !t.reply().get("errorcode").isNull();
        if (!result) {
            EXPECT_TRUE(failed); // a walker that returned false has ended the request
        }
        return !failed;
    }
    platform::Message lastReply() const { return c->sent().back(); }
};

TEST(TransactionTest, PathWalkerCanonicalisesAndRefusesRelativePaths)
{
    test::TempDir dir;
    std::filesystem::create_directories(dir.file("real/B.vext"));
    std::filesystem::create_directory_symlink(dir.file("real"), dir.file("link"));

    Walk ok;
    EXPECT_TRUE(ok.run(Value(Array{Value(dir.file("link/B.vext")), Value(dir.file("link/../real/./B.vext")),
                                   Value(dir.file("missing/X.vext"))})));
    ASSERT_EQ(ok.seen.size(), 3u);
    auto canonical = std::filesystem::canonical(dir.file("real/B.vext")).string();
    EXPECT_EQ(ok.seen[0], std::make_pair(canonical, true));
    EXPECT_EQ(ok.seen[1], std::make_pair(canonical, true));
    // An unresolvable path reaches the step spelled as received.
    EXPECT_EQ(ok.seen[2], std::make_pair(dir.file("missing/X.vext"), false));
    EXPECT_EQ(ok.lastReply().body(), Value::emptyDictionary());

    Walk relative;
    EXPECT_FALSE(relative.run(Value(Array{Value(dir.file("real")), Value("rel/B.vext"), Value("/never")})));
    EXPECT_EQ(relative.seen.size(), 1u); // elements before it were handled
    EXPECT_EQ(relative.lastReply().get("errorcode"), Value(std::uint64_t{9}));
    EXPECT_EQ(relative.lastReply().get("error"), Value("absolute path required: rel/B.vext"));

    Walk stopped;
    EXPECT_FALSE(stopped.run(Value(Array{Value("/no/such/path"), Value("/")}), true));
    EXPECT_EQ(stopped.seen.size(), 1u);
    EXPECT_EQ(stopped.c->sent().size(), 1u); // the step's failure is the only reply

    Walk empty;
    EXPECT_TRUE(empty.run(Value(Array{})));
    EXPECT_TRUE(empty.seen.empty());

    // A NUL byte would make the file system read a shorter, other path.
    Walk nul;
    std::string withNul = dir.file("real") + std::string("\0/x", 3);
    EXPECT_FALSE(nul.run(Value(Array{Value(withNul)})));
    EXPECT_TRUE(nul.seen.empty());
    EXPECT_EQ(nul.lastReply().get("errorcode"), Value(std::uint64_t{9}));
    EXPECT_EQ(nul.lastReply().get("error"), Value("invalid path: " + withNul));

    for (Value bad : {Value(), Value("/a/string"), Value(Array{Value(3)})}) {
        Walk w;
        EXPECT_FALSE(w.run(bad));
        EXPECT_EQ(w.lastReply().get("errorcode"), Value(std::uint64_t{4}));
        EXPECT_EQ(w.lastReply().get("error"), Value("invalid request format"));
    }
}

TEST(TransactionTest, ExactlyOneReplyAndErrorValuesPassedOn)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(3);
    auto client = std::static_pointer_cast<TvdVynClient>(c->context());
    platform::Message m(request("bulk"));
    m.setMessageId(9);
    m.setExpectsReply(true);

    Transaction own(m, client);
    own.failError(2, makeError(11, "access to plugin x denied: y"));
    own.done();
    own.failMessage(4, "late");
    auto sent = c->sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].get("errorcode"), Value(std::uint64_t{11}));
    EXPECT_EQ(sent[0].get("error"), Value("access to plugin x denied: y"));
    EXPECT_EQ(log.countContaining("second reply to one request of client 3 refused"), 2u);

    Transaction foreign(m, client);
    foreign.failError(4, TvError{"POSIX", 2, "open: No such file or directory"});
    EXPECT_EQ(c->sent().back().get("errorcode"), Value(std::uint64_t{4}));
    EXPECT_EQ(c->sent().back().get("error"), Value("open: No such file or directory"));

    Transaction silent(m, client);
    silent.failError(4, makeError(12));
    EXPECT_EQ(c->sent().back().get("errorcode"), Value(std::uint64_t{12}));
    EXPECT_TRUE(c->sent().back().get("error").isNull());
}

TEST(TransactionTest, AnythingAHandlerThrowsEndsTheRequestWithOneReply)
{
    struct Case {
        const char* name;
        std::function<void()> thrower;
        const char* logged;
    };
    const Case cases[] = {
        {"inconsistency", [] { raiseInternalInconsistency("broken"); }, "internal inconsistency while serving"},
        {"std::exception", [] { throw std::runtime_error("boom"); }, "exception while serving remove request"},
        {"bad_alloc", [] { throw std::bad_alloc(); }, "exception while serving remove request"},
        {"not an exception", [] { throw 42; }, "unknown exception while serving remove request"},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        test::LogCapture log;
        ServerHarness h;
        h.codeSigning->onLookup = tc.thrower;
        auto c = h.connect(8);
        h.send(*c, request("remove").with("paths", Value(Array{Value("/")})));
        h.send(*c, request("bulk"));
        h.drain();
        auto r = h.replies(*c);
        ASSERT_EQ(r.size(), 2u);
        EXPECT_EQ(r[0].get("errorcode"), Value(std::uint64_t{4}));
        EXPECT_EQ(r[0].get("error"), Value("internal error"));
        EXPECT_EQ(r[1].body(), Value::emptyDictionary()); // the next request is served
        EXPECT_EQ(log.countContaining(tc.logged), 1u);
    }
}

// Long requests yield between elements: with a time slice of zero every
// element is one turn, and other clients' requests run in between.
struct Fairness {
    test::TempDir dir;
    ServerHarness h;
    std::shared_ptr<test::FakeVynConnection> a = h.connect(21);
    std::shared_ptr<test::FakeVynConnection> b = h.connect(22);
    SerialQueue& service = *h.queues["service"];

    Fairness() { h.server->setRequestTimeSlice(std::chrono::nanoseconds(0)); }
    std::string plugIn(const std::string& name)
    {
        std::filesystem::create_directories(dir.file(name));
        return std::filesystem::canonical(dir.file(name)).string();
    }
    std::uint64_t add(test::FakeVynConnection& c, Array paths)
    {
        auto id = h.send(c, request("add").with("paths", Value(std::move(paths))));
        h.queues["vyn"]->runUntilIdle();
        return id;
    }
};

TEST(TransactionTest, ALongRequestYieldsToOtherClientsAndRepliesOnce)
{
    Fairness f;
    std::string p1 = f.plugIn("P1.vext"), p2 = f.plugIn("P2.vext"), p3 = f.plugIn("P3.vext");
    auto addId = f.add(*f.a, Array{Value(p1), Value(p2), Value(p3)});
    f.h.send(*f.a, request("bulk"));
    f.h.send(*f.b, request("bulk"));
    f.h.queues["vyn"]->runUntilIdle();

    ASSERT_TRUE(f.service.runOne()); // the first element of the add
    EXPECT_EQ(f.h.registry->registered(), (std::vector<std::string>{p1}));
    ASSERT_TRUE(f.service.runOne()); // the other client's turn
    EXPECT_EQ(f.b->sent().size(), 1u);
    EXPECT_TRUE(f.a->sent().empty());
    f.h.drain();

    // One reply to the add, after every element, then the client's next
    // request: a client's own requests keep their order.
    auto r = f.a->sent();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].replyTo(), addId);
    EXPECT_EQ(r[0].body(), Value::emptyDictionary());
    EXPECT_EQ(f.h.registry->registered().size(), 3u);
}

TEST(TransactionTest, ASuspendedWalkEndsByItsFailureOrItsClientsDeath)
{
    struct Case {
        const char* name;
        bool clientDies;
        std::size_t replies;
        std::uint64_t errorcode;
    };
    for (const Case& c : {Case{"bad element after a yield", false, 1, 9}, Case{"client died", true, 0, 0}}) {
        SCOPED_TRACE(c.name);
        test::LogCapture log;
        Fairness f;
        std::string p1 = f.plugIn("P1.vext");
        f.add(*f.a, Array{Value(p1), Value("relative"), Value(p1)});
        ASSERT_TRUE(f.service.runOne());
        if (c.clientDies) {
            f.a->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
            f.h.queues["vyn"]->runUntilIdle();
        }
        f.h.drain();
        auto r = f.a->sent();
        ASSERT_EQ(r.size(), c.replies);
        if (c.replies) {
            EXPECT_EQ(r[0].get("errorcode"), Value(c.errorcode));
        }
        EXPECT_EQ(f.h.registry->registered(), (std::vector<std::string>{p1})); // nothing after the end
    }
}

} // namespace
} // namespace tv
