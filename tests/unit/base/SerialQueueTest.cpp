#include "base/SerialQueue.h"

#include "base/InternalInconsistency.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include <atomic>
#include <chrono>
#include <future>

namespace tv {
namespace {

// An object owning a queue whose last reference goes away on that queue's
// own worker, once through a task's captures and once inside a task body.
TEST(SerialQueueTest, QueueReleasedByItsOwnTaskShutsDownCleanly)
{
    for (int round = 0; round < 50; ++round) {
        std::promise<void> ran;
        {
            auto queue = SerialQueue::create("self-release");
            auto owner = std::make_shared<std::shared_ptr<SerialQueue>>(queue);
            queue->async([owner, &ran] { ran.set_value(); });
            owner.reset();
        }
        ASSERT_EQ(ran.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);

        std::promise<void> done;
        auto holder = std::make_shared<std::shared_ptr<SerialQueue>>(SerialQueue::create("self-release-body"));
        (*holder)->async([holder, &done] {
            holder->reset();
            done.set_value();
        });
        holder.reset();
        ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    }
}

TEST(SerialQueueTest, OrderSyncReentryAndThrowingTasks)
{
    auto q = SerialQueue::create("order");
    std::vector<int> seen;
    for (int i = 0; i < 100; ++i)
        q->async([&seen, i] { seen.push_back(i); });
    q->sync([] {});
    ASSERT_EQ(seen.size(), 100u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);

    // sync onto the queue one is running on is refused, not a deadlock.
    bool refused = false;
    q->sync([&] {
        EXPECT_TRUE(q->isCurrent());
        try {
            q->sync([] {});
        } catch (const TvInternalInconsistency&) {
            refused = true;
        }
    });
    EXPECT_TRUE(refused);
    EXPECT_FALSE(q->isCurrent());
    EXPECT_THROW(q->assertCurrent("test"), TvInternalInconsistency);

    // A task that throws is reported and the queue goes on.
    std::string reported;
    SerialQueue::setUncaughtExceptionHandler(
        [&](const std::string& label, const std::exception& e) { reported = label + ": " + e.what(); });
    q->async([] { throw std::runtime_error("boom"); });
    int after = 0;
    q->sync([&] { after = 1; });
    SerialQueue::setUncaughtExceptionHandler(nullptr);
    EXPECT_EQ(reported, "order: boom");
    EXPECT_EQ(after, 1);

    auto manual = SerialQueue::createManual("manual");
    int ran = 0;
    manual->async([&] { manual->async([&] { ++ran; }); ++ran; });
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(manual->runUntilIdle(), 2u);
    EXPECT_EQ(ran, 2);
}

} // namespace
} // namespace tv
