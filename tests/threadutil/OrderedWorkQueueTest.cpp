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
#include <vector>

#if defined(__SANITIZE_THREAD__)
// A queue stopped by its own worker keeps that finished worker unjoined for good (see
// keepForever below); that is the queue's design, not a leak of this program.
extern "C" const char* __tsan_default_suppressions() {
    return "thread:OrderedWorkQueueImpl\n";
}
#endif

#if defined(__SANITIZE_ADDRESS__)
// The queues kept for good (see keepForever below) hold oneTBB's queue pages, which oneTBB
// references from storage that LeakSanitizer does not scan; they are freed with their queue.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:micro_queue*prepare_page\n";
}
#endif

using ::testing::ElementsAre;
using ::testing::ThrowsMessage;
using threadutil::OrderedWorkQueue;

namespace {

// Threads of this process that carry the given name.
int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string current;
        count += std::getline(std::ifstream(task.path() / "comm"), current) && current == name;
    }
    return count;
}

// A queue stopped by its own worker cannot join it, and releasing such a queue ends the process,
// so the tests that stop a queue that way keep it until the process exits.
void keepForever(std::shared_ptr<OrderedWorkQueue> queue) {
    static auto* const kept = new std::vector<std::shared_ptr<OrderedWorkQueue>>;
    kept->push_back(std::move(queue));
}

const auto kTerminated = ThrowsMessage<std::runtime_error>("OrderedWorkQueue already terminated");
const auto kSecondTerminate =
    ThrowsMessage<std::runtime_error>("OrderedWorkQueue already being terminated");

} // namespace

TEST(OrderedWorkQueue, KeepsEachProducersOrderAndRunsAllBeforeTerminateReturns) {
    auto queue = OrderedWorkQueue::create("order");
    std::vector<std::pair<int, int>> ran; // written by items only, read after the join
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < 500; ++i)
                queue->push([&ran, p, i] { ran.emplace_back(p, i); });
        });
    for (auto& producer : producers)
        producer.join();
    queue->terminate(true);

    ASSERT_EQ(ran.size(), 2000u);
    std::vector<int> next(4, 0);
    for (const auto& [producer, index] : ran)
        ASSERT_EQ(index, next[producer]++) << "producer " << producer;
}

TEST(OrderedWorkQueue, PushesRacingTerminateEitherRunBeforeItReturnsOrAreRefused) {
    auto queue = OrderedWorkQueue::create("race");
    std::atomic<int> runs{0}, accepted{0};
    std::promise<void> started[3];
    std::vector<std::thread> producers;
    for (auto& s : started)
        producers.emplace_back([&] {
            s.set_value();
            try {
                for (;; ++accepted)
                    queue->push([&runs] { ++runs; });
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "OrderedWorkQueue already terminated");
            }
        });
    for (auto& s : started)
        s.get_future().wait();
    queue->terminate(true);
    const int ranBeforeReturn = runs;
    for (auto& producer : producers)
        producer.join();
    EXPECT_EQ(ranBeforeReturn, accepted.load());
    EXPECT_EQ(runs.load(), ranBeforeReturn);
}

TEST(OrderedWorkQueue, ThrowingItemKeepsItsExceptionAndTheWorkerGoesOn) {
    auto queue = OrderedWorkQueue::create("throws");
    auto failing = queue->push([] { throw std::runtime_error("item failed"); });
    auto odd = queue->push([] { throw 42; });
    auto later = queue->push([] {});
    EXPECT_THAT([&] { failing.get(); }, ThrowsMessage<std::runtime_error>("item failed"));
    EXPECT_THROW(odd.get(), int);
    EXPECT_NO_THROW(later.get());
    queue->terminate(true);
}

TEST(OrderedWorkQueue, StartsOneNamedThreadOnTheFirstAcceptedPushAndTerminatesOnce) {
    auto unused = OrderedWorkQueue::create("unused");
    unused->terminate(true);
    EXPECT_THAT([&] { unused->push([] {}); }, kTerminated);
    EXPECT_THAT([&] { unused->terminate(false); }, kSecondTerminate);

    auto queue = OrderedWorkQueue::create("lazyQ");
    EXPECT_THAT([&] { queue->push({}); },
                ThrowsMessage<std::logic_error>("work must be executable"));
    EXPECT_EQ(threadsNamed("lazyQ"), 0);
    std::string seenName;
    queue->push([&] { seenName = foundation::core::diag::currentThreadName(); }).get();
    queue->push([] {}).get();
    EXPECT_EQ(seenName, "lazyQ");
    EXPECT_EQ(threadsNamed("lazyQ"), 1);
    queue->terminate(true);
    EXPECT_THAT([&] { queue->terminate(true); }, kSecondTerminate);

    auto unnamed = OrderedWorkQueue::create("");
    unnamed->push([&] { seenName = foundation::core::diag::currentThreadName(); });
    unnamed->terminate(true);
    EXPECT_EQ(seenName, "OrderedWorkQ");
}

TEST(OrderedWorkQueue, WorkItemCanTerminateItsOwnQueue) {
    for (bool waitForPending : {true, false}) {
        SCOPED_TRACE(waitForPending);
        auto queue = OrderedWorkQueue::create("selfstop");
        std::vector<int> ran;
        std::promise<void> gate;
        auto stopper = queue->push([&, q = queue.get()] {
            gate.get_future().wait(); // the items behind this one are queued by now
            q->terminate(waitForPending);
            EXPECT_THAT([&] { q->push([] {}); }, kTerminated);
            ran.push_back(0);
        });
        auto behind1 = queue->push([&ran] { ran.push_back(1); });
        auto behind2 = queue->push([&ran] { ran.push_back(2); });
        gate.set_value();

        stopper.get();
        if (waitForPending) {
            behind1.get();
            behind2.get();
            EXPECT_THAT(ran, ElementsAre(0, 1, 2));
        } else {
            // Dropped unrun: their futures report the broken promise.
            EXPECT_THROW(behind1.get(), boost::broken_promise);
            EXPECT_THROW(behind2.get(), boost::broken_promise);
            EXPECT_THAT(ran, ElementsAre(0));
        }
        EXPECT_THAT([&] { queue->terminate(true); }, kSecondTerminate);
        keepForever(std::move(queue));
    }
}

TEST(OrderedWorkQueueDeathTest, ReleasingAQueueStoppedByItsOwnWorkerEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto queue = OrderedWorkQueue::create("selfrelease");
            OrderedWorkQueue* const raw = queue.get();
            std::promise<void> released;
            auto done = released.get_future();
            // The item holds the only owner reference and lets it go on the worker.
            raw->push([owner = std::move(queue), &released]() mutable {
                owner->terminate(true);
                owner.reset();
                released.set_value();
            });
            done.wait();
            // Had the worker been let go quietly, its thread would end and this would return.
            while (threadsNamed("selfrelease") != 0)
                std::this_thread::yield();
        },
        "");
}

TEST(OrderedWorkQueue, ItemsMayPushItemsThatRunAfterEverythingAlreadyQueued) {
    auto queue = OrderedWorkQueue::create("nested");
    std::vector<std::string> ran;
    std::promise<void> gate;
    auto outer = queue->push([&] {
        gate.get_future().wait(); // "queued" goes in before "nested"
        ran.emplace_back("outer");
        queue->push([&ran] { ran.emplace_back("nested"); });
    });
    queue->push([&ran] { ran.emplace_back("queued"); });
    gate.set_value();
    outer.get();
    queue->terminate(true);
    EXPECT_THAT(ran, ElementsAre("outer", "queued", "nested"));
}
