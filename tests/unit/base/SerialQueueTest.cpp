#include "base/SerialQueue.h"

#include "base/InternalInconsistency.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

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
    std::vector<int> seen, expected;
    for (int i = 0; i < 100; ++i) {
        q->async([&seen, i] { seen.push_back(i); });
        expected.push_back(i);
    }
    q->sync([] {});
    EXPECT_EQ(seen, expected);

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

    // On an idle queue sync runs on the calling thread, and still excludes
    // the worker: a task submitted meanwhile waits until it is done. The
    // worker may still be finishing its last task when sync is called (then
    // the task goes to the worker), so try a few times.
    std::atomic<bool> inside{false}, overlapped{false};
    std::thread::id ranOn;
    for (int i = 0; i < 50 && ranOn != std::this_thread::get_id(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        q->sync([&] {
            ranOn = std::this_thread::get_id();
            inside = true;
            q->async([&] { overlapped = inside.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            inside = false;
        });
        q->sync([] {});
    }
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(overlapped);

    // A task that throws is reported and the queue goes on.
    std::string reported;
    SerialQueue::setUncaughtExceptionHandler(
        [&](const std::string& label, const std::exception& e) { reported = label + ": " + e.what(); });
    q->async([] { throw std::runtime_error("boom"); });
    q->sync([] {}); // still serving
    SerialQueue::setUncaughtExceptionHandler(nullptr);
    EXPECT_EQ(reported, "order: boom");
}

TEST(SerialQueueTest, RunOrAsyncRunsHereOnlyWhenTheQueueIsIdle)
{
    auto queue = SerialQueue::create("inline");
    // Idle: the task runs at once, on this thread, as a task of the queue.
    std::thread::id ranOn;
    bool current = false;
    queue->runOrAsync([&] {
        ranOn = std::this_thread::get_id();
        current = queue->isCurrent();
    });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(current);

    // Busy: queued behind the running task, in order, never beside it.
    std::promise<void> release, started;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> running{0}, overlaps{0};
    std::vector<int> order;
    auto track = [&](int n) {
        overlaps += running.fetch_add(1) != 0;
        order.push_back(n);
        running.fetch_sub(1);
    };
    queue->async([&, released] {
        started.set_value();
        released.wait();
        track(0);
    });
    started.get_future().wait();
    queue->runOrAsync([&] { track(1); });
    queue->async([&] { track(2); });
    EXPECT_TRUE(order.empty()); // did not run here
    release.set_value();
    queue->sync([] {});
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    // Many threads at once: the queue's tasks still never overlap.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i)
                queue->runOrAsync([&] { track(3); });
        });
    for (auto& t : threads)
        t.join();
    queue->sync([] {});
    EXPECT_EQ(order.size(), 3u + 4u * 500u);
    EXPECT_EQ(overlaps.load(), 0);
}

} // namespace
} // namespace tv
