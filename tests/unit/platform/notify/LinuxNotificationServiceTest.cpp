#include "platform/notify/LinuxNotificationService.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

namespace tv::platform {
namespace {

using namespace std::chrono_literals;

template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = 5s)
{
    auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

TEST(LinuxNotificationServiceTest, PostsCountUpInAFileAndObserversInOtherInstancesAreToldUntilTheyStop)
{
    test::TempDir dir;
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
    std::ifstream in(dir.file("notify/com.example.note"));
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), {}), "2\n");

    observation->reset();
    int before = calls;
    ASSERT_FALSE(poster.post("com.example.note"));
    ASSERT_FALSE(poster.post("com.example.other"));
    ASSERT_TRUE(eventually([&] { return otherCalls == 1; }));
    queue->sync([] {});
    EXPECT_EQ(calls, before) << "a stopped observation is not told";
}

TEST(LinuxNotificationServiceTest, NamesCannotEscapeTheDirectory)
{
    test::TempDir dir;
    LinuxNotificationService service(dir.path());
    auto queue = SerialQueue::createManual("q");
    for (const char* bad : {"", "../x", "a/b", ".hidden"}) {
        auto err = service.post(bad);
        ASSERT_TRUE(err.has_value()) << bad;
        EXPECT_EQ(err->code, EINVAL);
        auto obs = service.observe(bad, queue, [](std::uint64_t) {});
        ASSERT_FALSE(obs.ok());
        EXPECT_EQ(obs.error().code, EINVAL);
    }
}

} // namespace
} // namespace tv::platform
