// The host's delivery thread: deliveries in posting order from many threads, draining on stop,
// and stopping from a delivery itself.

#include "DeliveryThread.hpp"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>
#include <vector>

using wsbrowser::DeliveryThread;

TEST(DeliveryThread, KeepsEachPostersOrderAndRunsEverythingPostedBeforeStop) {
    std::mutex mutex;
    std::vector<std::vector<int>> seen(3);
    {
        DeliveryThread delivery("wsbTestDeliver");
        std::vector<std::thread> posters;
        for (int poster = 0; poster < 3; ++poster) {
            posters.emplace_back([&, poster] {
                for (int i = 0; i < 500; ++i) {
                    delivery.post([&, poster, i] {
                        std::lock_guard<std::mutex> lock(mutex);
                        seen[static_cast<std::size_t>(poster)].push_back(i);
                    });
                }
            });
        }
        for (auto& poster : posters)
            poster.join();
        delivery.stop();
        delivery.post([&] { seen[0].push_back(-1); }); // after stop: dropped
    }
    for (const auto& list : seen) {
        ASSERT_EQ(list.size(), 500U);
        for (int i = 0; i < 500; ++i)
            EXPECT_EQ(list[static_cast<std::size_t>(i)], i);
    }
}

TEST(DeliveryThread, ADeliveryMayStopItsOwnThreadAndReleaseIt) {
    auto delivery = std::make_shared<DeliveryThread>("wsbTestDeliver");
    std::promise<void> stopped;
    // The delivery holds the last reference: stopping and destroying happen on the thread.
    delivery->post([owner = delivery, &stopped]() mutable {
        owner->stop();
        owner.reset();
        stopped.set_value();
    });
    delivery.reset();
    EXPECT_EQ(stopped.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
}
