#include <workspace_browser/platform/message_service/LocalMessageService.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace connector::message_service;

namespace {

using Texts = std::vector<std::string>;

// Collects what subscribers receive, each text prefixed with the subscriber's tag. Thread-safe.
class Inbox {
public:
    MessageService::Callback callback(std::string tag = {}) {
        return [this, tag](const JsonMessage& message) {
            std::lock_guard lock(mMutex);
            mSeen.push_back(tag + std::string(message.text()));
        };
    }
    Texts seen() const {
        std::lock_guard lock(mMutex);
        return mSeen;
    }

private:
    mutable std::mutex mMutex;
    Texts mSeen;
};

std::shared_ptr<Subscription> serverSubscribe(LocalMessageService& service,
                                              const std::string& channel,
                                              MessageService::Callback callback) {
    auto subscription = service.subscribe(channel, std::move(callback)).get();
    EXPECT_TRUE(subscription);
    return subscription;
}

JsonMessage message(const char* text) {
    return JsonMessage(std::string_view(text));
}

} // namespace

TEST(LocalMessageService, SidesHearOnlyEachOtherInSubscriptionOrderPerChannel) {
    LocalMessageService service;
    Inbox server, client;
    auto s1 = serverSubscribe(service, "/a", server.callback("1:"));
    auto b = serverSubscribe(service, "/b", server.callback("b:"));
    auto s2 = serverSubscribe(service, "/a", server.callback("2:"));
    auto c = service.subscribeClient("/a", client.callback());

    EXPECT_NO_THROW(service.publish("/a", message("to-client")).get());
    service.publishFromClient("/a", "m");
    service.publishFromClient("/b", "n");
    // A null message arrives as empty text; a channel without subscribers takes it quietly.
    service.publish("/a", JsonMessage());
    service.publish("/nobody", message("x"));
    service.publishFromClient("/nobody", "x");
    EXPECT_EQ(server.seen(), (Texts{"1:m", "2:m", "b:n"}));
    EXPECT_EQ(client.seen(), (Texts{"to-client", ""}));
}

TEST(LocalMessageService, ReleasingTheLastReferenceEndsDelivery) {
    Inbox log;
    std::shared_ptr<Subscription> survivor;
    {
        LocalMessageService service;
        auto first = service.subscribeClient("/c", log.callback("1:"));
        auto middle = service.subscribeClient("/c", log.callback("2:"));
        auto last = service.subscribeClient("/c", log.callback("3:"));
        auto extraReference = middle;
        middle.reset();
        service.publish("/c", message("x"));
        extraReference.reset();
        service.publish("/c", message("y"));
        EXPECT_EQ(log.seen(), (Texts{"1:x", "2:x", "3:x", "1:y", "3:y"}));
        survivor = serverSubscribe(service, "/c", log.callback());
    }
    // The service is gone; releasing what it handed out must still be safe.
    survivor.reset();
}

TEST(LocalMessageService, RejectsEmptyCallbacksAndSurvivesThrowingOnes) {
    LocalMessageService service;
    EXPECT_THROW(service.subscribe("/c", {}).get(), std::invalid_argument);
    EXPECT_THROW(service.subscribeClient("/c", {}), std::invalid_argument);

    Inbox log;
    auto thrower = serverSubscribe(
        service, "/c", [](const JsonMessage&) { throw std::runtime_error("subscriber failed"); });
    auto after = serverSubscribe(service, "/c", log.callback());
    EXPECT_NO_THROW(service.publishFromClient("/c", "m"));
    EXPECT_EQ(log.seen(), Texts{"m"});
}

TEST(LocalMessageService, CallbacksMaySubscribeReleaseAndPublish) {
    LocalMessageService service;
    Inbox client, late;

    // The usual request/reply: the server answers on the same channel from inside its callback.
    auto replier = serverSubscribe(service, "/rr", [&](const JsonMessage& m) {
        service.publish("/rr", JsonMessage(std::string_view("reply:" + std::string(m.text()))));
    });
    auto clientSide = service.subscribeClient("/rr", client.callback());
    service.publishFromClient("/rr", "q");
    EXPECT_EQ(client.seen(), Texts{"reply:q"});

    // One callback releases its own subscription, another adds a subscriber, who hears only
    // the following messages.
    int selfReleasingCalls = 0;
    std::shared_ptr<Subscription> self, added;
    self = service.subscribeClient("/once", [&](const JsonMessage&) {
        ++selfReleasingCalls;
        self.reset();
    });
    auto adder = service.subscribeClient("/once", [&](const JsonMessage&) {
        if (!added)
            added = service.subscribeClient("/once", late.callback());
    });
    service.publish("/once", message("1"));
    service.publish("/once", message("2"));
    EXPECT_EQ(selfReleasingCalls, 1);
    EXPECT_EQ(late.seen(), Texts{"2"});

    // Dropping a callback that owns another subscription releases that one too, which must not
    // deadlock on the service's lock.
    auto inner = service.subscribeClient("/inner", late.callback());
    auto outer = service.subscribeClient(
        "/outer", [owned = std::move(inner)](const JsonMessage&) { (void)owned; });
    outer.reset();
    service.publish("/inner", message("gone"));
    EXPECT_EQ(late.seen(), Texts{"2"});
}

TEST(LocalMessageService, ConcurrentPublishersSubscribersAndReleases) {
    constexpr int kPublishers = 3;
    constexpr int kMessagesEach = 300;
    constexpr int kChurnRounds = 200;

    LocalMessageService service;
    std::atomic<int> stableCount{0};
    auto stable =
        serverSubscribe(service, "/load", [&](const JsonMessage&) { stableCount.fetch_add(1); });

    std::atomic<bool> lateDelivery{false};
    std::vector<std::thread> threads;
    for (int p = 0; p < kPublishers; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < kMessagesEach; ++i)
                service.publishFromClient("/load", "tick");
        });
    // Subscribes and releases while messages flow. Each callback reads state it owns, so a
    // callback destroyed under a running delivery shows up under the sanitizers. After each
    // release this thread publishes a marker itself: that delivery starts after the release
    // returned, so the released callback must never see it.
    threads.emplace_back([&] {
        for (int round = 0; round < kChurnRounds; ++round) {
            auto owned = std::make_shared<std::string>("round " + std::to_string(round));
            auto subscription = serverSubscribe(service, "/load", [&, owned](const JsonMessage& m) {
                if (owned->empty() || m.text() == "marker")
                    lateDelivery = true;
            });
            subscription.reset();
            owned.reset();
            service.publishFromClient("/load", "marker");
        }
    });
    // The other side of the same channel stays untouched by all of this.
    Inbox clientInbox;
    auto client = service.subscribeClient("/load", clientInbox.callback());

    for (auto& t : threads)
        t.join();
    EXPECT_FALSE(lateDelivery.load());
    EXPECT_EQ(stableCount.load(), kPublishers * kMessagesEach + kChurnRounds);
    EXPECT_TRUE(clientInbox.seen().empty());
}

TEST(LocalMessageService, ReleaseWaitsForACallInProgressOnAnotherThread) {
    LocalMessageService service;
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false, releasing = false;
    std::atomic<bool> callDone{false};
    auto owned = std::make_unique<std::string>("state the callback reads");

    auto subscription = service.subscribeClient("/slow", [&](const JsonMessage&) {
        std::unique_lock lock(mutex);
        entered = true;
        changed.notify_all();
        changed.wait(lock, [&] { return releasing; });
        lock.unlock();
        // Gives a release that does not wait the time to return and free what is read here.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(owned->empty());
        callDone = true;
    });
    std::thread publisher([&] { service.publish("/slow", message("m")); });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return entered; });
        releasing = true;
        changed.notify_all();
    }
    subscription.reset();
    EXPECT_TRUE(callDone.load());
    owned.reset();
    publisher.join();
}
