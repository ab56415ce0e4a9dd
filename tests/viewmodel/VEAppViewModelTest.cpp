#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/ThreadName.hpp>
#include <workspace_browser/viewmodel/VEAppViewModel.hpp>

#include "support/LogCapture.hpp"
#include "support/RecordingMessageService.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <latch>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace workspace_browser_startup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using Names = std::vector<std::string>;
using Batch = WSListenersSubscriptionCallbackArg;

EventInfo event(EventType type, Names names = {}) {
    return EventInfo{type, std::move(names)};
}

// Stands in for the host: hands the data model its event subscription and fires batches through
// it on whichever thread calls fire. It is never asked for records here.
// Thread-safe once the model is made (the listener is set before any batch is fired).
class ScriptedHost {
public:
    std::shared_ptr<WSDataModel> makeModel() {
        return std::make_shared<WSDataModel>(
            [this](WSListenersSubscriptionCallback listener) {
                mListener = std::move(listener);
                return Connection();
            },
            [](const Names&, Names, bool, double, WorkspaceDisplayResultCallback) {}, [] {});
    }
    void fire(Batch batch) const { mListener(std::move(batch)); }

private:
    WSListenersSubscriptionCallback mListener;
};

// The host's notification function: records every payload after running an optional hook
// (set before any batch is fired) that may block, throw or inspect the calling thread. The
// deletion of kDrainMark is not recorded: it marks the end of the batches fired before it.
// Thread-safe.
class Notifications {
public:
    static constexpr const char* kDrainMark = "drain-mark";
    std::function<void(const Names&)> hook;

    VEAppNotificationFunction function() {
        return [this](Names names) {
            if (names == Names{"VARIABLE_DELETED", kDrainMark}) {
                std::lock_guard lock(mMutex);
                ++mDrainMarks;
                mDrained.notify_all();
                return;
            }
            if (hook)
                hook(names);
            std::lock_guard lock(mMutex);
            mAll.push_back(std::move(names));
        };
    }
    std::vector<Names> all() const {
        std::lock_guard lock(mMutex);
        return mAll;
    }
    void waitForDrainMarks(int count) {
        std::unique_lock lock(mMutex);
        mDrained.wait(lock, [&] { return mDrainMarks >= count; });
    }

private:
    mutable std::mutex mMutex;
    std::condition_variable mDrained;
    int mDrainMarks = 0;
    std::vector<Names> mAll;
};

class VEAppViewModelTest : public ::testing::Test {
protected:
    std::unique_ptr<VEAppViewModel> makeViewModel() { return makeViewModel(notes.function()); }
    std::unique_ptr<VEAppViewModel> makeViewModel(VEAppNotificationFunction notify) {
        return std::make_unique<VEAppViewModel>(service, "app", model, std::move(notify));
    }

    // Waits until every batch fired so far has been processed. Shutdown alone would not do: it
    // skips the batches still queued when it begins.
    void drain() {
        host.fire({event(EventType::VARIABLE_DELETED, {Notifications::kDrainMark})});
        notes.waitForDrainMarks(++mDrainMarks);
    }

    ScriptedHost host;
    std::shared_ptr<WSDataModel> model = host.makeModel();
    std::shared_ptr<wsb_test::RecordingMessageService> service =
        std::make_shared<wsb_test::RecordingMessageService>();
    Notifications notes;

private:
    int mDrainMarks = 0;
};

TEST_F(VEAppViewModelTest, ChangedEventsAreSplitIntoAddedAndChangedAgainstTheNamesSeenSoFar) {
    auto vm = makeViewModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    host.fire({event(EventType::VARIABLE_CHANGED, {"b", "a", "c"}),
               // Added events are ignored and do not make a name known.
               event(EventType::VARIABLE_ADDED, {"x"}), event(EventType::VARIABLE_CHANGED, {}),
               event(EventType::VARIABLE_CHANGED, {"a", "b"}),
               event(static_cast<EventType>(7), {"y"}), event(EventType::VARIABLE_CHANGED, {"x"})});
    drain();
    vm->onPreShutdown();

    EXPECT_THAT(notes.all(),
                ElementsAre(Names{"VARIABLE_ADDED", "a"}, Names{"VARIABLE_ADDED", "b", "c"},
                            Names{"VARIABLE_CHANGED", "a"}, Names{"VARIABLE_CHANGED", "a", "b"},
                            Names{"VARIABLE_ADDED", "x"}));
    // Nothing goes to the client: this view model has no channels.
    EXPECT_TRUE(service->published().empty());
}

TEST_F(VEAppViewModelTest, DeletionsForgetNamesAndClearsForgetEverything) {
    auto vm = makeViewModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "b", "c"})});
    host.fire({event(EventType::VARIABLE_DELETED, {"b", "unknown"}),
               event(EventType::VARIABLE_DELETED, {})});
    host.fire({event(EventType::VARIABLE_CHANGED, {"b", "c"})});
    host.fire({event(EventType::WORKSPACE_CLEARED)});
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "c"}),
               event(EventType::WORKSPACE_CLEARED, {"q"})});
    drain();
    vm->onPreShutdown();

    EXPECT_THAT(notes.all(),
                ElementsAre(Names{"VARIABLE_ADDED", "a", "b", "c"},
                            Names{"VARIABLE_DELETED", "b", "unknown"}, Names{"VARIABLE_DELETED"},
                            Names{"VARIABLE_ADDED", "b"}, Names{"VARIABLE_CHANGED", "c"},
                            Names{"WORKSPACE_CLEARED"}, Names{"VARIABLE_ADDED", "a", "c"},
                            Names{"WORKSPACE_CLEARED", "q"}));
}

TEST_F(VEAppViewModelTest, NotificationsComeOneAtATimeOnTheQueueThreadInReportedOrder) {
    constexpr int kThreads = 4;
    constexpr int kBatchesPerThread = 40;
    std::mutex threadsMutex;
    std::set<std::thread::id> notifyingThreads;
    std::set<std::string> notifyingThreadNames;
    std::atomic<int> inside{0};
    std::atomic<int> maxInside{0};
    notes.hook = [&](const Names&) {
        const int now = ++inside;
        int seen = maxInside.load();
        while (now > seen && !maxInside.compare_exchange_weak(seen, now)) {
        }
        {
            std::lock_guard lock(threadsMutex);
            notifyingThreads.insert(std::this_thread::get_id());
            notifyingThreadNames.insert(foundation::core::diag::currentThreadName());
        }
        std::this_thread::yield();
        --inside;
    };
    auto vm = makeViewModel();

    std::latch start(kThreads);
    std::vector<std::thread> firing;
    std::set<std::thread::id> firingThreads;
    for (int t = 0; t < kThreads; ++t) {
        firing.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kBatchesPerThread; ++i) {
                const std::string name = "t" + std::to_string(t) + "_" + std::to_string(i);
                host.fire({event(EventType::VARIABLE_CHANGED, {name})});
                host.fire({event(EventType::VARIABLE_CHANGED, {name}),
                           event(EventType::VARIABLE_DELETED, {name})});
            }
        });
        firingThreads.insert(firing.back().get_id());
    }
    for (auto& thread : firing)
        thread.join();
    drain();
    vm->onPreShutdown();

    // Each thread fired its batches one after another, so its own notifications keep that order
    // however the threads interleave.
    const auto all = notes.all();
    ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kBatchesPerThread * 3));
    for (int t = 0; t < kThreads; ++t) {
        const std::string prefix = "t" + std::to_string(t) + "_";
        std::vector<Names> mine;
        std::copy_if(all.begin(), all.end(), std::back_inserter(mine),
                     [&](const Names& n) { return n.size() == 2 && n[1].rfind(prefix, 0) == 0; });
        std::vector<Names> expected;
        for (int i = 0; i < kBatchesPerThread; ++i) {
            const std::string name = prefix + std::to_string(i);
            expected.push_back({"VARIABLE_ADDED", name});
            expected.push_back({"VARIABLE_CHANGED", name});
            expected.push_back({"VARIABLE_DELETED", name});
        }
        EXPECT_EQ(mine, expected) << "thread " << t;
    }
    EXPECT_EQ(maxInside.load(), 1);
    ASSERT_EQ(notifyingThreads.size(), 1U);
    EXPECT_EQ(firingThreads.count(*notifyingThreads.begin()), 0U);
    EXPECT_THAT(notifyingThreadNames, ElementsAre("VEAppViewModel"));
}

TEST_F(VEAppViewModelTest, ShutdownWaitsForTheBatchInFlightAndLaterBatchesAreDropped) {
    wsb_test::LogCapture log("zentra::datatools::VEAppViewModel");
    std::latch entered(1);
    std::latch release(1);
    notes.hook = [&](const Names& names) {
        if (names.back() == "held") {
            entered.count_down();
            release.wait();
        }
    };
    auto vm = makeViewModel();

    std::thread([&] { host.fire({event(EventType::VARIABLE_CHANGED, {"held"})}); }).join();
    entered.wait();
    // Accepted before shutdown but still queued: it may be skipped once shutdown has begun, but
    // it must not run after onPreShutdown has returned.
    host.fire({event(EventType::VARIABLE_CHANGED, {"queued"})});

    std::atomic<bool> shutdownStarted{false};
    std::vector<Names> seenWhenShutdownReturned;
    std::thread shutdown([&] {
        shutdownStarted = true;
        vm->onPreShutdown();
        seenWhenShutdownReturned = notes.all();
    });
    while (!shutdownStarted)
        std::this_thread::yield();
    for (int i = 0; i < 100; ++i)
        std::this_thread::yield();
    release.count_down();
    shutdown.join();

    ASSERT_FALSE(seenWhenShutdownReturned.empty());
    EXPECT_EQ(seenWhenShutdownReturned.front(), (Names{"VARIABLE_ADDED", "held"}));
    EXPECT_LE(seenWhenShutdownReturned.size(), 2U);

    // Later batches still reach the view model but are dropped; a second shutdown is harmless.
    host.fire({event(EventType::VARIABLE_CHANGED, {"late"}), event(EventType::WORKSPACE_CLEARED)});
    vm->onPreShutdown();
    vm.reset();
    host.fire({event(EventType::VARIABLE_CHANGED, {"afterDestruction"})});
    EXPECT_EQ(notes.all(), seenWhenShutdownReturned);
    EXPECT_EQ(log.last(), "VEAppViewModel PreShutdown - done");
}

TEST_F(VEAppViewModelTest, DestroyingWithoutShutdownStopsCleanly) {
    auto vm = makeViewModel();
    for (int i = 0; i < 20; ++i)
        host.fire({event(EventType::VARIABLE_CHANGED, {"v" + std::to_string(i)})});
    vm.reset();
    // Whatever ran, ran in order and before the destructor returned.
    const auto seen = notes.all();
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i], (Names{"VARIABLE_ADDED", "v" + std::to_string(i)}));
    host.fire({event(EventType::VARIABLE_CHANGED, {"late"})});
    EXPECT_EQ(notes.all(), seen);
}

TEST_F(VEAppViewModelTest, NotificationFailuresAreLoggedAndSkipOnlyTheRestOfTheirBatch) {
    wsb_test::LogCapture log("zentra::datatools::VEAppViewModel");
    VEAppViewModel* self = nullptr;
    notes.hook = [&](const Names& names) {
        if (names.front() == "VARIABLE_ADDED" && names.back() == "boom")
            throw std::runtime_error("host busy");
        // Shutting down from inside the notification would wait for itself.
        if (names.back() == "reenter")
            self->onPreShutdown();
    };
    auto vm = makeViewModel();
    self = vm.get();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    // The added call throws: the changed call and the deletion of the same batch are skipped.
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "boom"}),
               event(EventType::VARIABLE_DELETED, {"a"})});
    // "boom" became known before the host failed, so it is reported as changed now.
    host.fire({event(EventType::VARIABLE_CHANGED, {"boom", "a"})});
    host.fire({event(EventType::VARIABLE_DELETED, {"reenter"})});
    drain();
    vm->onPreShutdown();

    EXPECT_THAT(notes.all(),
                ElementsAre(Names{"VARIABLE_ADDED", "a"}, Names{"VARIABLE_CHANGED", "boom", "a"}));
    EXPECT_TRUE(log.contains("Exception caught: host busy"));
    EXPECT_TRUE(
        log.contains("Exception caught: onPreShutdown called from the notification function"));
}

TEST_F(VEAppViewModelTest, LogsEachStepAndTimesEachBatch) {
    wsb_test::LogCapture log("zentra::datatools::VEAppViewModel");
    wsb_test::LogCapture perf("zentra::datatoolsperf::VEAppViewModel");
    std::latch notified(3);
    notes.hook = [&](const Names&) { notified.count_down(); };
    auto vm = makeViewModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"}), event(EventType::WORKSPACE_CLEARED),
               event(EventType::VARIABLE_DELETED, {"a"})});
    notified.wait();
    vm->onPreShutdown();

    EXPECT_THAT(log.texts(),
                ElementsAre("VEAppViewModel Variables Changed from Data Model",
                            "VEAppViewModel Handling VARIABLE_CHANGED or ADDED",
                            "VEAppViewModel notifyFcn done",
                            "VEAppViewModel Handling WORKSPACE_CLEARED",
                            "VEAppViewModel PreShutdown", "VEAppViewModel PreShutdown - done"));
    const auto timings = perf.texts();
    ASSERT_EQ(timings.size(), 1U);
    EXPECT_THAT(timings.front(), HasSubstr("VEAppViewModel.cpp"));
    EXPECT_THAT(timings.front(), HasSubstr("processBatch"));
}

} // namespace
