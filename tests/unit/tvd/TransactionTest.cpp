#include "tvd/Transaction.h"

#include "base/InternalInconsistency.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ServerHarness.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <new>
#include <stdexcept>

namespace tv {
namespace {

using test::ServerHarness;

Value request(const char* type, Value version = Value(std::uint64_t{3}))
{
    Value r = Value::emptyDictionary().with("version", version);
    return type ? r.with("request", Value(type)) : r;
}

std::string failure(const platform::Message& reply)
{
    auto code = reply.get("errorcode").unsignedValue();
    auto text = reply.get("error").asString();
    return std::to_string(code) + " " + (text ? *text : "<none>");
}

TEST(TransactionTest, OnlyVersionsTwoAndThreeOfKnownTypesAreServed)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(42);
    const std::pair<Value, std::string> cases[] = {
        {request("bulk", Value(std::uint64_t{2})), "0 <none>"},
        {request("bulk"), "0 <none>"},
        {request("bulk", Value(std::uint64_t{4})), "7 unsupported protocol version 4 (current 3)"},
        {request("bulk", Value(3)), "7 unsupported protocol version 0 (current 3)"}, // signed reads as 0
        {request("bulk", Value()), "7 unsupported protocol version 0 (current 3)"},
        {request("bulk", Value(UINT64_MAX)), "7 unsupported protocol version 18446744073709551615 (current 3)"},
        {request(nullptr), "4 invalid request format (missing type)"},
        {request("Add"), "4 unrecognized request"},
        {request("bulk-annotatex"), "4 unrecognized request"},
        {request("ready-x"), "4 unrecognized request"},
        {request("bulk").with("flags", Value(std::uint64_t{0x10})), "0 <none>"},
    };
    for (const auto& [body, expected] : cases)
        h.send(*c, body);
    h.send(*c, request("bulk").with("flags", Value(std::uint64_t{1})), false); // one-way: no reply
    h.drain();
    auto r = h.replies(*c);
    ASSERT_EQ(r.size(), std::size(cases));
    for (std::size_t i = 0; i < r.size(); ++i)
        EXPECT_EQ(failure(r[i]), cases[i].second) << cases[i].first.description();
    EXPECT_NE(r[0].replyTo(), r[1].replyTo());
    EXPECT_EQ(log.count("bulk options 0x10 not supported"), 1u);
    EXPECT_EQ(log.count("bulk options 0x1 not supported"), 1u);
    EXPECT_EQ(log.count("client 42 requested bulk"), 4u);
}

// Walks `paths` in an add request of a live client outside the queues;
// returns the steps seen and the reply.
std::pair<std::vector<std::pair<std::string, bool>>, platform::Message> walk(Value paths, bool stopOnUnresolved = false)
{
    ServerHarness h;
    auto c = h.connect(11);
    platform::Message m(request("add").with("paths", std::move(paths)));
    m.setMessageId(1);
    m.setExpectsReply(true);
    Transaction t(m, std::static_pointer_cast<TvdVynClient>(c->context()));
    std::vector<std::pair<std::string, bool>> seen;
    t.processPaths([&](const std::string& p, bool resolved) {
        seen.emplace_back(p, resolved);
        if (stopOnUnresolved && !resolved) {
            t.failMessage(9, "stopped at " + p);
            return false;
        }
        return true;
    });
    while (!t.resume()) {
    } // a walk that used up its time slice goes on
    EXPECT_EQ(c->sent().size(), 1u);
    return {seen, c->sent().back()};
}

TEST(TransactionTest, PathWalkerCanonicalisesAndRefusesRelativePaths)
{
    test::TempDir dir;
    std::filesystem::create_directories(dir.file("real/B.vext"));
    std::filesystem::create_directory_symlink(dir.file("real"), dir.file("link"));
    auto canonical = std::filesystem::canonical(dir.file("real/B.vext")).string();
    using Seen = std::vector<std::pair<std::string, bool>>;

    auto [seen, reply] = walk(Value(Array{Value(dir.file("link/B.vext")), Value(dir.file("link/../real/./B.vext")),
                                          Value(dir.file("missing/X.vext"))}));
    // An unresolvable path reaches the step spelled as received.
    EXPECT_EQ(seen, (Seen{{canonical, true}, {canonical, true}, {dir.file("missing/X.vext"), false}}));
    EXPECT_EQ(reply.body(), Value::emptyDictionary());
    std::tie(seen, reply) = walk(Value(Array{Value("/no/such/path"), Value("/")}), true);
    EXPECT_EQ(seen.size(), 1u);
    EXPECT_EQ(failure(reply), "9 stopped at /no/such/path");

    // A NUL byte would make the file system read a shorter, other path.
    const std::string withNul = dir.file("real") + std::string("\0/x", 3);
    const std::tuple<Value, std::size_t, std::string> refused[] = {
        {Value(Array{Value(dir.file("real")), Value("rel/B.vext"), Value("/never")}), 1, "9 absolute path required: rel/B.vext"},
        {Value(Array{Value(withNul)}), 0, "9 invalid path: " + withNul},
        {Value(), 0, "4 invalid request format"},
        {Value("/a/string"), 0, "4 invalid request format"},
        {Value(Array{Value(3)}), 0, "4 invalid request format"},
    };
    for (const auto& [paths, steps, expected] : refused) {
        std::tie(seen, reply) = walk(paths);
        EXPECT_EQ(seen.size(), steps) << expected; // elements before the bad one were handled
        EXPECT_EQ(failure(reply), expected);
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
    ASSERT_EQ(c->sent().size(), 1u);
    EXPECT_EQ(failure(c->sent()[0]), "11 access to plugin x denied: y");
    EXPECT_EQ(log.countContaining("second reply to one request of client 3 refused"), 2u);
    Transaction(m, client).failError(4, TvError{"POSIX", 2, "open: No such file or directory"});
    EXPECT_EQ(failure(c->sent().back()), "4 open: No such file or directory"); // a foreign domain's code is not passed on
    Transaction(m, client).failError(4, makeError(12));
    EXPECT_EQ(failure(c->sent().back()), "12 <none>");
}

TEST(TransactionTest, AnythingAHandlerThrowsEndsTheRequestWithOneReply)
{
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[] { raiseInternalInconsistency("broken"); }, "internal inconsistency while serving"},
        {[] { throw std::runtime_error("boom"); }, "exception while serving remove request"},
        {[] { throw std::bad_alloc(); }, "exception while serving remove request"},
        {[] { throw 42; }, "unknown exception while serving remove request"},
    };
    for (const auto& [thrower, logged] : cases) {
        SCOPED_TRACE(logged);
        test::LogCapture log;
        ServerHarness h;
        h.codeSigning->onLookup = thrower;
        auto c = h.connect(8);
        h.send(*c, request("remove").with("paths", Value(Array{Value("/")})));
        h.send(*c, request("bulk"));
        h.drain();
        auto r = h.replies(*c);
        ASSERT_EQ(r.size(), 2u);
        EXPECT_EQ(failure(r[0]), "4 internal error");
        EXPECT_EQ(r[1].body(), Value::emptyDictionary()); // the next request is served
        EXPECT_EQ(log.countContaining(logged), 1u);
    }
}

// Long requests yield between elements: with a time slice of zero every
// element is one turn, and other clients' requests run in between. The add
// ends once: served, failed at a bad element, or dropped with its client.
TEST(TransactionTest, ALongRequestYieldsToOtherClientsAndEndsOnce)
{
    struct Case {
        bool relative, dies;
        const char* reply;
    };
    for (const Case& tc : {Case{false, false, "0 <none>"}, Case{true, false, "9 absolute path required: relative"},
                           Case{false, true, nullptr}}) {
        SCOPED_TRACE(tc.reply ? tc.reply : "client died");
        test::TempDir dir;
        ServerHarness h;
        h.server->setRequestTimeSlice(std::chrono::nanoseconds(0));
        auto a = h.connect(21), b = h.connect(22);
        Array paths;
        for (const char* name : {"P1.vext", "P2.vext", "P3.vext"}) {
            std::filesystem::create_directories(dir.file(name));
            paths.push_back(Value(std::filesystem::canonical(dir.file(name)).string()));
        }
        if (tc.relative)
            paths[1] = Value("relative");
        auto addId = h.send(*a, request("add").with("paths", Value(paths)));
        h.send(*a, request("bulk"));
        h.send(*b, request("bulk"));
        h.queues["vyn"]->runUntilIdle();
        ASSERT_TRUE(h.queues["service"]->runOne()); // the first element of the add
        ASSERT_TRUE(h.queues["service"]->runOne()); // the other client's turn
        EXPECT_EQ(b->sent().size(), 1u);
        EXPECT_TRUE(a->sent().empty());
        if (tc.dies) {
            a->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
            h.queues["vyn"]->runUntilIdle();
        }
        h.drain();
        auto r = a->sent(); // the add's one reply, then the client's next request
        ASSERT_EQ(r.size(), tc.reply ? 2u : 0u);
        if (tc.reply) {
            EXPECT_EQ(r[0].replyTo(), addId);
            EXPECT_EQ(failure(r[0]), tc.reply);
        }
        EXPECT_EQ(h.registry->registered().size(), tc.relative || tc.dies ? 1u : 3u); // nothing after the end
    }
}

} // namespace
} // namespace tv
