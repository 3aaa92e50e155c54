// The real tvd binary: command line, listening, tracing points, and cutting
// misbehaving peers while others are served.
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv {
namespace {

using test::runProgram;
using test::TestDaemon;

const std::string kUsage = "Usage: tvd [-S servicename] [-v]\n";

TEST(DaemonTest, BadCommandLinesPrintUsageAndExit2)
{
    for (std::vector<std::string> args : {std::vector<std::string>{"-x"},
                                          {"extra"},
                                          {"-v", "operand"},
                                          {"-S"},
                                          {"-c"},
                                          {"-d"}}) {
        std::vector<std::string> argv{TVD_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        auto r = runProgram(argv, {{"TVD_LOG_LEVEL", "default"}});
        SCOPED_TRACE(args.front());
        EXPECT_EQ(r.exitStatus, 2);
        // The usage line is the last thing written ("-v" may log before it).
        ASSERT_GE(r.err.size(), kUsage.size());
        EXPECT_EQ(r.err.substr(r.err.size() - kUsage.size()), kUsage);
    }
}

TEST(DaemonTest, UnusableConfigurationMeansNoServer)
{
    test::TempDir dir;
    // A missing configuration file; a socket path in a directory that cannot exist.
    for (auto r : {runProgram({TVD_BINARY, "-S", dir.file("s")}, {{"TVD_CONFIG", dir.file("missing.conf")}}),
                   runProgram({TVD_BINARY, "-S", "/proc/version/sock"})}) {
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_NE(r.err.find("unable to construct server"), std::string::npos) << r.err;
    }
}

TEST(DaemonTest, ListensAtTheNamedPathLogsLaunchAndStopsCleanly)
{
    TestDaemon d;
    // A name without a slash is a socket in the service directory.
    ASSERT_TRUE(d.start({"-S", "com.example.test-tvd", "-v", "-v", "-c", "abc"})) << d.log();
    EXPECT_EQ(d.socketPath(), d.root() + "/run/vyn/com.example.test-tvd");
    struct stat st;
    ASSERT_EQ(::stat(d.socketPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
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

// Writes raw bytes; reads until the daemon closes the connection (true) or
// the timeout passes (false).
bool closedByPeer(int fd, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    char buf[4096];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) > 0) {
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n <= 0)
                return true;
        }
    }
    return false;
}

TEST(DaemonTest, HostilePeersAreCutWhileOthersStayConnected)
{
    TestDaemon d;
    ASSERT_TRUE(d.start()) << d.log();
    int bystander = test::connectUnix(d.socketPath());
    ASSERT_GE(bystander, 0);

    // Each malformation is the connection layer's to judge; one shows the
    // daemon wires it in.
    int fd = test::connectUnix(d.socketPath());
    std::vector<std::uint8_t> giant(24, 0); // a header announcing 4 GiB
    giant[0] = giant[1] = giant[8] = 1;     // format, a reply expected, message id
    std::memset(&giant[4], 0xff, 4);
    ASSERT_EQ(::write(fd, giant.data(), giant.size()), static_cast<ssize_t>(giant.size()));
    EXPECT_TRUE(closedByPeer(fd, std::chrono::seconds(5)));
    ::close(fd);
    // The bystander was never cut, and the daemon still accepts and serves.
    pollfd p{bystander, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 100), 0);
    EXPECT_TRUE(d.running());
    auto r = runProgram({TVKIT_BINARY, "--service", d.socketPath(), "raw", R"({"request": "bulk", "version": 3})"},
                        d.clientEnv());
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    ::close(bystander);
    EXPECT_EQ(d.stop(), 0);
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

} // namespace
} // namespace tv
