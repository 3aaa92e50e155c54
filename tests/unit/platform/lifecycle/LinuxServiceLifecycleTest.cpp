#include "platform/lifecycle/LinuxServiceLifecycle.h"

#include "tests/support/LogCapture.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tv::platform {
namespace {

using namespace std::chrono_literals;

using test::NotifySocket;

class LinuxServiceLifecycleTest : public ::testing::Test {
protected:
    LinuxServiceLifecycleTest() { config_.socketDir = dir_ + "/sockets"; }
    // A test's service closes its connections when it goes, at the end of
    // the test body; their last events reach events_ on vynQueue_, which
    // must have run them before events_ goes.
    ~LinuxServiceLifecycleTest() override { vynQueue_->sync([] {}); }

    test::TempDir tmp_;
    std::string dir_ = tmp_.path();
    PlatformConfig config_;
    test::LogCapture log_;
    std::vector<std::shared_ptr<VynConnection>> accepted_; // and their events, on vynQueue_
    std::vector<VynEvent> events_;
    std::shared_ptr<SerialQueue> vynQueue_ = SerialQueue::create("test.vyn");
    std::shared_ptr<SerialQueue> requestQueue_ = SerialQueue::create("test.service");
    std::shared_ptr<SerialQueue> clientQueue_ = SerialQueue::create("test.client");

    std::shared_ptr<VynListener> listen(LinuxVynService& vyn, const std::string& name)
    {
        auto listener = vyn.listen(name, vynQueue_).value();
        listener->setConnectionHandler([this](std::shared_ptr<VynConnection> c) {
            accepted_.push_back(c);
            c->setEventHandler([this](const VynEvent& e) { events_.push_back(e); });
            c->resume();
        });
        listener->resume();
        return listener;
    }
};

TEST_F(LinuxServiceLifecycleTest, SigtermAnnouncesTerminationAndEndsCleanly)
{
    NotifySocket manager(dir_ + "/notify");
    ASSERT_TRUE(manager.bound());
    auto vyn = LinuxVynService::create(config_, SocketActivation());
    auto listener = listen(*vyn, "svc");
    auto client = vyn->connect("svc", clientQueue_);
    client->resume();

    LinuxServiceLifecycle lifecycle(config_, vyn, requestQueue_, {vynQueue_},
                                    ServiceManagerEnvironment{dir_ + "/notify", {}});
    EXPECT_FALSE(lifecycle.socketActivated());
    auto status = std::async(std::launch::async, [&] { return lifecycle.run(); });
    ASSERT_TRUE(manager.await("READY=1"));
    // The connection counts before its handler has run on vynQueue_; the
    // termination event only reaches a connection whose handler is set.
    ASSERT_TRUE(test::eventually([&] {
        bool yes = false;
        vynQueue_->sync([&] { yes = !accepted_.empty(); });
        return yes;
    }));
    ASSERT_EQ(vyn->connectionCount(), 1u);

    ::kill(::getpid(), SIGTERM);
    ASSERT_EQ(status.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(status.get(), 0);
    EXPECT_TRUE(manager.await("STOPPING=1"));
    vynQueue_->sync([] {});
    ASSERT_TRUE(!events_.empty() && eventError(events_.back()));
    EXPECT_EQ(eventError(events_.back())->kind, VynError::Kind::TerminationImminent);
    EXPECT_EQ(log_.countContaining("terminating on signal 15"), 1u);
}

TEST_F(LinuxServiceLifecycleTest, WatchdogPingsStopWhileTheRequestQueueIsStuck)
{
    std::string name = "@vyn-watchdog-" + std::to_string(::getpid());
    NotifySocket manager(name);
    ASSERT_TRUE(manager.bound());
    auto vyn = LinuxVynService::create(config_, SocketActivation());
    LinuxServiceLifecycle lifecycle(config_, vyn, requestQueue_, {},
                                    ServiceManagerEnvironment{name, std::chrono::microseconds(100000)});
    auto status = std::async(std::launch::async, [&] { return lifecycle.run(); });
    ASSERT_TRUE(manager.await("READY=1"));
    ASSERT_TRUE(manager.await("WATCHDOG=1"));

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> stuck;
    requestQueue_->async([&, released] {
        stuck.set_value();
        released.wait();
    });
    stuck.get_future().wait();
    std::this_thread::sleep_for(60ms); // a ping already queued may still be sent
    manager.drain();
    EXPECT_EQ(manager.next(400ms), ""); // several intervals without a ping
    release.set_value();
    EXPECT_TRUE(manager.await("WATCHDOG=1", 2000ms));

    ::kill(::getpid(), SIGTERM);
    ASSERT_EQ(status.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(status.get(), 0);
}

TEST_F(LinuxServiceLifecycleTest, SocketActivatedProcessEndsOnlyWhenIdle)
{
    config_.idleExitSeconds = 1;
    std::string path = dir_ + "/activated";
    int fd = test::listenUnix(path);
    ASSERT_GE(fd, 0);

    auto vyn = LinuxVynService::create(config_, SocketActivation({{fd, "tvd.socket"}}));
    auto listener = listen(*vyn, "tvd");
    auto client = vyn->connect(path, clientQueue_);
    client->resume();
    vyn->beginTransaction();

    LinuxServiceLifecycle lifecycle(config_, vyn, requestQueue_, {vynQueue_}, ServiceManagerEnvironment{});
    EXPECT_TRUE(lifecycle.socketActivated());
    auto status = std::async(std::launch::async, [&] { return lifecycle.run(); });
    EXPECT_EQ(status.wait_for(1300ms), std::future_status::timeout); // connected and in a transaction
    client->cancel();
    EXPECT_EQ(status.wait_for(1300ms), std::future_status::timeout); // the transaction still holds it
    EXPECT_EQ(vyn->connectionCount(), 0u);
    vyn->endTransaction();
    ASSERT_EQ(status.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(status.get(), 0);
    EXPECT_EQ(log_.countContaining("exiting after 1 seconds idle"), 1u);

    // The listening socket was the service manager's and still accepts
    // connections for the next instance.
    int waiting = test::connectUnix(path);
    EXPECT_GE(waiting, 0);
    ::close(waiting);
}

} // namespace
} // namespace tv::platform
