// Requests through the real daemon: the client library and tvkit against the
// real tvd binary over its socket.
#include "platform/ipc/VynFrame.h"
#include "tests/support/DaemonConnection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tv {
namespace {

using test::TestDaemon;

class RequestsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.log(); }

    TestDaemon daemon_;
};

TEST_F(RequestsTest, HostileAndDeadClientsGetNoReplyAndOthersAreServed)
{
    // A header announcing 4 GiB is cut at once. Each malformation is the
    // transport's to judge; this one shows the daemon wires its limits in.
    int hostile = test::connectUnix(daemon_.socketPath());
    std::vector<std::uint8_t> giant(24, 0);
    giant[0] = giant[1] = giant[8] = 1; // format, a reply expected, message id
    std::memset(&giant[4], 0xff, 4);
    ASSERT_EQ(::write(hostile, giant.data(), giant.size()), static_cast<ssize_t>(giant.size()));
    pollfd p{hostile, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 5000), 1);
    EXPECT_LE(::recv(hostile, giant.data(), giant.size(), MSG_DONTWAIT), 0);
    ::close(hostile);

    // A raw peer sends a burst of requests and goes away without reading.
    {
        platform::Message m(Value{{"request", "bulk"}, {"version", Value(std::uint64_t{3})}});
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
    test::DaemonConnection other(daemon_);
    EXPECT_FALSE(TvDaemonClient::errorInReply(other.ask([&](auto reply) { other.client().bulkPluginsReply(0xFF, reply); })));
    EXPECT_TRUE(daemon_.waitForLog("bulk options 0xff not supported"));
    EXPECT_TRUE(daemon_.running());
}

TEST_F(RequestsTest, TvkitRawExitStatuses)
{
    auto ok = daemon_.tvkit({"raw", R"({"request": "bulk", "version": 3, "flags": 16})"});
    EXPECT_EQ(ok.exitStatus, 0) << ok.err;
    EXPECT_EQ(ok.out, "{}\n");

    auto refused = daemon_.tvkit({"raw", R"({"request": "bulk", "version": 4})"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.out.find("\"errorcode\": 7"), std::string::npos) << refused.out;
    EXPECT_NE(refused.out.find("unsupported protocol version 4 (current 3)"), std::string::npos);

    auto unknown = daemon_.tvkit({"raw", R"({"request": "frobnicate", "version": 3})"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_NE(unknown.out.find("unrecognized request"), std::string::npos);

    for (std::vector<std::string> bad : {std::vector<std::string>{"raw", "{not json"}, {"raw", "[1, 2]"}, {"frobnicate"}, {}})
        EXPECT_EQ(daemon_.tvkit(bad).exitStatus, 2) << (bad.empty() ? "" : bad.back());
    auto help = test::runProgram({TVKIT_BINARY, "help", "raw"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_EQ(help.out.rfind("usage: tvkit raw", 0), 0u) << help.out; // no service needed

    auto unreachable = test::runProgram({TVKIT_BINARY, "--service", daemon_.root() + "/nothing-here", "raw",
                                   R"({"request": "bulk", "version": 3})"},
                                  daemon_.clientEnv());
    EXPECT_EQ(unreachable.exitStatus, 69);
    EXPECT_NE(unreachable.err.find("cannot reach tvd"), std::string::npos);
}

} // namespace
} // namespace tv
