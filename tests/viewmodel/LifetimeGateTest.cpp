// The gate that lets late callbacks reach their owner only while it lives.

#include "viewmodel/LifetimeGate.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using workspace_browser_startup::LifetimeGate;

TEST(LifetimeGate, CloseWaitsForTheCallbacksInsideAndRefusesEveryLaterOne) {
    LifetimeGate gate;
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> left{false};
    std::thread callback([&] {
        const LifetimeGate::Pass pass(gate);
        ASSERT_TRUE(pass);
        entered.set_value();
        release.get_future().wait();
        left = true;
    });
    entered.get_future().wait();
    auto closed = std::async(std::launch::async, [&] { gate.close(); });
    EXPECT_EQ(closed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout)
        << "the owner may not go while a callback is inside";
    release.set_value();
    closed.get();
    EXPECT_TRUE(left);
    callback.join();
    EXPECT_FALSE(LifetimeGate::Pass(gate)) << "after close nothing gets in";
}
