#include <workspace_browser/datamodel/WSDataModel.hpp>

#include "support/LogCapture.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

using namespace workspace_browser_startup;

namespace {

using Names = std::vector<std::string>;
using Batch = WSListenersSubscriptionCallbackArg;
const std::string kLogger = "zentra::datatools::WSDataModel";

EventInfo event(EventType type, Names names = {}) {
    return EventInfo{type, std::move(names)};
}

long countStarting(const wsb_test::LogCapture& log, const std::string& prefix) {
    const auto texts = log.texts();
    return std::count_if(texts.begin(), texts.end(),
                         [&](const std::string& t) { return t.rfind(prefix, 0) == 0; });
}

// Stands in for the host: hands out the event subscription, answers fetches synchronously,
// later (from whichever thread calls drain) or by throwing, and counts trigger requests.
// Thread-safe.
class ScriptedHost {
public:
    enum class Answer { Synchronously, Later, Throw };

    std::unique_ptr<WSDataModel> makeModel() {
        return std::make_unique<WSDataModel>(
            [this](WSListenersSubscriptionCallback listener) {
                mListener = std::move(listener);
                return Connection(std::make_unique<Handle>(disconnected));
            },
            [this](const Names& names, Names fields, bool stats, double limit,
                   WorkspaceDisplayResultCallback onResult) {
                std::string request;
                for (const auto& part : names)
                    request += part + " ";
                for (const auto& part : fields)
                    request += "/" + part;
                std::unique_lock lock(mMutex);
                mRequests.push_back(
                    request +
                    (stats ? " stats<" + std::to_string(static_cast<long long>(limit)) : ""));
                if (answer == Answer::Later) {
                    mPending.push_back([this, names, onResult] { onResult(recordsFor(names)); });
                    return;
                }
                lock.unlock();
                if (answer == Answer::Throw)
                    throw std::runtime_error("interpreter busy");
                onResult(recordsFor(names));
            },
            [this] { ++triggers; });
    }

    // The records the host answers with; by default clean ones with made-up texts.
    std::function<std::vector<WSVariable>(const Names&)> recordsFor = [](const Names& names) {
        std::vector<WSVariable> records;
        for (const auto& name : names)
            records.push_back({.name = name, .value = "v:" + name});
        return records;
    };
    std::atomic<Answer> answer{Answer::Synchronously};
    std::shared_ptr<std::atomic<bool>> disconnected = std::make_shared<std::atomic<bool>>(false);
    std::atomic<int> triggers{0};

    void fire(Batch batch) { mListener(std::move(batch)); }
    // Each fetch as "<names> /<fields>[ stats<limit]".
    Names requests() const {
        std::lock_guard lock(mMutex);
        return mRequests;
    }
    // Answers every request left for later, on the calling thread.
    void drain() {
        for (;;) {
            std::function<void()> answerNow;
            {
                std::lock_guard lock(mMutex);
                if (mPending.empty())
                    return;
                answerNow = std::move(mPending.front());
                mPending.pop_front();
            }
            answerNow();
        }
    }

private:
    struct Handle : ConnectionInterface {
        explicit Handle(std::shared_ptr<std::atomic<bool>> flag) : flag(std::move(flag)) {}
        std::unique_ptr<ConnectionInterface> clone() const override {
            return std::make_unique<Handle>(flag);
        }
        void disconnect() override { *flag = true; }
        std::shared_ptr<std::atomic<bool>> flag;
    };

    mutable std::mutex mMutex;
    WSListenersSubscriptionCallback mListener; // set once, before any event
    Names mRequests;
    std::deque<std::function<void()>> mPending;
};

using Deliveries = std::vector<std::vector<WSVariable>>;
WSVariablesCallback into(Deliveries& calls) {
    return [&calls](std::vector<WSVariable> records) { calls.push_back(std::move(records)); };
}

} // namespace

TEST(WSDataModel, EventsUpdateTheCachePerKindAndAreForwardedWhole) {
    ScriptedHost host;
    wsb_test::LogCapture log(kLogger);
    auto model = host.makeModel();
    EXPECT_TRUE(log.contains("Registered callback with WSListeners"));
    std::vector<Batch> forwarded;
    // Subscribers run outside the cache's lock, so they may call back into the model.
    Connection subscription = model->subscribe([&](Batch batch) {
        forwarded.push_back(batch);
        EXPECT_EQ(model->getSize(), model->getVariableNames().size());
    });

    const Batch batch = {event(EventType::VARIABLE_CHANGED, {"b", "a", "c"}),
                         event(EventType::VARIABLE_ADDED, {"z"}),
                         event(EventType::VARIABLE_DELETED, {"c", "ghost"}),
                         event(static_cast<EventType>(7), {"y"})};
    host.fire(batch);
    EXPECT_EQ(model->getVariableNames(), (Names{"a", "b"}));
    EXPECT_EQ(model->getSize(), 2U);
    ASSERT_EQ(model->getVariableMap().size(), 2U);
    EXPECT_TRUE(model->getVariableMap().at("a").isDirty);
    EXPECT_EQ(countStarting(log, "Event not handled"), 2);
    EXPECT_EQ(forwarded, std::vector<Batch>{batch}) << "unhandled kinds are forwarded too";
    EXPECT_TRUE(log.contains("callbacks.size()=1"));

    // A change keeps the cached texts and only marks them out of date.
    model->getVariables({"a"}, {"Value"}, false, 0, nullptr, false);
    ASSERT_FALSE(model->getVariableMap().at("a").isDirty);
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    EXPECT_TRUE(model->getVariableMap().at("a").isDirty);
    EXPECT_EQ(model->getVariableMap().at("a").value, "v:a");

    host.fire({event(EventType::WORKSPACE_CLEARED)});
    EXPECT_EQ(model->getSize(), 0U);
    EXPECT_TRUE(model->getVariableMap().empty());
    EXPECT_TRUE(log.contains("WSDataModel Handling WORKSPACE_CLEARED"));

    EXPECT_FALSE(*host.disconnected);
    model.reset();
    EXPECT_TRUE(*host.disconnected) << "destruction unsubscribes";
    EXPECT_THROW(WSDataModel(nullptr, nullptr, nullptr), std::bad_function_call);
}

TEST(WSDataModel, GetVariablesServesTheCacheFirstAndFetchesOnlyWhatIsOutOfDate) {
    ScriptedHost host;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "b", "c"})});

    wsb_test::LogCapture ordinary(kLogger, 4), detail(kLogger, 5);
    Deliveries first, second, forced;
    model->getVariables({"b", "ghost", "a"}, {"Value", "Class"}, true, 1e6, into(first), false);
    ASSERT_EQ(first.size(), 2U);
    EXPECT_EQ(first[0], (std::vector<WSVariable>{{.name = "b", .isDirty = true},
                                                 {.name = "a", .isDirty = true}}))
        << "the first delivery holds only what was cached";
    EXPECT_EQ(first[1][0].value, "v:b");
    const std::string unknown =
        "We were asked for a variable that we don't have in our map. variableName=ghost";
    EXPECT_FALSE(ordinary.contains(unknown)) << "logged at its own level";
    EXPECT_TRUE(detail.contains(unknown));
    EXPECT_TRUE(ordinary.contains("getVariables, dirtyVariables size = 2, allDirty = true"));

    // Clean records and the same fields in another order: served from the cache alone.
    model->getVariables({"a", "b"}, {"Class", "Value"}, true, 1e6, into(second), false);
    ASSERT_EQ(second.size(), 1U);
    EXPECT_EQ(second[0][1].value, "v:b");

    // Only the changed one is fetched again, but another field list refetches all requested;
    // forcing adds unknown names and refetches clean ones.
    host.fire({event(EventType::VARIABLE_CHANGED, {"b"})});
    model->getVariables({"a", "b"}, {"Class", "Value"}, true, 1e6, nullptr, false);
    model->getVariables({"a", "b"}, {"Value"}, true, 1e6, nullptr, false);
    model->getVariables({"new", "a"}, {"Value"}, false, 0, into(forced), true);
    EXPECT_EQ(host.requests(),
              (Names{"b a /Class/Value stats<1000000", // unknown not fetched
                     "b /Class/Value stats<1000000", "a b /Value stats<1000000", "new a /Value"}));
    ASSERT_EQ(forced.size(), 2U);
    EXPECT_EQ(forced[1][0].value, "v:new");
    EXPECT_EQ(model->getVariableNames(), (Names{"a", "b", "c", "new"}));
    EXPECT_TRUE(ordinary.contains("Adding unmapped variable new"));
}

TEST(WSDataModel, HostMayAnswerLaterFromAnotherThread) {
    ScriptedHost host;
    host.answer = ScriptedHost::Answer::Later;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "b"})});

    Deliveries delivered;
    model->getVariables({"a", "b"}, {"Value"}, false, 0, into(delivered), false);
    ASSERT_EQ(delivered.size(), 1U) << "the cached records come at once";
    std::thread([&] { host.drain(); }).join();
    ASSERT_EQ(delivered.size(), 2U);
    EXPECT_EQ(delivered[1][1], (WSVariable{.name = "b", .value = "v:b"}));
    EXPECT_FALSE(model->getVariableMap().at("a").isDirty);
}

TEST(WSDataModel, HostRecordsAreStoredAsSentAndTwoMissingOnesTriggerAnEvent) {
    ScriptedHost host;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    // The host marks what it could not supply as dirty, and may send names never asked for.
    host.recordsFor = [](const Names& names) {
        std::vector<WSVariable> records;
        for (const auto& name : names) {
            records.push_back({.name = name, .size = "1x1", .className = "double", .value = "1"});
            records.back().isSummary = true;
            records.back().isDirty = name.rfind("gone", 0) == 0;
        }
        return records;
    };

    wsb_test::LogCapture log(kLogger);
    const std::string longName(60, 'n');
    int doneCalls = 0;
    model->updateWSVariables({"a", "gone1", longName}, {"Value"}, false, 0, [&] { ++doneCalls; });
    EXPECT_EQ(doneCalls, 1);
    EXPECT_EQ(host.triggers.load(), 0) << "one missing variable is tolerated";
    EXPECT_TRUE(log.contains("Workspace Display Name=gone1 Value=1 Class=double Size=1x1 "
                             "IsSummary=1 IsDirty=1"));
    EXPECT_TRUE(log.contains("Workspace Display Name=" + std::string(50, 'n') +
                             "... Value=1 Class=double Size=1x1 IsSummary=1 IsDirty=0"));
    EXPECT_TRUE(log.contains("================ MISSING COUNT: 1 ==============="));
    const auto map = model->getVariableMap();
    EXPECT_TRUE(map.at("a").isSummary);
    EXPECT_TRUE(map.at("gone1").isDirty);
    EXPECT_EQ(map.count(longName), 1U);
    EXPECT_EQ(model->getSize(), 1U) << "names never requested enter the map only";

    bool triggeredBeforeDone = true;
    model->updateWSVariables({"gone1", "gone2"}, {"Value"}, false, 0,
                             [&] { triggeredBeforeDone = host.triggers.load() != 0; });
    EXPECT_FALSE(triggeredBeforeDone);
    EXPECT_EQ(host.triggers.load(), 1);
    EXPECT_TRUE(
        log.contains("================ calling mTriggerWorkspaceEvent done ==============="));
}

TEST(WSDataModel, FailuresOfTheHostAndOfSubscribersReachTheCaller) {
    ScriptedHost host;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});

    host.answer = ScriptedHost::Answer::Throw;
    Deliveries delivered;
    EXPECT_THROW(model->getVariables({"a"}, {"Value"}, false, 0, into(delivered), false),
                 std::runtime_error);
    EXPECT_EQ(delivered.size(), 1U) << "the cached records came before the fetch";
    // Nothing was lost: the record is still out of date and fetched on the next request.
    host.answer = ScriptedHost::Answer::Synchronously;
    model->getVariables({"a"}, {"Value"}, false, 0, into(delivered), false);
    EXPECT_EQ(delivered.size(), 3U);
    EXPECT_EQ(model->getVariableMap().at("a").value, "v:a");

    Connection subscription =
        model->subscribe([](Batch) { throw std::runtime_error("subscriber"); });
    EXPECT_THROW(host.fire({event(EventType::VARIABLE_DELETED, {"a"})}), std::runtime_error);
    EXPECT_EQ(model->getSize(), 0U) << "the cache was updated before the subscribers ran";

    // An empty host function raises the standard exception where it is called.
    WSDataModel noFetch([](WSListenersSubscriptionCallback) { return Connection(); }, nullptr,
                        nullptr);
    noFetch.handleWSEvent({event(EventType::VARIABLE_CHANGED, {"x"})});
    EXPECT_THROW(noFetch.getVariables({"x"}, {}, false, 0, nullptr, false), std::bad_function_call);
}

TEST(WSDataModel, ConcurrentEventsAndFetchesKeepTheCacheConsistent) {
    ScriptedHost host;
    host.answer = ScriptedHost::Answer::Later;
    auto model = host.makeModel();
    std::atomic<int> forwarded{0};
    Connection subscription = model->subscribe([&](Batch) { ++forwarded; });

    constexpr int kNames = 200;
    constexpr int kRounds = 150;
    auto nameOf = [](int i) { return "v" + std::to_string(i); };
    std::atomic<int> strayRecords{0};
    std::atomic<bool> stop{false};
    std::thread answering([&] {
        while (!stop) {
            host.drain();
            std::this_thread::yield();
        }
        host.drain();
    });
    std::thread events([&] {
        for (int round = 0; round < kRounds; ++round) {
            Names changed;
            for (int i = round % 7; i < kNames; i += 7)
                changed.push_back(nameOf(i));
            Batch batch{event(EventType::VARIABLE_CHANGED, changed)};
            if (round % 5 == 4)
                batch.push_back(event(EventType::VARIABLE_DELETED, {nameOf(round % kNames)}));
            if (round % 50 == 49)
                batch.push_back(event(EventType::WORKSPACE_CLEARED));
            host.fire(std::move(batch));
        }
    });
    std::vector<std::thread> viewModels;
    for (int v = 0; v < 3; ++v) {
        viewModels.emplace_back([&, v] {
            for (int round = 0; round < kRounds; ++round) {
                Names wanted;
                for (int i = (round + v) % 11; i < kNames; i += 11)
                    wanted.push_back(nameOf(i));
                const std::set<std::string> allowed(wanted.begin(), wanted.end());
                model->getVariables(
                    wanted, round % 4 == v ? Names{"Value"} : Names{"Value", "Mean"}, false, 0,
                    [&, allowed](std::vector<WSVariable> records) {
                        for (const auto& record : records)
                            strayRecords += allowed.count(record.name) == 0 ? 1 : 0;
                    },
                    round % 9 == 0);
            }
        });
    }
    events.join();
    for (auto& thread : viewModels)
        thread.join();
    stop = true;
    answering.join();

    EXPECT_EQ(forwarded.load(), kRounds);
    EXPECT_EQ(strayRecords.load(), 0);
    const auto map = model->getVariableMap();
    for (const auto& name : model->getVariableNames())
        EXPECT_EQ(map.count(name), 1U) << "every known name has a record: " << name;
}

TEST(WSDataModel, GetVariableValueSelectsFieldsByExactKey) {
    // The record declares std before var, and the column keys do not all match member names.
    const WSVariable variable{
        .name = "N", .className = "C", .range = "R", .std = "S", .var = "V", .bytes = "B"};
    const std::pair<const char*, const char*> expected[] = {
        {"Name", "N"},  {"Class", "C"}, {"Range", "R"},    {"Std", "S"},    {"Var", "V"},
        {"Bytes", "B"}, {"name", ""},   {"IconClass", ""}, {"IsDirty", ""}, {"", ""}};
    wsb_test::LogCapture log(kLogger);
    for (const auto& [key, text] : expected)
        EXPECT_EQ(WSDataModel::getVariableValue(variable, key), text) << key;
    EXPECT_TRUE(log.contains("WARNING getVariableValue field not found in variable: name"));
}
