#include <workspace_browser/datamodel/CallbackManager.hpp>
#include <workspace_browser/datamodel/Connection.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

using namespace workspace_browser_startup;

namespace {

using Registry = CallbackManager<std::vector<int>>;

std::uint64_t idOf(const Connection& connection) {
    const auto* handle = dynamic_cast<const Registry::CallbackConnection*>(connection.handle());
    EXPECT_NE(handle, nullptr);
    return handle ? handle->id() : ~std::uint64_t{0};
}

// Counts what happens to a handle, so that tests see exactly when a Connection disconnects.
struct HandleLog {
    int disconnects = 0;
    int destroyed = 0;
};

class LoggingHandle : public ConnectionInterface {
public:
    explicit LoggingHandle(std::shared_ptr<HandleLog> log) : mLog(std::move(log)) {}
    ~LoggingHandle() override { ++mLog->destroyed; }
    std::unique_ptr<ConnectionInterface> clone() const override {
        return std::make_unique<LoggingHandle>(mLog);
    }
    void disconnect() override { ++mLog->disconnects; }

private:
    std::shared_ptr<HandleLog> mLog;
};

} // namespace

TEST(CallbackManager, IdentifiersCountUpAndAreNeverReused) {
    Registry registry;
    int calls = 0;
    const auto count = [&](std::vector<int>) { ++calls; };
    Connection first = registry.registerCallback(count);
    Connection second = registry.registerCallback(count);
    // A stale clone of a disconnected handle must not remove whoever registered afterwards,
    // which is what a reused identifier would make it do.
    std::unique_ptr<ConnectionInterface> staleClone = second.handle()->clone();
    second.disconnect();
    Connection third = registry.registerCallback(count);
    EXPECT_EQ(idOf(first), 0U);
    EXPECT_EQ(idOf(third), 2U);
    staleClone->disconnect();
    registry.invokeCallbacks({1});
    EXPECT_EQ(calls, 2) << "first and third stay registered";
}

TEST(CallbackManager, InvocationCopiesArgumentsAndToleratesReentrantCallbacks) {
    Registry registry;
    registry.invokeCallbacks({1}); // nothing registered: nothing to call, nothing to fail

    std::vector<std::vector<int>> received;
    Connection self, late;
    int lateCalls = 0;
    // Each callback changes its own argument; the next one must still see the original.
    self = registry.registerCallback([&](std::vector<int> values) {
        received.push_back(values);
        values.push_back(99);
        self.disconnect(); // disconnecting oneself while being called must not deadlock
        late = registry.registerCallback([&](std::vector<int>) { ++lateCalls; });
    });
    Connection other = registry.registerCallback([&](std::vector<int> values) {
        received.push_back(values);
        values.clear();
    });

    registry.invokeCallbacks({1, 2});
    EXPECT_EQ(received, (std::vector<std::vector<int>>{{1, 2}, {1, 2}}));
    EXPECT_EQ(lateCalls, 0) << "a callback registered during a pass is not called in it";
    registry.invokeCallbacks({3});
    EXPECT_EQ(received.size(), 3U) << "the self-disconnected callback is gone";
    EXPECT_EQ(lateCalls, 1);

    // A callback owning a Connection of the same registry: releasing it disconnects that one
    // too, which deadlocks if the callback is destroyed while the table is locked.
    auto inner = std::make_shared<Connection>(
        registry.registerCallback([&](std::vector<int>) { ++lateCalls; }));
    Connection outer = registry.registerCallback([owned = std::move(inner)](std::vector<int>) {});
    outer.disconnect();
    registry.invokeCallbacks({4});
    EXPECT_EQ(lateCalls, 2);
}

TEST(CallbackManager, ConnectionDisconnectsExactlyOnceWhateverWayItIsMoved) {
    auto log = std::make_shared<HandleLog>();
    {
        Connection original(std::make_unique<LoggingHandle>(log));
        Connection moved(std::move(original));
        EXPECT_FALSE(original); // NOLINT(bugprone-use-after-move)
        Connection assigned;
        assigned = std::move(moved);
        assigned = std::move(assigned); // self-move keeps the handle
        EXPECT_TRUE(assigned);
        EXPECT_EQ(log->disconnects, 0);
    }
    EXPECT_EQ(log->disconnects, 1) << "the moved-from ones did nothing";
    EXPECT_EQ(log->destroyed, 1);

    auto replaced = std::make_shared<HandleLog>();
    Connection target(std::make_unique<LoggingHandle>(replaced));
    target = Connection(std::make_unique<LoggingHandle>(log));
    EXPECT_EQ(replaced->disconnects, 1) << "assigning over a held handle disconnects it";
    EXPECT_EQ(replaced->destroyed, 1);

    // Handles may outlive their registry.
    auto registry = std::make_unique<Registry>();
    Connection connection = registry->registerCallback([](std::vector<int>) {});
    std::unique_ptr<ConnectionInterface> clone = connection.handle()->clone();
    registry.reset();
    clone->disconnect();
    connection.disconnect();
    EXPECT_FALSE(connection);
}

TEST(CallbackManager, ConcurrentRegistrationDisconnectionAndInvocation) {
    Registry registry;
    constexpr int kThreads = 4;
    constexpr int kRoundsPerThread = 300;
    std::atomic<bool> stop{false};
    std::atomic<long> calls{0};

    std::thread invoker([&] {
        while (!stop.load())
            registry.invokeCallbacks({1, 2, 3});
    });
    std::vector<std::vector<std::uint64_t>> ids(kThreads);
    std::vector<std::thread> subscribers;
    for (int t = 0; t < kThreads; ++t) {
        subscribers.emplace_back([&, t] {
            std::vector<Connection> held;
            for (int round = 0; round < kRoundsPerThread; ++round) {
                held.push_back(registry.registerCallback([&](std::vector<int> values) {
                    calls.fetch_add(static_cast<long>(values.size()));
                }));
                ids[t].push_back(idOf(held.back()));
                if (round % 3 == 2) {
                    held.erase(held.begin()); // disconnects the oldest
                    held.back().handle()->clone()->disconnect();
                    held.pop_back();
                }
            }
        });
    }
    for (auto& thread : subscribers)
        thread.join();
    stop.store(true);
    invoker.join();

    std::set<std::uint64_t> unique;
    for (const auto& perThread : ids)
        unique.insert(perThread.begin(), perThread.end());
    EXPECT_EQ(unique.size(), std::size_t{kThreads * kRoundsPerThread});
    EXPECT_EQ(*unique.rbegin(), std::uint64_t{kThreads * kRoundsPerThread - 1});

    // Every Connection is gone now: nothing may be left to call.
    const long before = calls.load();
    registry.invokeCallbacks({1});
    EXPECT_EQ(calls.load(), before);
}
