// Requests through the real daemon: the client library and tvkit against the
// real tvd binary over its socket.
#include "Tarvik/TvDaemonClient.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/PlatformConfig.h"
#include "platform/ipc/VynFrame.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <unistd.h>

namespace tv {
namespace {

using platform::Message;
using platform::VynEvent;
using test::runProgram;
using test::TestDaemon;

class RequestsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(daemon_.start()) << daemon_.log();
        auto config = platform::PlatformConfig::loadFile(daemon_.configPath());
        ASSERT_TRUE(config.ok());
        vyn_ = platform::LinuxVynService::create(*config);
        ASSERT_TRUE(vyn_);
        client_ = std::make_unique<TvDaemonClient>(vyn_, daemon_.socketPath().c_str());
    }

    VynEvent ask(Message request)
    {
        std::promise<VynEvent> answered;
        auto f = answered.get_future();
        client_->sendReply(std::move(request), [&](const VynEvent& a) { answered.set_value(a); });
        EXPECT_EQ(f.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        return f.get();
    }

    test::ProcessResult tvkit(std::vector<std::string> args, bool withService = true)
    {
        std::vector<std::string> argv{TVKIT_BINARY};
        if (withService) {
            argv.push_back("--service");
            argv.push_back(daemon_.socketPath());
        }
        argv.insert(argv.end(), args.begin(), args.end());
        return runProgram(argv, daemon_.clientEnv());
    }

    TestDaemon daemon_;
    std::shared_ptr<platform::LinuxVynService> vyn_;
    std::unique_ptr<TvDaemonClient> client_;
};

TEST_F(RequestsTest, EveryProtocolVersionFromZeroToFive)
{
    for (std::uint64_t v = 0; v <= 5; ++v) {
        SCOPED_TRACE(v);
        Message m = client_->request("bulk");
        m.set("version", Value(v));
        VynEvent answer = ask(std::move(m));
        auto error = TvDaemonClient::errorInReply(answer);
        if (v == 2 || v == 3) {
            EXPECT_FALSE(error);
        } else {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->code, 7);
            EXPECT_EQ(error->description, "unsupported protocol version " + std::to_string(v) + " (current 3)");
        }
    }
}

TEST_F(RequestsTest, MisspeltAndMissingTypes)
{
    auto error = TvDaemonClient::errorInReply(ask(client_->request("Bulk")));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 4);
    EXPECT_EQ(error->description, "unrecognized request");

    Message untyped = client_->request("bulk");
    untyped.set("request", Value());
    error = TvDaemonClient::errorInReply(ask(std::move(untyped)));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 4);
    EXPECT_EQ(error->description, "invalid request format (missing type)");

    std::promise<VynEvent> answered;
    client_->bulkPluginsReply(0xFF, [&](const VynEvent& a) { answered.set_value(a); });
    EXPECT_FALSE(TvDaemonClient::errorInReply(answered.get_future().get()));
    EXPECT_TRUE(daemon_.waitForLog("bulk options 0xff not supported"));
}

TEST_F(RequestsTest, TheThousandthRequestIsLogged)
{
    std::atomic<int> answered{0};
    std::promise<void> all;
    for (int i = 0; i < 1000; ++i)
        client_->bulkPluginsReply(0, [&](const VynEvent& a) {
            EXPECT_FALSE(TvDaemonClient::errorInReply(a));
            if (++answered == 1000)
                all.set_value();
        });
    ASSERT_EQ(all.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    std::string line = "client " + std::to_string(::getpid()) + " used 1000 requests so far";
    EXPECT_TRUE(daemon_.waitForLog(line)) << daemon_.log().substr(0, 2000);
    EXPECT_EQ(daemon_.log().find("used 999 requests"), std::string::npos);
}

TEST_F(RequestsTest, AClientThatDiesWithRequestsQueuedGetsNoReplyAndOthersAreServed)
{
    // A raw peer sends a burst of requests and goes away without reading.
    {
        Message m = client_->request("bulk");
        auto frame = platform::VynFrame::encode(m, true, 64);
        ASSERT_TRUE(frame.ok());
        int fd = test::connectUnix(daemon_.socketPath());
        ASSERT_GE(fd, 0);
        std::vector<std::uint8_t> burst;
        for (std::uint64_t id = 1; id <= 100; ++id) {
            Bytes f = *frame;
            platform::VynFrame::setMessageId(f, id);
            burst.insert(burst.end(), f.begin(), f.end());
        }
        ASSERT_EQ(::write(fd, burst.data(), burst.size()), static_cast<ssize_t>(burst.size()));
        ::close(fd);
    }
    EXPECT_TRUE(daemon_.waitForLog("is dead"));
    EXPECT_FALSE(TvDaemonClient::errorInReply(ask(client_->request("bulk"))));
    EXPECT_TRUE(daemon_.running());
}

TEST_F(RequestsTest, ClientLibraryMapsABrokenConnectionToCode4)
{
    EXPECT_FALSE(TvDaemonClient::errorInReply(ask(client_->request("bulk"))));
    EXPECT_EQ(daemon_.stop(), 0);
    auto error = TvDaemonClient::errorInReply(ask(client_->request("bulk")));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, "Tarvik");
    EXPECT_EQ(error->code, 4);
    EXPECT_FALSE(error->description->empty());

    // Nobody listening at all.
    TvDaemonClient nobody(vyn_, (daemon_.root() + "/run/vyn/nobody").c_str());
    std::promise<VynEvent> answered;
    nobody.bulkPluginsReply(0, [&](const VynEvent& a) { answered.set_value(a); });
    error = TvDaemonClient::errorInReply(answered.get_future().get());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 4);
}

TEST_F(RequestsTest, TvkitRawExitStatuses)
{
    auto ok = tvkit({"raw", R"({"request": "bulk", "version": 3, "flags": 16})"});
    EXPECT_EQ(ok.exitStatus, 0) << ok.err;
    EXPECT_EQ(ok.out, "{}\n");

    auto refused = tvkit({"raw", R"({"request": "bulk", "version": 4})"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.out.find("\"errorcode\": 7"), std::string::npos) << refused.out;
    EXPECT_NE(refused.out.find("unsupported protocol version 4 (current 3)"), std::string::npos);

    auto unknown = tvkit({"raw", R"({"request": "frobnicate", "version": 3})"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_NE(unknown.out.find("unrecognized request"), std::string::npos);

    EXPECT_EQ(tvkit({"raw", "{not json"}).exitStatus, 2);
    EXPECT_EQ(tvkit({"raw", "[1, 2]"}).exitStatus, 2);
    EXPECT_EQ(tvkit({"frobnicate"}).exitStatus, 2);
    EXPECT_EQ(tvkit({}).exitStatus, 2);

    auto help = tvkit({"--help"}, false);
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.out.find("usage: tvkit"), std::string::npos);
    auto rawHelp = tvkit({"help", "raw"}, false);
    EXPECT_EQ(rawHelp.exitStatus, 0);
    EXPECT_NE(rawHelp.out.find("usage: tvkit raw"), std::string::npos);

    auto unreachable = runProgram({TVKIT_BINARY, "--service", daemon_.root() + "/nothing-here", "raw",
                                   R"({"request": "bulk", "version": 3})"},
                                  daemon_.clientEnv());
    EXPECT_EQ(unreachable.exitStatus, 69);
    EXPECT_NE(unreachable.err.find("cannot reach tvd"), std::string::npos);
}

} // namespace
} // namespace tv
