#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/ThreadName.hpp>
#include <workspace_browser/viewmodel/VEAppViewModel.hpp>

#include "support/LogCapture.hpp"
#include "support/RecordingMessageService.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
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

namespace {

using Names = std::vector<std::string>;
constexpr auto CHANGED = EventType::VARIABLE_CHANGED;
constexpr auto DELETED = EventType::VARIABLE_DELETED;
constexpr auto CLEARED = EventType::WORKSPACE_CLEARED;

// Plays the host: fires batches into the data model on the calling thread and records each
// notification, as its words joined by spaces, after running `hook` (set before the first batch).
class VEAppViewModelTest : public ::testing::Test {
protected:
    void fire(WSListenersSubscriptionCallbackArg batch) { listener(std::move(batch)); }
    // Fires a marker deletion and waits for it: every batch fired earlier has been handled then.
    void settle() {
        fire({{DELETED, {"#mark"}}});
        std::unique_lock lock(mutex);
        marked.wait(lock, [&] { return !seen.empty() && seen.back() == "VARIABLE_DELETED #mark"; });
        seen.pop_back();
    }
    std::vector<std::string> notes() {
        std::lock_guard lock(mutex);
        return seen;
    }

    std::function<void(const Names&)> hook;
    std::mutex mutex;
    std::condition_variable marked;
    std::vector<std::string> seen; // guarded by mutex
    WSListenersSubscriptionCallback listener;
    std::shared_ptr<WSDataModel> model = std::make_shared<WSDataModel>(
        [this](WSListenersSubscriptionCallback l) {
            listener = std::move(l);
            return Connection();
        },
        [](const Names&, Names, bool, double, WorkspaceDisplayResultCallback) {}, [] {});
    // Declared last, so it shuts down while everything its notifications touch is alive.
    std::unique_ptr<VEAppViewModel> vm = std::make_unique<VEAppViewModel>(
        std::make_shared<wsb_test::RecordingMessageService>(), "app", model, [this](Names names) {
            if (hook)
                hook(names);
            std::string text = names[0];
            for (std::size_t i = 1; i < names.size(); ++i)
                text += " " + names[i];
            std::lock_guard lock(mutex);
            seen.push_back(text);
            marked.notify_all();
        });
};

TEST_F(VEAppViewModelTest, SplitsChangesAgainstKnownNamesWhichDeletionsAndClearsForget) {
    fire({{CHANGED, {"a"}}});
    // Added events and unknown kinds are ignored and do not make a name known.
    fire({{CHANGED, {"b", "a", "c"}},
          {EventType::VARIABLE_ADDED, {"x"}},
          {CHANGED, {}},
          {CHANGED, {"a", "b"}},
          {static_cast<EventType>(7), {"y"}},
          {CHANGED, {"x"}}});
    fire({{DELETED, {"b", "unknown"}}, {DELETED, {}}});
    fire({{CHANGED, {"b", "c"}}});
    fire({{CLEARED, {}}});
    fire({{CHANGED, {"a", "c"}}, {CLEARED, {"q"}}});
    settle();

    EXPECT_THAT(notes(), ElementsAre("VARIABLE_ADDED a", "VARIABLE_ADDED b c", "VARIABLE_CHANGED a",
                                     "VARIABLE_CHANGED a b", "VARIABLE_ADDED x",
                                     "VARIABLE_DELETED b unknown", "VARIABLE_DELETED",
                                     "VARIABLE_ADDED b", "VARIABLE_CHANGED c", "WORKSPACE_CLEARED",
                                     "VARIABLE_ADDED a c", "WORKSPACE_CLEARED q"));
}

TEST_F(VEAppViewModelTest, NotifiesOnItsOwnThreadInTheOrderEachThreadFired) {
    constexpr int kThreads = 4, kBatches = 40;
    std::set<std::string> threadNames; // written only on the queue's thread
    hook = [&](const Names&) { threadNames.insert(foundation::core::diag::currentThreadName()); };
    std::latch start(kThreads);
    std::vector<std::thread> firing;
    for (int t = 0; t < kThreads; ++t) {
        firing.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kBatches; ++i) {
                const std::string name = std::to_string(t) + "_" + std::to_string(i);
                fire({{CHANGED, {name}}});
                fire({{CHANGED, {name}}, {DELETED, {name}}});
            }
        });
    }
    for (auto& thread : firing)
        thread.join();
    settle();

    // However the threads interleave, each one's notifications come in the order it fired.
    const auto all = notes();
    ASSERT_EQ(all.size(), std::size_t{kThreads * kBatches * 3});
    const std::string kinds[] = {"VARIABLE_ADDED ", "VARIABLE_CHANGED ", "VARIABLE_DELETED "};
    std::array<int, kThreads> next{};
    for (const auto& note : all) {
        const int t = note[note.find(' ') + 1] - '0', k = next.at(t)++;
        ASSERT_EQ(note, kinds[k % 3] + std::to_string(t) + "_" + std::to_string(k / 3));
    }
    EXPECT_THAT(threadNames, ElementsAre("VEAppViewModel"));
}

TEST_F(VEAppViewModelTest, ShutdownWaitsForTheBatchInFlightAndDropsLaterOnes) {
    std::latch entered(1), release(1);
    hook = [&](const Names& names) {
        if (names.back() == "held") {
            entered.count_down();
            release.wait();
        }
    };
    fire({{CHANGED, {"held"}}});
    entered.wait();
    // Accepted but still queued: it may be skipped, but never run after shutdown returns.
    fire({{CHANGED, {"queued"}}});
    std::atomic<bool> started{false};
    std::vector<std::string> seenAtReturn;
    std::thread shutdown([&] {
        started = true;
        vm->onPreShutdown();
        seenAtReturn = notes();
    });
    while (!started)
        std::this_thread::yield();
    for (int i = 0; i < 100; ++i)
        std::this_thread::yield();
    release.count_down();
    shutdown.join();
    ASSERT_FALSE(seenAtReturn.empty());
    EXPECT_EQ(seenAtReturn.front(), "VARIABLE_ADDED held");
    EXPECT_LE(seenAtReturn.size(), 2U);

    fire({{CHANGED, {"late"}}, {CLEARED, {}}});
    vm->onPreShutdown(); // a second call is harmless
    vm.reset();
    fire({{CHANGED, {"afterDestruction"}}});
    EXPECT_EQ(notes(), seenAtReturn);
}

TEST_F(VEAppViewModelTest, AThrowingNotificationSkipsTheRestOfItsBatchOnly) {
    wsb_test::LogCapture log("zentra::datatools::VEAppViewModel");
    hook = [&](const Names& names) {
        if (names == Names{"VARIABLE_ADDED", "boom"})
            throw std::runtime_error("host busy");
        if (names.back() == "reenter")
            vm->onPreShutdown(); // would wait for itself, so it throws
    };
    fire({{CLEARED, {}}, {CHANGED, {"a"}}});
    // The added call throws: the changed call and the deletion of the same batch are skipped,
    // but "boom" became known before the host failed.
    fire({{CHANGED, {"a", "boom"}}, {DELETED, {"a"}}});
    fire({{CHANGED, {"boom", "a"}}});
    fire({{DELETED, {"reenter"}}});
    settle();
    vm.reset(); // shuts down when the host did not

    EXPECT_THAT(notes(),
                ElementsAre("WORKSPACE_CLEARED", "VARIABLE_ADDED a", "VARIABLE_CHANGED boom a"));
    for (const char* text :
         {"Exception caught: host busy",
          "Exception caught: onPreShutdown called from the notification function",
          "VEAppViewModel PreShutdown - done"})
        EXPECT_TRUE(log.contains(text)) << text;
}

} // namespace
