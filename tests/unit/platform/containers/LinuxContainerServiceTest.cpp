#include "platform/containers/LinuxContainerService.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sys/stat.h>

namespace tv::platform {
namespace {

TEST(LinuxContainerServiceTest, CreatesPrivateDirectoryOnRequestFindsItAgainAndRefusesWithErrno)
{
    test::TempDir dir;
    LinuxContainerService service(dir.file("containers/"));

    EXPECT_EQ(service.containerPath(10, "com.veltra.tvd", false).error().code, ENOENT);

    auto made = service.containerPath(10, "com.veltra.tvd", true);
    ASSERT_TRUE(made.ok()) << made.error().localizedDescription();
    EXPECT_EQ(*made, dir.file("containers/class-10/com.veltra.tvd/"));
    struct stat st {};
    ASSERT_EQ(::stat(made->c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFDIR | 0700u);

    EXPECT_EQ(*service.containerPath(10, "com.veltra.tvd", false), *made);
    // Another class is another directory.
    EXPECT_EQ(*service.containerPath(11, "com.veltra.tvd", true), dir.file("containers/class-11/com.veltra.tvd/"));

    // Bad identifiers, and a file in the way, are error numbers.
    for (std::string bad : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                            std::string("../x"), std::string(256, 'a'), std::string("a\0b", 3)}) {
        auto r = service.containerPath(10, bad, true);
        ASSERT_FALSE(r.ok()) << bad;
        EXPECT_EQ(r.error().code, EINVAL) << bad;
    }
    std::ofstream(dir.file("containers/class-12")) << "x";
    EXPECT_EQ(service.containerPath(12, "com.veltra.tvd", true).error().code, ENOTDIR);
}

} // namespace
} // namespace tv::platform
