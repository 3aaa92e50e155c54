// Requests through the real daemon: the client library and tvkit against the
// real tvd binary over its socket.
#include "Tarvik/TvDaemonClient.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/PlatformConfig.h"
#include "platform/ipc/VynFrame.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

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

    // The answer to a bulk request with `flags` from `client`.
    static VynEvent ask(TvDaemonClient& client, std::uint64_t flags = 0)
    {
        std::promise<VynEvent> answered;
        auto f = answered.get_future();
        client.bulkPluginsReply(flags, [&](const VynEvent& a) { answered.set_value(a); });
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
    EXPECT_FALSE(TvDaemonClient::errorInReply(ask(*client_, 0xFF)));
    EXPECT_TRUE(daemon_.waitForLog("bulk options 0xff not supported"));
    EXPECT_TRUE(daemon_.running());
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

    for (std::vector<std::string> bad : {std::vector<std::string>{"raw", "{not json"}, {"raw", "[1, 2]"}, {"frobnicate"}, {}})
        EXPECT_EQ(tvkit(bad).exitStatus, 2) << (bad.empty() ? "" : bad.back());
    for (std::vector<std::string> help : {std::vector<std::string>{"--help"}, {"help", "raw"}}) {
        auto r = tvkit(help, false);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_NE(r.out.find(help.size() == 1 ? "usage: tvkit" : "usage: tvkit raw"), std::string::npos);
    }

    auto unreachable = runProgram({TVKIT_BINARY, "--service", daemon_.root() + "/nothing-here", "raw",
                                   R"({"request": "bulk", "version": 3})"},
                                  daemon_.clientEnv());
    EXPECT_EQ(unreachable.exitStatus, 69);
    EXPECT_NE(unreachable.err.find("cannot reach tvd"), std::string::npos);
}

} // namespace
} // namespace tv
