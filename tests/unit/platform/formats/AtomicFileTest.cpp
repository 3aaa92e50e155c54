#include "platform/formats/AtomicFile.h"

#include "platform/PosixError.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tv::platform {
namespace {

// The sorted names in `dir`: shows temporary files left behind.
std::vector<std::string> entries(const test::TempDir& dir)
{
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// Runs `body` in a child process (for process-wide changes such as resource
// limits) and returns its exit status, or -signal.
int inChild(const std::function<int()>& body)
{
    pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(AtomicFileTest, ReplacesOrLeavesTheTargetIntact)
{
    test::TempDir dir;
    const std::string target = dir.file("annotations.vlist");
    ASSERT_FALSE(writeFileAtomically(target, "old contents", 0600));
    EXPECT_EQ(test::readFile(target), "old contents");
    struct stat st {};
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_FALSE(writeFileAtomically(target, "new contents"));
    EXPECT_EQ(test::readFile(target), "new contents");
    EXPECT_EQ(entries(dir), std::vector<std::string>{"annotations.vlist"});

    // Failure before anything is written: no such directory.
    auto err = writeFileAtomically(dir.file("missing/x.vlist"), "x");
    EXPECT_EQ(err.value_or(TvError{}).code, ENOENT);

    // Failure after the temporary file is written: the rename cannot replace
    // a non-empty directory. The temporary file is gone again.
    ASSERT_EQ(::mkdir(dir.file("occupied").c_str(), 0755), 0);
    ASSERT_FALSE(writeFileAtomically(dir.file("occupied/inside"), "x"));
    err = writeFileAtomically(dir.file("occupied"), "x");
    ASSERT_TRUE(err);
    EXPECT_NE(err->localizedDescription().find("rename"), std::string::npos);
    EXPECT_EQ(entries(dir), (std::vector<std::string>{"annotations.vlist", "occupied"}));

    // A failing write (the file size limit cuts it short): the target keeps
    // its old contents and no temporary file is left behind.
    const std::string big(1 << 20, 'n');
    EXPECT_EQ(inChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        auto e = writeFileAtomically(target, big);
        return e && e->code == EFBIG ? 0 : 1;
    }), 0);
    EXPECT_EQ(test::readFile(target), "new contents");
    EXPECT_EQ(entries(dir), (std::vector<std::string>{"annotations.vlist", "occupied"}));
}

} // namespace
} // namespace tv::platform
