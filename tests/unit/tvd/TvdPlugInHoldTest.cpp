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

class TvdPlugInHoldTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        // Two plug-ins of the same application.
        p1 = TvdPlugIn::initWithRSData(test::makePlugInRecord("/apps/A.app/PlugIns/P1.vext", "com.example.p1"));
        p2 = TvdPlugIn::initWithRSData(test::makePlugInRecord("/apps/A.app/PlugIns/P2.vext", "com.example.p2"));
        ASSERT_TRUE(p1 && p2);
    }
    std::shared_ptr<TvdVynClient> clientOf(const std::shared_ptr<test::FakeVynConnection>& c)
    {
        return std::static_pointer_cast<TvdVynClient>(c->context());
    }
    std::shared_ptr<TvdPlugInHold> hold(const std::shared_ptr<TvdVynClient>& client,
                                        std::vector<std::shared_ptr<TvdPlugIn>> plugIns)
    {
        auto h = TvdPlugInHold::initWithPlugInsForClient(plugIns, client);
        uuids.push_back(h->uuid());
        harness.server->addHold(h);
        return h;
    }
    std::uint64_t posts() { return harness.notifications->posts["com.veltra.tarvik.annotation-change"]; }

    test::ServerHarness harness;
    std::shared_ptr<TvdPlugIn> p1, p2;
    std::vector<Uuid> uuids;
};

TEST_F(TvdPlugInHoldTest, TokensReleaseTheirHoldOnlyAndEachLiveHoldKeepsTheDaemonAlive)
{
    test::LogCapture log;
    auto client = clientOf(harness.connect(10));
    auto& server = *harness.server;
    hold(client, {p1});
    hold(client, {p1, p1});
    EXPECT_TRUE(server.holdOnPlugIn(*p1));
    EXPECT_FALSE(server.holdOnPlugIn(*p2)); // same application, not in a hold
    // A record rebuilt for the same installation is the same plug-in.
    EXPECT_TRUE(server.holdOnPlugIn(*TvdPlugIn::initWithRSData(p1->rsproxy())));
    EXPECT_EQ(harness.vyn->openTransactions(), 2u);
    EXPECT_EQ(posts(), 2u);

    server.unholdToken(Uuid::random());
    EXPECT_EQ(posts(), 2u);
    EXPECT_EQ(server.holdCount(), 2u);

    server.unholdToken(uuids[0]);
    EXPECT_TRUE(log.contains("releasing plug-in hold " + uuids[0].string() + " at client's request"));
    EXPECT_TRUE(server.holdOnPlugIn(*p1)); // still blocked by the other hold
    EXPECT_EQ(harness.vyn->openTransactions(), 1u);

    server.unholdToken(uuids[1]);
    EXPECT_FALSE(server.holdOnPlugIn(*p1));
    EXPECT_EQ(harness.vyn->openTransactions(), 0u);
    EXPECT_EQ(posts(), 4u);
}

TEST_F(TvdPlugInHoldTest, AClientsDeathReleasesEveryHoldItPlacedAndNoOther)
{
    test::LogCapture log;
    auto dying = harness.connect(20);
    auto other = clientOf(harness.connect(21));
    for (int i = 0; i < 3; ++i)
        hold(clientOf(dying), {p1});
    hold(other, {p2});
    EXPECT_EQ(posts(), 4u);

    dying->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
    harness.drain();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(log.contains("releasing plug-in hold " + uuids[i].string() + " for dead client pid 20"));
    EXPECT_EQ(posts(), 7u);
    EXPECT_FALSE(harness.server->holdOnPlugIn(*p1));
    EXPECT_TRUE(harness.server->holdOnPlugIn(*p2));
    EXPECT_EQ(harness.vyn->openTransactions(), 1u);
}

} // namespace
} // namespace tv
