// The real tvd binary: command line, listening, tracing points, its
// descriptor limit and dead peers.
#include "platform/ipc/VynFrame.h"
#include "tests/support/DaemonConnection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tv {
namespace {

using test::runProgram;
using test::TestDaemon;

const std::string kUsage = "Usage: tvd [-S servicename] [-v]\n";

TEST(DaemonTest, BadCommandLinesPrintUsageAndExit2)
{
    for (std::vector<std::string> args :
         {std::vector<std::string>{"-x"}, {"operand", "-v"}, {"-v", "operand"}, {"-S"}, {"-c"}, {"-d"}}) {
        std::vector<std::string> argv{TVD_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        auto r = runProgram(argv, {{"TVD_LOG_LEVEL", "default"}});
        SCOPED_TRACE(args.front());
        EXPECT_EQ(r.exitStatus, 2);
        // The usage line is the last thing written ("-v" may log before it).
        ASSERT_GE(r.err.size(), kUsage.size());
        EXPECT_EQ(r.err.substr(r.err.size() - kUsage.size()), kUsage);
        if (args.front() == "operand") {
            EXPECT_EQ(r.err, kUsage); // options end at the first operand: "-v" is not read
        }
    }
}

TEST(DaemonTest, UnusableConfigurationMeansNoServer)
{
    test::TempDir dir;
    TestDaemon platform; // its configuration keeps every other path private
    // A missing configuration file; a socket path in a directory that cannot exist.
    for (auto r : {runProgram({TVD_BINARY, "-S", dir.file("s")}, {{"TVD_CONFIG", dir.file("missing.conf")}}),
                   runProgram({TVD_BINARY, "-S", "/proc/version/sock"}, platform.clientEnv())}) {
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_NE(r.err.find("unable to construct server"), std::string::npos) << r.err;
    }
}

TEST(DaemonTest, ListensAtTheNamedPathLogsLaunchAndStopsCleanly)
{
    TestDaemon d;
    // A name without a slash is a socket in the service directory.
    ASSERT_TRUE(d.start({"-S", "com.example.test-tvd", "-v", "-v", "-c", "abc"})) << d.log();
    EXPECT_EQ(d.socketPath(), d.root() + "/run/vyn/com.example.test-tvd"); // where start() connected
    std::string log = d.log();
    EXPECT_NE(log.find("tvd is launching"), std::string::npos);
    std::size_t n = 0;
    for (std::size_t p = 0; (p = log.find("verbose option -v is ineffective", p)) != std::string::npos; ++p)
        ++n;
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(d.stop(), 0);
}

TEST(DaemonTest, AllTenProbesAreCompiledIn)
{
    auto r = runProgram({"/usr/bin/readelf", "-n", TVD_BINARY});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    for (const char* probe : {"client__new", "client__done", "request__input", "request", "request__output",
                              "plugin__add", "plugin__remove", "plugin__ready", "discover__raw", "db__load"}) {
        EXPECT_NE(r.out.find(std::string("Name: ") + probe + "\n"), std::string::npos) << probe;
    }
    // Every probe has an is-enabled semaphore.
    std::size_t notes = 0, semaphores = 0;
    for (std::size_t p = 0; (p = r.out.find("NT_STAPSDT", p)) != std::string::npos; ++p)
        ++notes;
    for (std::size_t p = 0; (p = r.out.find("Semaphore: 0x", p)) != std::string::npos; ++p)
        if (r.out.compare(p, 30, "Semaphore: 0x0000000000000000") != 0)
            ++semaphores;
    EXPECT_EQ(notes, 10u);
    EXPECT_EQ(semaphores, 10u);
}

TEST(DaemonTest, RaisesItsDescriptorLimitToTheHardLimit)
{
    // The daemon inherits a low soft limit, as from a login session.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max < 4224)
        GTEST_SKIP() << "hard descriptor limit too low to tell";
    rlimit low = saved;
    low.rlim_cur = 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    TestDaemon d;
    bool started = d.start();
    ::setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(started) << d.log();

    std::ifstream limits("/proc/" + std::to_string(d.pid()) + "/limits");
    std::string line;
    while (std::getline(limits, line) && line.rfind("Max open files", 0) != 0) {
    }
    std::istringstream fields(line.substr(std::strlen("Max open files")));
    std::string soft, hard;
    fields >> soft >> hard;
    EXPECT_EQ(soft, hard);
    EXPECT_TRUE(d.waitForLog("at most 2048 connections, 256 per uid")) << d.log();
    EXPECT_EQ(d.stop(), 0);
}

// Raw peers send requests and go away without reading: a burst of 100, then
// one request each after a first one was answered (the client is known, so
// the request runs at once on the thread that read it, and the failing
// reply closes the connection inside that thread's reading of it).
TEST(DaemonTest, ADeadClientsRequestsAreDroppedAndOthersAreServed)
{
    TestDaemon daemon;
    ASSERT_TRUE(daemon.start()) << daemon.log();
    platform::Message m(Value{{"request", "bulk"}, {"version", Value(std::uint64_t{3})}});
    auto frame = platform::VynFrame::encode(m, true, 64);
    ASSERT_TRUE(frame.ok());
    auto frames = [&](std::uint64_t first, std::uint64_t count) {
        std::vector<std::uint8_t> bytes;
        for (std::uint64_t id = first; id < first + count; ++id) {
            Bytes f = *frame;
            platform::VynFrame::setMessageId(f, id);
            bytes.insert(bytes.end(), f.begin(), f.end());
        }
        return bytes;
    };
    for (int peer = 0; peer < 11; ++peer) {
        int fd = test::connectUnix(daemon.socketPath());
        ASSERT_GE(fd, 0);
        if (peer > 0) {
            auto one = frames(1, 1);
            ASSERT_EQ(::write(fd, one.data(), one.size()), static_cast<ssize_t>(one.size()));
            pollfd p{fd, POLLIN, 0};
            ASSERT_EQ(::poll(&p, 1, 10000), 1);
            std::uint8_t reply[4096];
            ASSERT_GT(::read(fd, reply, sizeof reply), 0);
            ::shutdown(fd, SHUT_RD); // the next reply's write fails at once
            ::usleep(20000);         // the daemon has gone idle again
        }
        auto burst = frames(2, peer == 0 ? 100 : 1);
        ASSERT_EQ(::write(fd, burst.data(), burst.size()), static_cast<ssize_t>(burst.size()));
        ::close(fd);
    }
    EXPECT_TRUE(daemon.waitForLog("is dead"));
    test::DaemonConnection other(daemon);
    EXPECT_FALSE(TvDaemonClient::errorInReply(other.ask([&](auto reply) { other.client().bulkPluginsReply(0xFF, reply); })));
    EXPECT_TRUE(daemon.running());
}

} // namespace
} // namespace tv
