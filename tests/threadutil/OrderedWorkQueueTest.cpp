#include <workspace_browser/platform/ThreadName.hpp>
#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using ::testing::ElementsAre;
using threadutil::OrderedWorkQueue;

namespace {

// Number of threads of this process that currently carry `name`.
int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string current;
        if (std::getline(comm, current) && current == name)
            ++count;
    }
    return count;
}

template <class Exception> std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

bool isBrokenPromise(boost::unique_future<void>& future) {
    try {
        future.get();
    } catch (const boost::broken_promise&) {
        return true;
    }
    return false;
}

} // namespace

TEST(OrderedWorkQueue, KeepsEachProducersOrderAndRunsEverythingBeforeTerminateReturns) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 500;
    auto queue = OrderedWorkQueue::create("order");
    std::vector<std::pair<int, int>> ran; // touched by work items only, read after the join

    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i)
                queue->push([&ran, p, i] { ran.emplace_back(p, i); });
        });
    }
    for (auto& producer : producers)
        producer.join();
    queue->terminate(true);

    ASSERT_EQ(ran.size(), static_cast<std::size_t>(kProducers * kPerProducer));
    std::vector<int> next(kProducers, 0);
    for (const auto& [producer, index] : ran)
        ASSERT_EQ(index, next[producer]++) << "producer " << producer;
}

TEST(OrderedWorkQueue, PushesRacingTerminateEitherRunBeforeItReturnsOrAreRefused) {
    auto queue = OrderedWorkQueue::create("race");
    std::atomic<int> runCount{0};
    int ranBeforeTerminateReturned = -1;
    std::promise<void> producersStarted[3];
    std::vector<int> accepted(3, 0);

    std::vector<std::thread> producers;
    for (int p = 0; p < 3; ++p) {
        producers.emplace_back([&, p] {
            producersStarted[p].set_value();
            for (;;) {
                try {
                    queue->push([&runCount] { runCount.fetch_add(1, std::memory_order_relaxed); });
                } catch (const std::runtime_error& e) {
                    EXPECT_STREQ(e.what(), "OrderedWorkQueue already terminated");
                    return;
                }
                ++accepted[p];
            }
        });
    }
    for (auto& started : producersStarted)
        started.get_future().wait();
    queue->terminate(true);
    ranBeforeTerminateReturned = runCount.load();
    for (auto& producer : producers)
        producer.join();

    // Every accepted push ran before terminate returned, and nothing ran afterwards.
    EXPECT_EQ(ranBeforeTerminateReturned, accepted[0] + accepted[1] + accepted[2]);
    EXPECT_EQ(runCount.load(), ranBeforeTerminateReturned);
}

TEST(OrderedWorkQueue, ThrowingItemStoresItsExceptionAndTheWorkerGoesOn) {
    auto queue = OrderedWorkQueue::create("throws");
    auto failing = queue->push([] { throw std::runtime_error("item failed"); });
    auto odd = queue->push([] { throw 42; });
    bool laterRan = false;
    auto later = queue->push([&laterRan] { laterRan = true; });

    EXPECT_EQ(messageOf<std::runtime_error>([&] { failing.get(); }), "item failed");
    EXPECT_THROW(odd.get(), int);
    later.get();
    EXPECT_TRUE(laterRan);
    queue->terminate(true);
}

TEST(OrderedWorkQueue, EmptyWorkIsRejectedAndLeavesTheQueueUsable) {
    auto queue = OrderedWorkQueue::create("empty");
    EXPECT_EQ(messageOf<std::logic_error>([&] { queue->push(boost::function<void()>()); }),
              "work must be executable");
    EXPECT_EQ(threadsNamed("empty"), 0);

    bool ran = false;
    queue->push([&ran] { ran = true; }).get();
    EXPECT_TRUE(ran);
    queue->terminate(true);
}

TEST(OrderedWorkQueue, StartsItsThreadOnTheFirstPushOnly) {
    auto queue = OrderedWorkQueue::create("lazyQ");
    EXPECT_EQ(threadsNamed("lazyQ"), 0);

    std::string seenName;
    queue->push([&seenName] { seenName = foundation::core::diag::currentThreadName(); }).get();
    EXPECT_EQ(seenName, "lazyQ");
    EXPECT_EQ(threadsNamed("lazyQ"), 1);
    queue->push([] {}).get();
    EXPECT_EQ(threadsNamed("lazyQ"), 1);

    queue->terminate(true);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { queue->terminate(true); }),
              "OrderedWorkQueue already being terminated");
}

TEST(OrderedWorkQueue, TerminatingANeverUsedQueueStartsNoThreadAndRefusesLaterWork) {
    auto queue = OrderedWorkQueue::create("unused");
    queue->terminate(true);
    EXPECT_EQ(threadsNamed("unused"), 0);

    EXPECT_EQ(messageOf<std::runtime_error>([&] { queue->push([] {}); }),
              "OrderedWorkQueue already terminated");
    EXPECT_EQ(threadsNamed("unused"), 0);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { queue->terminate(false); }),
              "OrderedWorkQueue already being terminated");
}

TEST(OrderedWorkQueue, NamesItsThreadAfterTheQueueOrOrderedWorkQWhenUnnamed) {
    for (const std::string& name : {std::string(), std::string("wsViewModel")}) {
        auto queue = OrderedWorkQueue::create(name);
        std::string seenName;
        queue->push([&seenName] { seenName = foundation::core::diag::currentThreadName(); });
        queue->terminate(true);
        EXPECT_EQ(seenName, name.empty() ? "OrderedWorkQ" : name);
    }
}

TEST(OrderedWorkQueue, TerminateWithoutWaitingFinishesTheRunningItemAndDropsTheRest) {
    auto queue = OrderedWorkQueue::create("nowait");
    std::promise<void> started, release;
    bool firstFinished = false;
    auto first = queue->push([&] {
        started.set_value();
        release.get_future().wait();
        firstFinished = true;
    });
    started.get_future().wait();
    std::vector<boost::unique_future<void>> queued;
    for (int i = 0; i < 3; ++i)
        queued.push_back(queue->push([] {}));

    std::thread terminator([&] { queue->terminate(false); });
    // Open the gate only once terminate has begun: pushes are refused from that point.
    for (;;) {
        try {
            queue->push([] {});
        } catch (const std::runtime_error&) {
            break;
        }
        std::this_thread::yield();
    }
    release.set_value();
    terminator.join();

    first.get();
    EXPECT_TRUE(firstFinished);
    // Whatever had not started when the stop was seen is dropped, never half-run: each future
    // is settled, with a run only ever followed by runs in push order.
    bool dropped = false;
    for (auto& future : queued) {
        ASSERT_TRUE(future.is_ready());
        if (isBrokenPromise(future))
            dropped = true;
        else
            EXPECT_FALSE(dropped) << "an item ran after an earlier one was dropped";
    }
}

TEST(OrderedWorkQueue, WorkItemCanTerminateItsOwnQueue) {
    for (bool waitForPending : {true, false}) {
        SCOPED_TRACE(waitForPending ? "waiting for pending" : "not waiting");
        auto queue = OrderedWorkQueue::create("selfstop");
        std::weak_ptr<OrderedWorkQueue> watch = queue;
        std::vector<int> ran;
        std::string pushAfterStop;
        std::promise<void> gate;

        auto stopper = queue->push([&, q = queue.get()] {
            gate.get_future().wait(); // let the test queue the items behind this one first
            q->terminate(waitForPending);
            pushAfterStop = messageOf<std::runtime_error>([&] { q->push([] {}); });
            ran.push_back(0);
        });
        auto behind1 = queue->push([&ran] { ran.push_back(1); });
        auto behind2 = queue->push([&ran] { ran.push_back(2); });
        gate.set_value();

        stopper.get();
        EXPECT_EQ(pushAfterStop, "OrderedWorkQueue already terminated");
        if (waitForPending) {
            behind1.get();
            behind2.get();
            EXPECT_THAT(ran, ElementsAre(0, 1, 2));
        } else {
            EXPECT_TRUE(isBrokenPromise(behind1));
            EXPECT_TRUE(isBrokenPromise(behind2));
            EXPECT_THAT(ran, ElementsAre(0));
        }
        EXPECT_EQ(messageOf<std::runtime_error>([&] { queue->terminate(true); }),
                  "OrderedWorkQueue already being terminated");

        // The stopped worker lets go of the queue, so the queue is freed once its owner does.
        queue.reset();
        while (!watch.expired())
            std::this_thread::yield();
    }
}

TEST(OrderedWorkQueue, ItemsMayPushFurtherItemsWhichRunAfterEverythingAlreadyQueued) {
    auto queue = OrderedWorkQueue::create("nested");
    std::vector<std::string> ran;
    std::promise<void> gate;
    boost::unique_future<void> nested;

    auto outer = queue->push([&] {
        gate.get_future().wait(); // "queued" is pushed before this item pushes "nested"
        ran.emplace_back("outer");
        nested = queue->push([&ran] { ran.emplace_back("nested"); });
    });
    queue->push([&ran] { ran.emplace_back("queued"); });
    gate.set_value();
    outer.get();
    queue->terminate(true);

    EXPECT_TRUE(nested.is_ready());
    EXPECT_THAT(ran, ElementsAre("outer", "queued", "nested"));
}
