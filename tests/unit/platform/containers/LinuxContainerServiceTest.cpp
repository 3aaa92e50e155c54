#include "platform/containers/LinuxContainerService.h"

#include "platform/persona/LinuxUserPersona.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sys/stat.h>

namespace tv::platform {
namespace {

TEST(LinuxUserPersonaTest, MultiUserExactlyWhenNotRoot)
{
    EXPECT_FALSE(LinuxUserPersona(0).isMultiUser());
    EXPECT_TRUE(LinuxUserPersona(1000).isMultiUser());
}

TEST(LinuxContainerServiceTest, CreatesPrivateDirectoryOnRequestAndFindsItAgain)
{
    test::TempDir dir;
    LinuxContainerService service(dir.file("containers/"));

    auto missing = service.containerPath(10, "com.veltra.tvd", false);
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().code, ENOENT);

    auto made = service.containerPath(10, "com.veltra.tvd", true);
    ASSERT_TRUE(made.ok()) << made.error().localizedDescription();
    EXPECT_EQ(*made, dir.file("containers/class-10/com.veltra.tvd/"));
    struct stat st {};
    ASSERT_EQ(::stat(made->c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    auto again = service.containerPath(10, "com.veltra.tvd", false);
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(*again, *made);
    // Another class is another directory.
    auto other = service.containerPath(11, "com.veltra.tvd", true);
    ASSERT_TRUE(other.ok());
    EXPECT_NE(*other, *made);
}

TEST(LinuxContainerServiceTest, RefusesIdentifiersThatEscapeOrCannotNameADirectory)
{
    test::TempDir dir;
    LinuxContainerService service(dir.path());
    for (std::string bad : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                            std::string("../x"), std::string(256, 'a'), std::string("a\0b", 3)}) {
        auto r = service.containerPath(10, bad, true);
        ASSERT_FALSE(r.ok()) << bad;
        EXPECT_EQ(r.error().code, EINVAL) << bad;
    }
}

TEST(LinuxContainerServiceTest, AFileInTheWayIsAnErrorNumber)
{
    test::TempDir dir;
    std::ofstream(dir.file("class-10")) << "x";
    LinuxContainerService service(dir.path());
    auto r = service.containerPath(10, "com.veltra.tvd", true);
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code, ENOTDIR);
}

} // namespace
} // namespace tv::platform
