#include "base/RoundRobinScheduler.h"

#include "base/IdleCaller.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tv {
namespace {

struct Fixture {
    std::shared_ptr<SerialQueue> queue = SerialQueue::createManual("service");
    std::shared_ptr<RoundRobinScheduler> scheduler = RoundRobinScheduler::create(queue);
    std::vector<std::string> ran;
    int a = 0, b = 0, c = 0; // owners

    Fixture() { scheduler->setBatch(std::chrono::microseconds(0)); }

    // A step that records `name` and finishes after `slices` runs.
    RoundRobinScheduler::Step step(std::string name, int slices = 1)
    {
        return [this, name, slices, left = slices]() mutable {
            ran.push_back(slices > 1 ? name + "." + std::to_string(slices - left) : name);
            return --left == 0;
        };
    }
};

// Owners take turns and each keeps its order; a yielding step resumes before
// its owner's later steps and lets others in.
TEST(RoundRobinSchedulerTest, OwnersTakeTurnsAndEachKeepsItsOrder)
{
    Fixture f;
    f.scheduler->submit(&f.a, f.step("long", 3));
    for (int i = 2; i <= 4; ++i)
        f.scheduler->submit(&f.a, f.step("a" + std::to_string(i)));
    f.scheduler->submit(&f.b, f.step("b1"));
    f.scheduler->submit(&f.c, f.step("c1"));
    f.scheduler->submit(&f.b, f.step("b2"));
    EXPECT_EQ(f.scheduler->pending(), 7u);
    f.queue->runUntilIdle();
    EXPECT_EQ(f.ran, (std::vector<std::string>{"long.0", "b1", "c1", "long.1", "b2", "long.2", "a2", "a3", "a4"}));
    EXPECT_EQ(f.scheduler->pending(), 0u);
}

TEST(RoundRobinSchedulerTest, OtherTasksOfTheQueueWaitForOneTurnAtMost)
{
    Fixture f;
    f.scheduler->submit(&f.a, f.step("long", 5));
    f.queue->async([&] { f.ran.push_back("ping"); });
    f.queue->runUntilIdle();
    EXPECT_EQ(f.ran, (std::vector<std::string>{"long.0", "ping", "long.1", "long.2", "long.3", "long.4"}));
    // One turn task at a time, whatever is submitted.
    for (int i = 0; i < 10; ++i)
        f.scheduler->submit(&f.b, f.step("b"));
    EXPECT_EQ(f.queue->pending(), 1u);
    // With a batch time, turns run back to back in one task.
    f.queue->runUntilIdle();
    f.ran.clear();
    f.scheduler->setBatch(std::chrono::seconds(10));
    f.scheduler->submit(&f.c, f.step("c", 3));
    f.scheduler->submit(&f.a, f.step("a1"));
    f.queue->async([&] { f.ran.push_back("ping"); });
    f.queue->runUntilIdle();
    EXPECT_EQ(f.ran, (std::vector<std::string>{"c.0", "a1", "c.1", "c.2", "ping"}));
}

// hold() and release(): TvdVynClientTest, with requests that wait for
// their client's identification.
TEST(RoundRobinSchedulerTest, AStepThatThrowsEndsOnlyItself)
{
    Fixture f;
    f.scheduler->submit(&f.a, [] () -> bool { throw std::runtime_error("boom"); });
    f.scheduler->submit(&f.a, f.step("a2"));
    f.scheduler->submit(&f.b, f.step("b1"));
    std::string caught;
    SerialQueue::setUncaughtExceptionHandler([&](const std::string&, const std::exception& e) { caught = e.what(); });
    f.queue->runUntilIdle();
    SerialQueue::setUncaughtExceptionHandler(nullptr);
    EXPECT_EQ(caught, "boom");
    EXPECT_EQ(f.ran, (std::vector<std::string>{"b1", "a2"}));
    EXPECT_EQ(f.scheduler->pending(), 0u);
}

// Inline turns: a step submitted to an idle queue by an idle thread runs on
// that thread, as a task of the queue; its continuation after a yield, and
// any step submitted while the queue or the submitter is busy, run on the
// queue's thread.
TEST(RoundRobinSchedulerTest, InlineTurnsRunOnlyAnIdleQueuesStepOnAnIdleSubmitter)
{
    const auto here = std::this_thread::get_id();
    struct Run {
        bool onSubmitter;
        bool onQueue; // as a task of the scheduler's queue
    };
    // Submits a step of two slices to a new (idle) queue; where each ran.
    auto runOnNewQueue = [&](bool inlineOn, bool callerIdle, bool queueBusy) {
        auto queue = SerialQueue::create("service");
        auto scheduler = RoundRobinScheduler::create(queue);
        scheduler->setRunsTurnsInline(inlineOn);
        std::promise<void> release;
        if (queueBusy) {
            std::promise<void> blocking;
            queue->async([&] {
                blocking.set_value();
                release.get_future().wait();
            });
            blocking.get_future().wait();
        }
        std::vector<Run> runs;
        std::promise<void> done;
        int owner = 0;
        {
            IdleCaller::Scope idle(callerIdle);
            scheduler->submit(&owner, [&, slices = 2]() mutable {
                runs.push_back({std::this_thread::get_id() == here, SerialQueue::current() == queue.get()});
                if (--slices > 0)
                    return false;
                done.set_value();
                return true;
            });
        }
        if (queueBusy) {
            EXPECT_TRUE(runs.empty());
            release.set_value();
        }
        done.get_future().wait();
        queue->sync([] {}); // the turn task has ended
        EXPECT_EQ(scheduler->pending(), 0u);
        return runs;
    };
    const struct {
        bool inlineOn, callerIdle, queueBusy, firstOnSubmitter;
    } cases[] = {
        {true, true, false, true},
        {false, true, false, false},
        {true, false, false, false},
        {true, true, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "inline " << c.inlineOn << ", caller idle " << c.callerIdle
                                        << ", queue busy " << c.queueBusy);
        auto runs = runOnNewQueue(c.inlineOn, c.callerIdle, c.queueBusy);
        ASSERT_EQ(runs.size(), 2u);
        EXPECT_EQ(runs[0].onSubmitter, c.firstOnSubmitter);
        EXPECT_FALSE(runs[1].onSubmitter); // the yielded rest
        EXPECT_TRUE(runs[0].onQueue && runs[1].onQueue);
    }
}

} // namespace
} // namespace tv
