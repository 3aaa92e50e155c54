#include "tvd/TvdVynClient.h"

#include "tests/support/LogCapture.h"
#include "tests/support/ServerHarness.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

using test::ServerHarness;

std::shared_ptr<TvdVynClient> clientOf(test::FakeVynConnection& c)
{
    return std::static_pointer_cast<TvdVynClient>(c.context());
}

TEST(TvdVynClientTest, IdentifiesTheClientResumesItsConnectionAndCountsEntitlementsUnlessFalseOrZero)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(1234, "/opt/apps/Host.app/host");
    auto client = clientOf(*c);
    ASSERT_TRUE(client);
    EXPECT_TRUE(c->resumed());
    EXPECT_TRUE(client->acceptWork());
    EXPECT_TRUE(log.contains("new client 1234 /opt/apps/Host.app/host"));
    EXPECT_NE(client->description().find("pid=1234 path=/opt/apps/Host.app/host>"), std::string::npos);

    // A process whose executable cannot be read gets an empty path and no
    // bundle.
    platform::AuditToken token;
    token.pid = 99;
    auto unknown = h.vyn->listener()->connect(token);
    h.drain();
    EXPECT_EQ(clientOf(*unknown)->path(), "");
    EXPECT_FALSE(clientOf(*unknown)->bundle());

    // Entitlements count unless false or zero.
    h.codeSigning->entitlements[10] = Value{{"false", false}, {"zero", 0},      {"uzero", 0u},     {"dzero", 0.0},
                                            {"true", true},   {"string", "no"}, {"one", 1}, {"list", Value(Array{})}};
    auto entitled = clientOf(*h.connect(10));
    for (const char* absent : {"false", "zero", "uzero", "dzero", "missing"})
        EXPECT_FALSE(entitled->hasEntitlement(absent)) << absent;
    for (const char* present : {"true", "string", "one", "list"})
        EXPECT_TRUE(entitled->hasEntitlement(present)) << present;
    EXPECT_EQ(entitled->entitlementValueForKey("string"), Value("no"));

    h.codeSigning->broken[11] = true;
    auto broken = clientOf(*h.connect(11));
    EXPECT_FALSE(broken->hasEntitlement("true"));
    EXPECT_TRUE(log.contains("error retrieving entitlements for client 11"));
}

TEST(TvdVynClientTest, ConnectionEventsAreHandledByKind)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(77);
    auto client = clientOf(*c);
    using platform::VynError;
    c->deliver(VynError{VynError::Kind::TerminationImminent, "bye"});
    c->deliver(VynError{VynError::Kind::Other, "weird"});
    c->deliver(platform::Message(Value("not a request")));
    h.drain();
    EXPECT_TRUE(log.contains("unexpected message: not a request from: 77"));
    EXPECT_TRUE(c->sent().empty());
    EXPECT_TRUE(log.contains("client 77 termination imminent"));
    EXPECT_TRUE(log.contains("unexpected error type from vyn: weird"));
    EXPECT_TRUE(client->acceptWork()); // neither changes state

    c->deliver(VynError{VynError::Kind::ConnectionInvalid, "gone"});
    h.drain();
    EXPECT_FALSE(client->acceptWork());
    EXPECT_TRUE(log.contains("client 77 is dead"));
}

TEST(TvdVynClientTest, RequestsWaitForIdentificationWhileOtherClientsAreServed)
{
    test::LogCapture log;
    ServerHarness h;
    auto known = h.connect(40);
    h.processInfo->paths[41] = "/opt/apps/Slow.app/slow";
    platform::AuditToken token;
    token.pid = 41;
    auto slow = h.vyn->listener()->connect(token);
    h.queues["vyn"]->runUntilIdle(); // made and resumed, not identified yet
    EXPECT_TRUE(slow->resumed());
    EXPECT_NE(clientOf(*slow)->description().find("path=>"), std::string::npos);

    Value bulk{{"request", "bulk"}, {"version", Value(std::uint64_t{3})}};
    h.send(*slow, bulk);
    h.send(*known, bulk);
    h.queues["vyn"]->runUntilIdle();
    h.queues["service"]->runUntilIdle();
    EXPECT_EQ(known->sent().size(), 1u);
    EXPECT_TRUE(slow->sent().empty());
    EXPECT_FALSE(log.contains("new client 41 /opt/apps/Slow.app/slow"));

    h.queues["identify"]->runUntilIdle();
    EXPECT_TRUE(log.contains("new client 41 /opt/apps/Slow.app/slow"));
    h.queues["service"]->runUntilIdle();
    EXPECT_EQ(slow->sent().size(), 1u);
}

} // namespace
} // namespace tv
