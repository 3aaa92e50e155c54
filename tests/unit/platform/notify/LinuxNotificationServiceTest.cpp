#include "platform/notify/LinuxNotificationService.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <sys/stat.h>

namespace tv::platform {
namespace {

using test::eventually;

TEST(LinuxNotificationServiceTest, PostsCountUpInAFileObserversElsewhereAreToldUntilTheyStopAndNamesStayInside)
{
    test::TempDir dir;
    const mode_t umaskBefore = ::umask(022); // the daemon's unit sets this one
    LinuxNotificationService poster(dir.path());
    LinuxNotificationService watcher(dir.path()); // as another process would
    auto queue = SerialQueue::create("observer");
    std::atomic<std::uint64_t> last{0};
    std::atomic<int> calls{0};
    std::atomic<int> otherCalls{0};
    EXPECT_EQ(poster.state("com.example.note"), 0u);
    auto observation = watcher.observe("com.example.note", queue, [&](std::uint64_t s) { last = s, ++calls; });
    ASSERT_TRUE(observation.ok()) << observation.error().localizedDescription();
    auto other = watcher.observe("com.example.other", queue, [&](std::uint64_t) { ++otherCalls; });
    ASSERT_TRUE(other.ok());

    ASSERT_FALSE(poster.post("com.example.note"));
    ASSERT_TRUE(eventually([&] { return last == 1; }));
    ASSERT_FALSE(poster.post("com.example.note"));
    ASSERT_TRUE(eventually([&] { return last == 2; }));
    EXPECT_EQ(otherCalls, 0) << "another name's observer is not told";
    EXPECT_EQ(poster.state("com.example.note"), 2u);
    EXPECT_EQ(test::readFile(dir.file("notify/com.example.note")), "2\n");
    struct stat st{};
    ASSERT_EQ(::stat(dir.file("notify").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u) << "hosts of other users watch it";
    ::umask(umaskBefore);

    observation->reset();
    int before = calls;
    ASSERT_FALSE(poster.post("com.example.note"));
    ASSERT_FALSE(poster.post("com.example.other"));
    ASSERT_TRUE(eventually([&] { return otherCalls == 1; }));
    queue->sync([] {});
    EXPECT_EQ(calls, before) << "a stopped observation is not told";

    // Names cannot escape the directory.
    for (const char* bad : {"", "../x", "a/b", ".hidden"}) {
        EXPECT_EQ(poster.post(bad).value_or(TvError{}).code, EINVAL) << bad;
        EXPECT_EQ(poster.observe(bad, queue, [](std::uint64_t) {}).error().code, EINVAL) << bad;
    }
}

} // namespace
} // namespace tv::platform
