#include "platform/message_service/websocket/DeliveryQueue.hpp"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <vector>

namespace {

using connector::message_service::websocket::DeliveryQueue;

// One page flooding the queue must not hold up another page's message behind all of its own:
// lanes take turns, and each lane keeps its own order.
TEST(DeliveryQueueTest, LanesTakeTurnsAndKeepTheirOwnOrder) {
    std::mutex mutex;
    std::vector<std::string> ran;
    const auto record = [&](std::string what) {
        return [&, what = std::move(what)] {
            std::lock_guard lock(mutex);
            ran.push_back(what);
        };
    };
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    DeliveryQueue queue("test-deliver");
    // Held, so that everything below is queued before anything runs.
    ASSERT_TRUE(queue.post("gate", [gate] { gate.wait(); }));
    for (int i = 1; i <= 4; ++i)
        ASSERT_TRUE(queue.post("flood", record("flood-" + std::to_string(i))));
    ASSERT_TRUE(queue.post("other", record("other-1")));
    ASSERT_TRUE(queue.post("other", record("other-2")));
    release.set_value();
    queue.stop(); // runs what is queued
    EXPECT_EQ(ran, (std::vector<std::string>{"flood-1", "other-1", "flood-2", "other-2", "flood-3",
                                             "flood-4"}));
    EXPECT_FALSE(queue.post("late", record("late")));
}

} // namespace
