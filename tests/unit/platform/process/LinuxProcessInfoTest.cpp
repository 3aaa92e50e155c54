#include "platform/process/LinuxProcessInfo.h"

#include "tests/support/FakeVlistFiles.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

int pidfdOpen(pid_t pid)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

TEST(LinuxProcessInfoTest, ExecutableOfALiveProcessAndNotThroughAPidfdOfAnotherOrDeadOne)
{
    LinuxProcessInfo info;
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(*info.executablePath(::getpid()), self);
    int own = pidfdOpen(::getpid());
    ASSERT_GE(own, 0);
    EXPECT_EQ(*info.executablePath(::getpid(), own), self);
    ::close(own);

    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    int pidfd = pidfdOpen(child);
    ASSERT_GE(pidfd, 0);

    // Live child, but the pid asked about is another process's.
    EXPECT_EQ(info.executablePath(::getpid(), pidfd).error().code, ESRCH);
    EXPECT_TRUE(info.executablePath(child, pidfd).ok());

    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    // Reaped: whatever process holds a pid now, the pidfd denotes none.
    EXPECT_EQ(info.executablePath(::getpid(), pidfd).error().code, ESRCH);
    ::close(pidfd);
}

TEST(LinuxProcessInfoTest, PathsThatDoNotFitTheBufferAreRefused)
{
    test::FakeVlistFiles files;
    files.makeDirectory("proc/41");
    files.makeDirectory("proc/42");
    const std::size_t longest = ProcessInfo::kExecutablePathBufferSize - 1;
    const std::string fits = "/" + std::string(longest - 1, 'a');
    const std::string tooLong = fits + "b";
    fs::create_symlink(fits, files.path("proc/41/exe"));
    fs::create_symlink(tooLong, files.path("proc/42/exe"));
    LinuxProcessInfo info(files.path("proc"));

    EXPECT_EQ(*info.executablePath(41), fits);
    EXPECT_EQ(info.executablePath(42).error().code, ENAMETOOLONG);
    EXPECT_EQ(info.executablePath(43).error().code, ENOENT);
}

} // namespace
} // namespace tv::platform
