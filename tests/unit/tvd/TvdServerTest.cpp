#include "tvd/TvdServer.h"

#include "platform/ipc/VynService.h"
#include "tests/support/FakeContainerService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tests/support/TestDaemon.h"
#include "tvd/Transaction.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

// The real daemon's construction is exercised end to end; here what only a
// fake platform shows: the listener waits for run(), which returns the main
// loop's status, and no registry means no server.
TEST(TvdServerTest, TheListenerWaitsForRunAndNoRegistryMeansNoServer)
{
    auto vyn = std::make_shared<test::FakeVynService>();
    TvdPlatform platform;
    platform.vyn = vyn;
    platform.applicationRegistry = std::make_shared<test::FakeApplicationRegistry>();
    test::TempDir dir;
    auto containers = std::make_shared<test::FakeContainerService>();
    containers->path = dir.file("container");
    platform.containers = containers;
    platform.makeQueue = [](std::string label, SerialQueue::QoS) { return SerialQueue::createManual(label); };
    platform.runMainLoop = [&](TvdServer&) { return 7; };
    const std::string annotations = dir.file("annotations.vlist");
    auto server = TvdServer::initForServiceDatabase("/tmp/x.sock", annotations.c_str(), platform);
    ASSERT_TRUE(server);
    EXPECT_EQ(TvdServer::server(), server);
    EXPECT_FALSE(vyn->listener()->resumed());
    EXPECT_EQ(server->run(), 7);
    EXPECT_TRUE(vyn->listener()->resumed());

    platform.applicationRegistry = nullptr;
    EXPECT_FALSE(TvdServer::initForServiceDatabase("/tmp/y.sock", nullptr, platform));
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
}

TEST(TvdServerRegistryTest, UninstalledPlugInsAreTakenOffTheJobManagerInListOrder)
{
    test::ServerHarness h;
    h.jobManager->results = {0, 3, 5};
    std::vector<platform::RegistryPlugInRecordPtr> records;
    for (const char* id : {"com.example.a", "com.example.b", "com.example.c"})
        records.push_back(test::makePlugInRecord(std::string("/apps/A.app/PlugIns/") + id + ".vext", id));

    test::LogCapture log;
    h.registry->notifyUninstall(records);
    ASSERT_EQ(h.jobManager->removals.size(), 3u);
    EXPECT_EQ(h.jobManager->removals[0], (std::pair<std::string, std::string>{"com.example.a", "1"}));
    EXPECT_EQ(h.jobManager->removals[2].first, "com.example.c");
    EXPECT_EQ(log.count("requesting jobd termination of plug-in: com.example.b(1) " + records[1]->uuid.string()), 1u);
    // The completions run on the "service" queue, not before.
    EXPECT_EQ(log.countContaining("jobd reported"), 0u);
    h.drain();
    EXPECT_EQ(log.count("jobd reported plug-ins have been terminated"), 1u);
    EXPECT_EQ(log.count("jobd reported no plug-ins on record"), 1u);
    EXPECT_EQ(log.count("jobd error attempting to terminate plug-ins: error=5"), 1u);
}

} // namespace
} // namespace tv
