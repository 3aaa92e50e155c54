// The real daemon SIGKILLed at a random instant during a burst of changes:
// annotation changes ("annotate"), registrations ("add") and removals
// ("remove"), one in flight at a time. After each kill the annotation file
// loads and holds the state before or after the change in flight, the
// registry database passes SQLite's integrity check, and once the daemon is
// back every acknowledged change is there. Long: run by scripts/kill-test
// (TVD_KILL_ITERATIONS rounds, default 20), not by ctest.
#include "tests/kill/KilledDaemon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <random>
#include <set>
#include <signal.h>
#include <thread>

namespace tv {
namespace {

TEST(KillTest, EveryAcknowledgedChangeSurvivesAKillAtAnyInstant)
{
    const char* rounds = std::getenv("TVD_KILL_ITERATIONS");
    const int iterations = rounds ? std::atoi(rounds) : 20;
    test::KilledDaemon d;
    ASSERT_TRUE(d.start()) << d.daemon.log();
    std::mt19937 random(std::random_device{}());
    std::set<std::string> registered; // acknowledged
    std::int64_t election = 0;        // acknowledged
    for (int round = 0; round < iterations; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        enum class Op { None, Annotate, Add, Remove };
        std::atomic<Op> inFlight{Op::None};
        std::string inFlightPath; // written before inFlight
        std::atomic<bool> killed{false};
        auto burst = std::async(std::launch::async, [&, seed = random()] {
            std::mt19937 r(seed);
            while (!killed) {
                const std::string& path = d.bundles[r() % d.bundles.size()];
                Op op = r() % 2 ? Op::Annotate : registered.count(path) ? Op::Remove : Op::Add;
                inFlightPath = path;
                inFlight = op;
                auto answer = op == Op::Annotate ? d.annotate(election + 1)
                                                 : d.pathRequest(op == Op::Add ? "add" : "remove", path);
                if (answer.transportFailed)
                    return;
                EXPECT_EQ(answer.code, 0) << answer.text;
                if (op == Op::Annotate)
                    ++election;
                else if (op == Op::Add)
                    registered.insert(path);
                else
                    registered.erase(path);
                inFlight = Op::None;
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<>(2, 80)(random)));
        ASSERT_EQ(::kill(d.daemon.pid(), SIGKILL), 0);
        killed = true;
        burst.wait();
        d.daemon.stop(); // collects the killed process

        std::int64_t stored = test::storedAnnotation(d.annotations, "com.example.a")["election"].integerValue();
        EXPECT_TRUE(stored == election || (inFlight == Op::Annotate && stored == election + 1)) << stored;
        if (stored == election + 1)
            ++election; // the change in flight made it: later rounds go on from it
        EXPECT_EQ(test::sqliteIntegrity(d.database), "ok");

        ASSERT_TRUE(d.start()) << d.daemon.log();
        std::set<std::string> found = test::registeredPaths(d.database);
        if (inFlight == Op::Add || inFlight == Op::Remove) {
            if (found.count(inFlightPath))
                registered.insert(inFlightPath);
            else
                registered.erase(inFlightPath);
        }
        EXPECT_EQ(found, registered);
        if (::testing::Test::HasFailure())
            break;
    }
    std::printf("%d rounds, %lld annotation changes and %zu registrations acknowledged at the end\n", iterations,
                static_cast<long long>(election), registered.size());
}

} // namespace
} // namespace tv
