#include <workspace_browser/platform/message_service/LocalMessageService.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace connector::message_service;

namespace {

// Collects what one subscriber receives. Thread-safe.
class Inbox {
public:
    MessageService::Callback callback(std::string tag = {}) {
        return [this, tag](const JsonMessage& message) {
            std::lock_guard lock(mMutex);
            mSeen.push_back(tag + std::string(message.text()));
        };
    }
    std::vector<std::string> seen() const {
        std::lock_guard lock(mMutex);
        return mSeen;
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mSeen;
};

std::shared_ptr<Subscription> serverSubscribe(LocalMessageService& service,
                                              const std::string& channel,
                                              MessageService::Callback callback) {
    auto future = service.subscribe(channel, std::move(callback));
    EXPECT_TRUE(future.valid());
    auto subscription = future.get();
    EXPECT_TRUE(subscription);
    return subscription;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(JsonMessage, ViewsItsBufferAndTreatsANullBufferAsEmpty) {
    EXPECT_EQ(JsonMessage().data(), nullptr);
    EXPECT_EQ(JsonMessage().text(), "");
    const std::string text = R"({"a":1})";
    JsonMessage view(text);
    EXPECT_EQ(view.data(), text.data());
    EXPECT_EQ(view.text(), text);
}

TEST(Subscription, RunsItsReleaseActionOnceOnDestruction) {
    int released = 0;
    {
        auto subscription = std::make_shared<Subscription>([&] { ++released; });
        auto second = subscription;
        subscription.reset();
        EXPECT_EQ(released, 0);
    }
    EXPECT_EQ(released, 1);
    // Without an action, or with one that throws, destruction is harmless.
    { Subscription none; }
    {
        Subscription throwing([] { throw std::runtime_error("release failed"); });
    }
}

TEST(LocalMessageService, ServerAndClientSidesOnlyHearEachOther) {
    LocalMessageService service;
    Inbox server, client;
    auto s = serverSubscribe(service, "/chan", server.callback());
    auto c = service.subscribeClient("/chan", client.callback());

    Future<void> published = service.publish("/chan", JsonMessage(std::string_view("to-client")));
    EXPECT_TRUE(published.valid());
    EXPECT_NO_THROW(published.get());
    service.publishFromClient("/chan", "to-server");

    EXPECT_EQ(server.seen(), Texts{"to-server"});
    EXPECT_EQ(client.seen(), Texts{"to-client"});

    // A null message arrives as empty text; a channel without subscribers takes messages quietly.
    service.publish("/chan", JsonMessage());
    service.publish("/nobody", JsonMessage(std::string_view("x")));
    service.publishFromClient("/nobody", "x");
    EXPECT_EQ(client.seen(), (Texts{"to-client", ""}));
    EXPECT_EQ(server.seen(), Texts{"to-server"});
}

TEST(LocalMessageService, DeliversInSubscriptionOrderPerChannel) {
    LocalMessageService service;
    Inbox log;
    auto a1 = serverSubscribe(service, "/a", log.callback("1:"));
    auto b = serverSubscribe(service, "/b", log.callback("b:"));
    auto a2 = serverSubscribe(service, "/a", log.callback("2:"));
    auto a3 = serverSubscribe(service, "/a", log.callback("3:"));

    service.publishFromClient("/a", "m");
    EXPECT_EQ(log.seen(), (Texts{"1:m", "2:m", "3:m"}));

    service.publishFromClient("/b", "n");
    EXPECT_EQ(log.seen().back(), "b:n");
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
        service.publish("/c", JsonMessage(std::string_view("x")));
        EXPECT_EQ(log.seen(), (Texts{"1:x", "2:x", "3:x"}));

        extraReference.reset();
        service.publish("/c", JsonMessage(std::string_view("y")));
        EXPECT_EQ(log.seen(), (Texts{"1:x", "2:x", "3:x", "1:y", "3:y"}));

        survivor = serverSubscribe(service, "/c", log.callback());
    }
    // The service is gone; releasing what it handed out must still be safe.
    survivor.reset();
}

TEST(LocalMessageService, RejectsEmptyCallbacksAndSurvivesThrowingOnes) {
    LocalMessageService service;
    auto refused = service.subscribe("/c", {});
    EXPECT_TRUE(refused.valid());
    EXPECT_THROW(refused.get(), std::invalid_argument);
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
    auto replier = serverSubscribe(service, "/rr", [&](const JsonMessage& message) {
        service.publish("/rr",
                        JsonMessage(std::string_view("reply:" + std::string(message.text()))));
    });
    auto clientSide = service.subscribeClient("/rr", client.callback());
    service.publishFromClient("/rr", "q");
    EXPECT_EQ(client.seen(), Texts{"reply:q"});

    // A callback that releases its own subscription hears only the first message.
    int selfReleasingCalls = 0;
    std::shared_ptr<Subscription> self;
    self = service.subscribeClient("/once", [&](const JsonMessage&) {
        ++selfReleasingCalls;
        self.reset();
    });
    // A callback that adds a subscriber: the newcomer hears the following messages.
    std::shared_ptr<Subscription> added;
    auto adder = service.subscribeClient("/once", [&](const JsonMessage&) {
        if (!added)
            added = service.subscribeClient("/once", late.callback());
    });
    service.publish("/once", JsonMessage(std::string_view("1")));
    service.publish("/once", JsonMessage(std::string_view("2")));
    EXPECT_EQ(selfReleasingCalls, 1);
    EXPECT_FALSE(self);
    EXPECT_EQ(late.seen(), Texts{"2"});

    // A callback may own another subscription; dropping the callback on release then releases
    // that one too, which must not deadlock on the service's lock.
    auto inner = service.subscribeClient("/inner", late.callback());
    auto outer = service.subscribeClient(
        "/outer", [owned = std::move(inner)](const JsonMessage&) { (void)owned; });
    outer.reset();
    service.publish("/inner", JsonMessage(std::string_view("gone")));
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
