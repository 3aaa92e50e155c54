#include "base/DeferredFlush.h"
#include "base/RoundRobinScheduler.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <vector>

namespace tv {
namespace {

struct Recorder : DeferredFlush::Target {
    std::vector<int>* log;
    int id;
    Recorder(std::vector<int>* l, int i) : log(l), id(i) {}
    void flushDeferred() override { log->push_back(id); }
};

TEST(DeferredFlushTest, TargetsFlushOnceWhenTheOutermostScopeEnds)
{
    std::vector<int> flushed;
    EXPECT_FALSE(DeferredFlush::defer(std::make_shared<Recorder>(&flushed, 0)));
    {
        DeferredFlush::Scope outer;
        EXPECT_TRUE(DeferredFlush::defer(std::make_shared<Recorder>(&flushed, 1)));
        {
            DeferredFlush::Scope inner;
            EXPECT_TRUE(DeferredFlush::defer(std::make_shared<Recorder>(&flushed, 2)));
        }
        EXPECT_TRUE(flushed.empty());
    }
    EXPECT_EQ(flushed, (std::vector<int>{1, 2}));
    EXPECT_FALSE(DeferredFlush::active());
}

// The scheduler's turn task is one run: output of its steps goes out when the
// task ends, also when a step throws, so no reply is left unwritten.
TEST(DeferredFlushTest, ASchedulerTurnTaskIsOneRunEvenWhenAStepThrows)
{
    auto queue = SerialQueue::createManual("service");
    auto scheduler = RoundRobinScheduler::create(queue);
    scheduler->setBatch(std::chrono::seconds(10));
    std::vector<int> flushed;
    int a = 0, b = 0;
    for (int id : {1, 2})
        scheduler->submit(id == 1 ? &a : &b, [&, id] {
            EXPECT_TRUE(DeferredFlush::defer(std::make_shared<Recorder>(&flushed, id)));
            EXPECT_TRUE(flushed.empty());
            return true;
        });
    queue->runUntilIdle();
    EXPECT_EQ(flushed, (std::vector<int>{1, 2}));

    flushed.clear();
    scheduler->submit(&a, [&] {
        DeferredFlush::defer(std::make_shared<Recorder>(&flushed, 3));
        throw std::runtime_error("step failed");
        return true;
    });
    queue->runUntilIdle();
    EXPECT_EQ(flushed, (std::vector<int>{3}));
}

} // namespace
} // namespace tv
