#include "Tarvik/base/SerialQueue.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace tv
