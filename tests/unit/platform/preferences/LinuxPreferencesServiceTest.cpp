#include "platform/preferences/LinuxPreferencesService.h"

#include "platform/formats/Vlist.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sys/stat.h>
#include <fcntl.h>

namespace tv::platform {
namespace {

constexpr const char* kDomain = "com.example.prefs";

// Replacements, removals and unparseable files are seen through the
// daemon's own reader (TvdUserPrefsTest); here, what only the service knows.
TEST(LinuxPreferencesServiceTest, SameSizeEditsUnreadableFilesAndNamesOutside)
{
    test::TempDir dir;
    LinuxPreferencesService service{dir.path()};
    const std::string path = service.pathForDomain(kDomain);
    auto text = [](int n) { return *serializeVlist(Value{{"key", n}}); };
    std::ofstream(path) << text(1);
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(1));
    struct stat before {};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    { std::ofstream(path, std::ios::trunc) << text(2); } // same inode, same size
    // Even with the modification time put back, the change time moves.
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(1)) << "answers from the cache until synchronised";
    EXPECT_FALSE(service.synchronize(kDomain));
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(2));

    if (::geteuid() != 0) {
        ASSERT_EQ(::chmod(path.c_str(), 0), 0);
        EXPECT_TRUE(service.synchronize(kDomain).has_value());
        EXPECT_TRUE(service.copyValue(kDomain, "key").isNull()) << "unreadable";
    }
    for (const char* bad : {"", "../x", "a/b", ".hidden"}) {
        EXPECT_EQ(service.synchronize(bad).value_or(TvError{}).code, EINVAL) << bad;
        EXPECT_TRUE(service.copyValue(bad, "key").isNull());
    }
}

} // namespace
} // namespace tv::platform
