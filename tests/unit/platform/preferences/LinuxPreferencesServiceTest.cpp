#include "platform/preferences/LinuxPreferencesService.h"

#include "platform/formats/Vlist.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sys/stat.h>
#include <sys/time.h>

namespace tv::platform {
namespace {

constexpr const char* kDomain = "com.example.prefs";

class LinuxPreferencesServiceTest : public ::testing::Test {
protected:
    void write(const Value& v) { ASSERT_FALSE(writeVlistFileAtomically(service.pathForDomain(kDomain), v)); }

    test::TempDir dir;
    LinuxPreferencesService service{dir.path()};
};

TEST_F(LinuxPreferencesServiceTest, ReplacementIsSeenOnlyAfterSynchronize)
{
    write(Value{{"key", 1}});
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(1));
    write(Value{{"key", 2}});
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(1)) << "answers from the cache until synchronised";
    EXPECT_FALSE(service.synchronize(kDomain));
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(2));
    ASSERT_EQ(::unlink(service.pathForDomain(kDomain).c_str()), 0);
    EXPECT_FALSE(service.synchronize(kDomain)); // a missing domain reads as unset without error
    EXPECT_TRUE(service.copyValue(kDomain, "key").isNull());
}

TEST_F(LinuxPreferencesServiceTest, InPlaceEditWithSameSizeIsSeen)
{
    std::string path = service.pathForDomain(kDomain);
    auto text = [](int n) { return *serializeVlist(Value{{"key", n}}); };
    std::ofstream(path) << text(1);
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(1));
    { std::ofstream(path, std::ios::trunc) << text(2); } // same inode, same size
    // Even with the modification time put back, the change time moves.
    struct timeval times[2] = {{1, 0}, {1, 0}};
    ::utimes(path.c_str(), times);
    EXPECT_FALSE(service.synchronize(kDomain));
    EXPECT_EQ(service.copyValue(kDomain, "key"), Value(2));
}

TEST_F(LinuxPreferencesServiceTest, BadFilesReadAsEmptyWithAReasonAndNamesStayInside)
{
    for (const std::string& text : {std::string("garbage"), serializeVlist(Value{{"key", 1}})->substr(0, 40),
                                    *serializeVlist(Value(Array{Value(1)}))}) {
        write(Value{{"key", 1}});
        ASSERT_FALSE(service.synchronize(kDomain));
        std::ofstream(service.pathForDomain(kDomain), std::ios::trunc) << text;
        EXPECT_TRUE(service.synchronize(kDomain).has_value()) << text;
        EXPECT_TRUE(service.copyValue(kDomain, "key").isNull()) << text;
    }
    if (::geteuid() != 0) {
        write(Value{{"key", 1}});
        ASSERT_EQ(::chmod(service.pathForDomain(kDomain).c_str(), 0), 0);
        EXPECT_TRUE(service.synchronize(kDomain).has_value());
        EXPECT_TRUE(service.copyValue(kDomain, "key").isNull()) << "unreadable";
    }
    // Domain names cannot escape the directory.
    for (const char* bad : {"", "../x", "a/b", ".hidden"}) {
        EXPECT_EQ(service.synchronize(bad).value_or(TvError{}).code, EINVAL) << bad;
        EXPECT_TRUE(service.copyValue(bad, "key").isNull());
    }
}

} // namespace
} // namespace tv::platform
