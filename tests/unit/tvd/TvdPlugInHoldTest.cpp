// The server's hold table: what blocks a plug-in, what releases a hold, the
// keep-alive transaction of each live hold and the notification per change.
#include "tvd/TvdPlugInHold.h"

#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

TEST(TvdPlugInHoldTest, HoldsBlockByUuidUntilReleasedByTokenOrByTheirClientsDeath)
{
    test::LogCapture log;
    test::ServerHarness h;
    TvdServer& server = *h.server;
    TvdPlugIn::setSystemVolumeRoot("/System");
    // Two plug-ins of the same application.
    auto p1 = TvdPlugIn::initWithRSData(test::makePlugInRecord("/apps/A.app/PlugIns/P1.vext", "p1"));
    auto p2 = TvdPlugIn::initWithRSData(test::makePlugInRecord("/apps/A.app/PlugIns/P2.vext", "p2"));
    auto dying = h.connect(20);
    auto other = std::static_pointer_cast<TvdVynClient>(h.connect(21)->context());
    auto posts = [&] { return h.notifications->state("com.veltra.tarvik.annotation-change"); };
    std::vector<Uuid> tokens;
    auto hold = [&](std::shared_ptr<TvdVynClient> client, std::shared_ptr<TvdPlugIn> p) {
        auto made = TvdPlugInHold::initWithPlugInsForClient({p, p}, client);
        tokens.push_back(made->uuid());
        server.addHold(made);
    };
    for (int i = 0; i < 3; ++i)
        hold(std::static_pointer_cast<TvdVynClient>(dying->context()), p1);
    hold(other, p1);
    EXPECT_TRUE(server.holdOnPlugIn(*TvdPlugIn::initWithRSData(p1->rsproxy()))); // same UUID, other object
    EXPECT_FALSE(server.holdOnPlugIn(*p2));
    EXPECT_EQ(h.vyn->openTransactions(), 4u);
    EXPECT_EQ(posts(), 4u);

    dying->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
    h.drain();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(log.contains("releasing plug-in hold " + tokens[i].string() + " for dead client pid 20"));
    EXPECT_EQ(posts(), 7u);
    EXPECT_TRUE(server.holdOnPlugIn(*p1)); // still held by the other client
    EXPECT_EQ(h.vyn->openTransactions(), 1u);

    server.unholdToken(tokens[3]);
    EXPECT_TRUE(log.contains("releasing plug-in hold " + tokens[3].string() + " at client's request"));
    EXPECT_FALSE(server.holdOnPlugIn(*p1));
    EXPECT_EQ(h.vyn->openTransactions(), 0u);
    EXPECT_EQ(posts(), 8u);
}

TEST(TvdPlugInHoldTest, AUidHoldsAtMostItsShareOfTheTableOverAllItsConnections)
{
    test::ServerHarness h;
    auto p = TvdPlugIn::initWithRSData(test::makePlugInRecord("/apps/A.app/PlugIns/P.vext", "p"));
    auto client = [&](pid_t pid, uid_t uid) {
        return std::static_pointer_cast<TvdVynClient>(h.connect(pid, "/usr/bin/host", uid)->context());
    };
    auto a1 = client(30, 501), a2 = client(31, 501), b = client(32, 502);
    auto place = [&](const std::shared_ptr<TvdVynClient>& c) {
        return h.server->addHold(TvdPlugInHold::initWithPlugInsForClient({p}, c));
    };
    for (std::size_t i = 0; i < TvdServer::kMaxHoldsPerUid; ++i)
        ASSERT_TRUE(place(i % 2 ? a1 : a2));
    EXPECT_FALSE(place(a1));
    EXPECT_TRUE(place(b));
    EXPECT_EQ(h.server->holdCount(), TvdServer::kMaxHoldsPerUid + 1);
    EXPECT_EQ(h.vyn->openTransactions(), TvdServer::kMaxHoldsPerUid + 1); // the refused one's ended
}

} // namespace
} // namespace tv
