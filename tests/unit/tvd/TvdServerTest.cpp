#include "tvd/TvdServer.h"

#include "platform/ipc/VynService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ServerHarness.h"
#include "tvd/Transaction.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

TEST(TvdServerTest, BuildsItsQueuesAndListenerAndBecomesTheProcessServer)
{
    std::map<std::string, SerialQueue::QoS> made;
    auto vyn = std::make_shared<test::FakeVynService>();
    TvdPlatform platform;
    platform.vyn = vyn;
    platform.applicationRegistry = std::make_shared<test::FakeApplicationRegistry>();
    platform.makeQueue = [&](std::string label, SerialQueue::QoS qos) {
        made[label] = qos;
        return SerialQueue::createManual(label);
    };
    int loops = 0;
    platform.runMainLoop = [&](TvdServer&) {
        ++loops;
        return 7;
    };
    auto server = TvdServer::initForServiceDatabase("/tmp/x.sock", "/tmp/annotations.vlist", platform);
    ASSERT_TRUE(server);
    EXPECT_EQ(TvdServer::server(), server);
    EXPECT_EQ(server->delegate().get(), static_cast<TvDatabaseDelegate*>(server.get()));
    ASSERT_EQ(made.size(), 4u);
    EXPECT_EQ(made["vyn"], SerialQueue::QoS::Default);
    EXPECT_EQ(made["service"], SerialQueue::QoS::UserInitiated);
    EXPECT_EQ(made["serverSync"], SerialQueue::QoS::Default);
    EXPECT_EQ(made["identify"], SerialQueue::QoS::Utility);
    EXPECT_EQ(server->requestScheduler()->queue(), server->mainQueue());
    EXPECT_EQ(server->mainQueue()->label(), "service");
    EXPECT_EQ(server->databaseLocation(), "/tmp/annotations.vlist");
    EXPECT_EQ(server->cacheLimit(), 0u); // until main sets it
    EXPECT_EQ(vyn->listener()->path(), "/tmp/x.sock");

    // The listener stays suspended until run(), which enters the main loop
    // and returns its status.
    EXPECT_FALSE(vyn->listener()->resumed());
    EXPECT_EQ(server->run(), 7);
    EXPECT_TRUE(vyn->listener()->resumed());
    EXPECT_EQ(loops, 1);

    bool ran = false;
    server->submitWork([&] { ran = server->mainQueue()->isCurrent(); });
    EXPECT_FALSE(ran);
    server->mainQueue()->runUntilIdle();
    EXPECT_TRUE(ran);

    // Without an application registry there is no database, so no server.
    TvdPlatform incomplete = platform;
    incomplete.applicationRegistry = nullptr;
    EXPECT_FALSE(TvdServer::initForServiceDatabase("/tmp/y.sock", nullptr, incomplete));
}

TEST(TvdServerTest, ARefusalForAClientWhoseConnectionIsGoneIsDropped)
{
    test::LogCapture log;
    test::ServerHarness h;
    auto connection = h.connect(31);
    auto client = std::static_pointer_cast<TvdVynClient>(connection->context());
    platform::Message m(Value{{"request", "bulk"}, {"version", Value(std::uint64_t{9})}});
    m.setMessageId(5);
    m.setExpectsReply(true);
    Transaction t(m, client);
    connection->setContext(nullptr);
    connection.reset(); // the transport let go of the connection
    ASSERT_FALSE(client->connection());
    t.dispatch();
    EXPECT_TRUE(t.replied());
    EXPECT_TRUE(log.contains("reply to client 31 dropped: connection gone"));
    EXPECT_NE(client->description().find("NO CONNECTION"), std::string::npos);
    EXPECT_EQ(client->pid(), 31);
}

} // namespace
} // namespace tv
