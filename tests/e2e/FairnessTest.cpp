// Fairness of the real daemon under a client that sends long requests: other
// clients are served in between, and the watchdog keeps being pinged.
#include "tests/support/DaemonConnection.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/PlugInBundles.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <unistd.h>

namespace tv {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(FairnessTest, LongRequestsShareTheQueueAndTheWatchdogKeepsBeingPinged)
{
    test::TestDaemon daemon;
    std::string notifyName = "@tvd-fairness-" + std::to_string(::getpid());
    test::NotifySocket manager(notifyName);
    ASSERT_TRUE(manager.bound());
    // A ping every 250 ms.
    ASSERT_TRUE(daemon.start({}, {{"NOTIFY_SOCKET", notifyName}, {"WATCHDOG_USEC", "500000"}})) << daemon.log();
    ASSERT_TRUE(manager.await("READY=1"));

    std::string bundle = daemon.root() + "/bundles/Long.vext";
    test::makePlugInBundle(bundle, "com.example.long");

    test::DaemonConnection heavyConnection(daemon), lightConnection(daemon);
    TvDaemonClient &heavy = heavyConnection.client(), &light = lightConnection.client();

    // Two pipelined requests that each register the same plug-in many times.
    // 40,000 paths of about 60 bytes stay well inside the 4 MiB frame limit.
    std::vector<std::string> paths(40000, bundle);
    std::atomic<int> heavyLeft{2};
    std::promise<Clock::time_point> heavyDone;
    std::atomic<int> heavyErrors{0};
    auto start = Clock::now();
    for (int i = 0; i < 2; ++i)
        heavy.addPlugInsReply(paths, [&](const platform::VynEvent& answer) {
            if (TvDaemonClient::errorInReply(answer))
                ++heavyErrors;
            if (--heavyLeft == 0)
                heavyDone.set_value(Clock::now());
        });

    // Meanwhile the watchdog pings go on, and another client's request is
    // answered before the long ones end.
    std::this_thread::sleep_for(100ms);
    std::promise<Clock::time_point> lightDone;
    light.bulkPluginsReply(0, [&](const platform::VynEvent&) { lightDone.set_value(Clock::now()); });
    std::vector<Clock::time_point> pings{start};
    auto heavyFuture = heavyDone.get_future();
    while (heavyFuture.wait_for(0s) != std::future_status::ready && Clock::now() - start < 120s)
        if (manager.next(100ms) == "WATCHDOG=1")
            pings.push_back(Clock::now());
    ASSERT_EQ(heavyFuture.wait_for(0s), std::future_status::ready) << "the long requests did not end";
    auto heavyEnd = heavyFuture.get();
    pings.push_back(heavyEnd);
    EXPECT_EQ(heavyErrors.load(), 0) << daemon.log();

    // The load must outlast the bounds below for the checks to mean anything.
    ASSERT_GT(heavyEnd - start, 1500ms);
    auto lightFuture = lightDone.get_future();
    ASSERT_EQ(lightFuture.wait_for(10s), std::future_status::ready);
    EXPECT_LT(lightFuture.get() + 500ms, heavyEnd); // not merely next after them
    Clock::duration longestGap{};
    for (std::size_t i = 1; i < pings.size(); ++i)
        longestGap = std::max(longestGap, pings[i] - pings[i - 1]);
    // Four ping intervals, or an eighth of the load on a slow (sanitised)
    // build: a queue held for a whole request gaps for about half of it.
    EXPECT_LT(longestGap, std::max<Clock::duration>(1000ms, (heavyEnd - start) / 8));
}

} // namespace
} // namespace tv
