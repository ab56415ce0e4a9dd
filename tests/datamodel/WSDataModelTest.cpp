#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace workspace_browser_startup;

namespace {

using Names = std::vector<std::string>;

EventInfo event(EventType type, Names names = {}) {
    return EventInfo{type, std::move(names)};
}

Names namesOf(const std::vector<WSVariable>& records) {
    Names names;
    for (const auto& record : records)
        names.push_back(record.name);
    return names;
}

// Stands in for the host: hands out event subscriptions, answers fetches with records it
// makes up (synchronously, later from a thread of its own, or by throwing) and counts
// requests for a fresh workspace event. Thread-safe.
class ScriptedHost {
public:
    enum class Answer { Synchronously, Later, Throw };

    struct Request {
        Names names;
        Names fields;
        bool computeStats;
        double statsLimit;
    };

    ~ScriptedHost() { stopWorker(); }

    std::unique_ptr<WSDataModel> makeModel() {
        return std::make_unique<WSDataModel>(
            [this](WSListenersSubscriptionCallback listener) { return subscribe(listener); },
            [this](const Names& names, Names fields, bool computeStats, double statsLimit,
                   WorkspaceDisplayResultCallback onResult) {
                fetch(names, std::move(fields), computeStats, statsLimit, std::move(onResult));
            },
            [this] { ++triggers; });
    }

    // How the host makes the record of a requested name; by default a clean, filled record.
    std::function<std::vector<WSVariable>(const Names&)> recordsFor = [](const Names& names) {
        std::vector<WSVariable> records;
        for (const auto& name : names) {
            WSVariable record;
            record.name = name;
            record.value = "v:" + name;
            record.mean = "m:" + name;
            records.push_back(record);
        }
        return records;
    };
    std::atomic<Answer> answer{Answer::Synchronously};
    std::function<void()> duringFetch; // runs inside the fetch call, before answering
    std::atomic<int> triggers{0};

    void fire(WSListenersSubscriptionCallbackArg batch) {
        WSListenersSubscriptionCallback listener;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            listener = mListener;
        }
        listener(std::move(batch));
    }

    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRequests;
    }
    bool disconnected() const { return *mDisconnected; }

    // Answers everything asked for later, on a thread of the host's own.
    void answerPendingFromAnotherThread() {
        std::thread([this] { drain(); }).join();
    }

    // Answers later requests on a worker thread as they come in, until stopWorker().
    void startWorker() {
        mWorker = std::thread([this] {
            std::unique_lock<std::mutex> lock(mMutex);
            while (true) {
                mWake.wait(lock, [this] { return mStopping || !mPending.empty(); });
                if (mPending.empty())
                    return;
                auto job = std::move(mPending.front());
                mPending.pop_front();
                lock.unlock();
                job();
                lock.lock();
            }
        });
    }
    void stopWorker() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopping = true;
        }
        mWake.notify_all();
        if (mWorker.joinable())
            mWorker.join();
    }

private:
    class HostHandle : public ConnectionInterface {
    public:
        explicit HostHandle(std::shared_ptr<std::atomic<bool>> flag) : mFlag(std::move(flag)) {}
        std::unique_ptr<ConnectionInterface> clone() const override {
            return std::make_unique<HostHandle>(mFlag);
        }
        void disconnect() override { *mFlag = true; }

    private:
        std::shared_ptr<std::atomic<bool>> mFlag;
    };

    Connection subscribe(WSListenersSubscriptionCallback listener) {
        std::lock_guard<std::mutex> lock(mMutex);
        mListener = std::move(listener);
        return Connection(std::make_unique<HostHandle>(mDisconnected));
    }

    void fetch(const Names& names, Names fields, bool computeStats, double statsLimit,
               WorkspaceDisplayResultCallback onResult) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mRequests.push_back({names, fields, computeStats, statsLimit});
        }
        if (duringFetch)
            duringFetch();
        switch (answer.load()) {
        case Answer::Throw:
            throw std::runtime_error("interpreter busy");
        case Answer::Synchronously:
            onResult(recordsFor(names));
            return;
        case Answer::Later: {
            std::lock_guard<std::mutex> lock(mMutex);
            mPending.push_back([this, names, onResult] { onResult(recordsFor(names)); });
        }
            mWake.notify_all();
            return;
        }
    }

    void drain() {
        while (true) {
            std::function<void()> job;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (mPending.empty())
                    return;
                job = std::move(mPending.front());
                mPending.pop_front();
            }
            job();
        }
    }

    mutable std::mutex mMutex;
    std::condition_variable mWake;
    bool mStopping = false;
    std::thread mWorker;
    WSListenersSubscriptionCallback mListener;
    std::shared_ptr<std::atomic<bool>> mDisconnected = std::make_shared<std::atomic<bool>>(false);
    std::vector<Request> mRequests;
    std::deque<std::function<void()>> mPending;
};

// Captures the data model's records up to `maxLevel`, as "<level> <logger>: <text>" lines.
class LogCapture {
public:
    explicit LogCapture(int maxLevel)
        : mSink(
              foundation::log::addConsoleSink(maxLevel, "zentra::datatools::WSDataModel", &mOut)) {}
    std::string text() const { return mOut.str(); }
    bool has(const std::string& line) const {
        return ("\n" + text()).find("\n" + line + "\n") != std::string::npos;
    }
    int countStarting(const std::string& prefix) const {
        int count = 0;
        std::istringstream lines(text());
        for (std::string line; std::getline(lines, line);)
            count += line.rfind(prefix, 0) == 0 ? 1 : 0;
        return count;
    }

private:
    std::ostringstream mOut;
    std::shared_ptr<void> mSink;
};

constexpr const char* kLine = "4 zentra::datatools::WSDataModel: ";

// Records every call of a getVariables callback.
struct Deliveries {
    std::vector<std::vector<WSVariable>> calls;
    WSVariablesCallback callback() {
        return [this](std::vector<WSVariable> records) { calls.push_back(std::move(records)); };
    }
};

} // namespace

TEST(WSDataModel, SubscribesOnConstructionAndUnsubscribesOnDestruction) {
    ScriptedHost host;
    LogCapture log(4);
    auto model = host.makeModel();
    EXPECT_TRUE(log.has(std::string(kLine) + "Registered callback with WSListeners"));
    EXPECT_FALSE(host.disconnected());
    model.reset();
    EXPECT_TRUE(host.disconnected());

    EXPECT_THROW(WSDataModel(nullptr, nullptr, nullptr), std::bad_function_call);
}

TEST(WSDataModel, EventsUpdateTheCachePerKindAndAreForwardedWhole) {
    ScriptedHost host;
    auto model = host.makeModel();
    std::vector<WSListenersSubscriptionCallbackArg> forwarded;
    Connection subscription = model->subscribe(
        [&](WSListenersSubscriptionCallbackArg batch) { forwarded.push_back(batch); });

    LogCapture log(4);
    const WSListenersSubscriptionCallbackArg batch = {
        event(EventType::VARIABLE_CHANGED, {"b", "a", "c"}),
        event(EventType::VARIABLE_ADDED, {"z"}),
        event(EventType::VARIABLE_DELETED, {"c", "ghost"}),
        event(static_cast<EventType>(7), {"y"}),
    };
    host.fire(batch);
    EXPECT_EQ(model->getVariableNames(), (Names{"a", "b"}));
    EXPECT_EQ(model->getSize(), 2U);
    const auto map = model->getVariableMap();
    ASSERT_EQ(map.size(), 2U);
    EXPECT_TRUE(map.at("a").isDirty);
    EXPECT_EQ(map.at("a").name, "a");
    EXPECT_EQ(log.countStarting(std::string(kLine) + "Event not handled"), 2);
    ASSERT_EQ(forwarded.size(), 1U);
    EXPECT_EQ(forwarded[0], batch) << "unhandled kinds are forwarded too";

    // A change keeps the cached texts and only marks them out of date.
    Deliveries delivered;
    model->getVariables({"a"}, {"Value"}, false, 0, delivered.callback(), false);
    ASSERT_FALSE(model->getVariableMap().at("a").isDirty);
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    EXPECT_TRUE(model->getVariableMap().at("a").isDirty);
    EXPECT_EQ(model->getVariableMap().at("a").value, "v:a");

    host.fire({event(EventType::WORKSPACE_CLEARED)});
    EXPECT_EQ(model->getSize(), 0U);
    EXPECT_TRUE(model->getVariableMap().empty());
    EXPECT_TRUE(log.has(std::string(kLine) + "WSDataModel Handling WORKSPACE_CLEARED"));
    EXPECT_TRUE(log.has(std::string(kLine) + "callbacks.size()=1"));
}

TEST(WSDataModel, ChangedEventLogsAtMostTwentyFiveNames) {
    ScriptedHost host;
    auto model = host.makeModel();
    Names thirty;
    for (int i = 0; i < 30; ++i)
        thirty.push_back("v" + std::to_string(i));

    LogCapture log(4);
    host.fire({event(EventType::VARIABLE_CHANGED, thirty)});
    EXPECT_EQ(model->getSize(), 30U) << "every name is processed, not only the logged ones";
    EXPECT_EQ(log.countStarting(std::string(kLine) + "PROCESSING (NEW)"), 25);
    EXPECT_TRUE(log.has(std::string(kLine) + "PROCESSING (NEW)v24"));
    EXPECT_TRUE(log.has(std::string(kLine) + "PROCESSING: and 5 more"));
    EXPECT_TRUE(log.has(std::string(kLine) + "Received callback. events.size()=1"));

    LogCapture exact(4);
    host.fire({event(EventType::VARIABLE_CHANGED, Names(thirty.begin(), thirty.begin() + 25))});
    EXPECT_EQ(exact.countStarting(std::string(kLine) + "PROCESSING "), 25);
    EXPECT_EQ(exact.countStarting(std::string(kLine) + "PROCESSING (NEW)"), 0);
    EXPECT_EQ(exact.countStarting(std::string(kLine) + "PROCESSING:"), 0);
}

TEST(WSDataModel, GetVariablesServesTheCacheFirstAndFetchesOnlyWhatIsOutOfDate) {
    ScriptedHost host;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "b", "c"})});

    LogCapture ordinary(4);
    LogCapture detail(5);
    Deliveries first;
    model->getVariables({"b", "ghost", "a"}, {"Value", "Class"}, true, 1e6, first.callback(),
                        false);
    ASSERT_EQ(first.calls.size(), 2U);
    EXPECT_EQ(namesOf(first.calls[0]), (Names{"b", "a"}));
    EXPECT_EQ(first.calls[0][0].value, "") << "the first delivery holds only what was cached";
    EXPECT_EQ(first.calls[1][0].value, "v:b");
    ASSERT_EQ(host.requests().size(), 1U);
    const auto request = host.requests()[0];
    EXPECT_EQ(request.names, (Names{"b", "a"})) << "unknown names are not fetched";
    EXPECT_EQ(request.fields, (Names{"Class", "Value"}));
    EXPECT_TRUE(request.computeStats);
    EXPECT_EQ(request.statsLimit, 1e6);
    const std::string unknown =
        "We were asked for a variable that we don't have in our map. variableName=ghost";
    EXPECT_EQ(ordinary.text().find(unknown), std::string::npos) << "logged at its own level";
    EXPECT_TRUE(detail.has("5 zentra::datatools::WSDataModel: " + unknown));
    EXPECT_TRUE(ordinary.has(std::string(kLine) + "getVariables, dirtyVariables size = 2, "
                                                  "allDirty = true"));

    // Clean records and the same fields in another order: served from the cache alone.
    Deliveries second;
    model->getVariables({"a", "b"}, {"Class", "Value"}, true, 1e6, second.callback(), false);
    EXPECT_EQ(second.calls.size(), 1U);
    EXPECT_EQ(second.calls[0][1].value, "v:b");
    EXPECT_EQ(host.requests().size(), 1U);

    // Only the changed one is fetched again...
    host.fire({event(EventType::VARIABLE_CHANGED, {"b"})});
    model->getVariables({"a", "b"}, {"Class", "Value"}, true, 1e6, nullptr, false);
    ASSERT_EQ(host.requests().size(), 2U);
    EXPECT_EQ(host.requests()[1].names, (Names{"b"}));
    // ...but another field list refetches every requested one.
    model->getVariables({"a", "b"}, {"Value"}, true, 1e6, nullptr, false);
    ASSERT_EQ(host.requests().size(), 3U);
    EXPECT_EQ(host.requests()[2].names, (Names{"a", "b"}));

    // Forcing adds unknown names and refetches clean ones.
    Deliveries forced;
    model->getVariables({"new", "a"}, {"Value"}, false, 0, forced.callback(), true);
    ASSERT_EQ(host.requests().size(), 4U);
    EXPECT_EQ(host.requests()[3].names, (Names{"new", "a"}));
    ASSERT_EQ(forced.calls.size(), 2U);
    EXPECT_EQ(namesOf(forced.calls[0]), (Names{"new", "a"}));
    EXPECT_EQ(forced.calls[1][0].value, "v:new");
    EXPECT_EQ(model->getVariableNames(), (Names{"a", "b", "c", "new"}));
    EXPECT_TRUE(ordinary.has(std::string(kLine) + "Adding unmapped variable new"));
}

TEST(WSDataModel, HostMayAnswerLaterFromAnotherThread) {
    ScriptedHost host;
    host.answer = ScriptedHost::Answer::Later;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "b"})});

    std::mutex mutex;
    std::vector<std::vector<WSVariable>> calls;
    model->getVariables(
        {"a", "b"}, {"Value"}, false, 0,
        [&](std::vector<WSVariable> records) {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back(std::move(records));
        },
        false);
    ASSERT_EQ(calls.size(), 1U) << "the cached records come at once";
    EXPECT_TRUE(calls[0][0].isDirty);

    host.answerPendingFromAnotherThread();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[1][1].value, "v:b");
    EXPECT_FALSE(calls[1][1].isDirty);
    EXPECT_FALSE(model->getVariableMap().at("a").isDirty);
}

TEST(WSDataModel, HostRecordsAreStoredAsSentAndTwoMissingOnesTriggerAnEvent) {
    ScriptedHost host;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    const std::string longName(60, 'n');
    // The host marks what it could not supply as dirty, and may send names never asked for.
    host.recordsFor = [&](const Names& names) {
        std::vector<WSVariable> records;
        for (const auto& name : names) {
            WSVariable record;
            record.name = name;
            record.value = "1";
            record.className = "double";
            record.size = "1x1";
            record.isSummary = true;
            record.isDirty = name.rfind("gone", 0) == 0;
            records.push_back(record);
        }
        return records;
    };

    LogCapture log(4);
    std::vector<std::string> order;
    model->updateWSVariables({"a", "gone1", longName}, {"Value"}, false, 0,
                             [&] { order.push_back("done"); });
    EXPECT_EQ(order, (Names{"done"}));
    EXPECT_EQ(host.triggers.load(), 0) << "one missing variable is tolerated";
    EXPECT_TRUE(log.has(std::string(kLine) + "Workspace Display Name=gone1 Value=1 Class=double "
                                             "Size=1x1 IsSummary=1 IsDirty=1"));
    EXPECT_TRUE(log.has(std::string(kLine) + "Workspace Display Name=" + std::string(50, 'n') +
                        "... Value=1 Class=double Size=1x1 IsSummary=1 IsDirty=0"));
    EXPECT_TRUE(log.has(std::string(kLine) + "================ MISSING COUNT: 1 ==============="));

    const auto map = model->getVariableMap();
    EXPECT_TRUE(map.at("a").isSummary);
    EXPECT_TRUE(map.at("gone1").isDirty);
    EXPECT_EQ(map.count(longName), 1U);
    EXPECT_EQ(model->getSize(), 1U) << "names never requested enter the map only";

    host.triggers = 0;
    model->updateWSVariables({"gone1", "gone2"}, {"Value"}, false, 0, [&] {
        order.push_back(host.triggers.load() == 0 ? "done before trigger" : "done after");
    });
    EXPECT_EQ(order.back(), "done before trigger");
    EXPECT_EQ(host.triggers.load(), 1);
    EXPECT_TRUE(log.has(std::string(kLine) +
                        "================ calling mTriggerWorkspaceEvent done ==============="));
}

TEST(WSDataModel, FailuresOfTheHostAndOfSubscribersReachTheCaller) {
    ScriptedHost host;
    auto model = host.makeModel();
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});

    host.answer = ScriptedHost::Answer::Throw;
    Deliveries delivered;
    EXPECT_THROW(model->getVariables({"a"}, {"Value"}, false, 0, delivered.callback(), false),
                 std::runtime_error);
    EXPECT_EQ(delivered.calls.size(), 1U) << "the cached records were delivered before the fetch";

    // Nothing was lost: the record is still out of date and fetched on the next request.
    host.answer = ScriptedHost::Answer::Synchronously;
    model->getVariables({"a"}, {"Value"}, false, 0, delivered.callback(), false);
    EXPECT_EQ(delivered.calls.size(), 3U);
    EXPECT_EQ(model->getVariableMap().at("a").value, "v:a");

    Connection subscription = model->subscribe(
        [](WSListenersSubscriptionCallbackArg) { throw std::runtime_error("subscriber"); });
    EXPECT_THROW(host.fire({event(EventType::VARIABLE_DELETED, {"a"})}), std::runtime_error);
    EXPECT_EQ(model->getSize(), 0U) << "the cache was updated before the subscribers ran";

    // Empty host functions raise the standard exception where they are called.
    WSDataModel noHost([](WSListenersSubscriptionCallback) { return Connection(); }, nullptr,
                       nullptr);
    noHost.handleWSEvent({event(EventType::VARIABLE_CHANGED, {"x"})});
    EXPECT_THROW(noHost.getVariables({"x"}, {}, false, 0, nullptr, false), std::bad_function_call);

    WSDataModel noTrigger(
        [](WSListenersSubscriptionCallback) { return Connection(); },
        [](const Names& names, Names, bool, double, WorkspaceDisplayResultCallback onResult) {
            std::vector<WSVariable> missing(names.size());
            for (std::size_t i = 0; i < names.size(); ++i)
                missing[i] = WSVariable{.name = names[i], .isDirty = true};
            onResult(missing);
        },
        nullptr);
    EXPECT_THROW(noTrigger.updateWSVariables({"x", "y"}, {}, false, 0, [] {}),
                 std::bad_function_call);
    EXPECT_THROW(noTrigger.updateWSVariables({"x"}, {}, false, 0, nullptr), std::bad_function_call);
}

TEST(WSDataModel, CallbacksMayCallBackIntoTheModel) {
    // Subscribers, the host's fetch and result callbacks all run outside the cache's lock.
    ScriptedHost host;
    auto model = host.makeModel();
    std::size_t sizeSeenBySubscriber = 0;
    Connection subscription = model->subscribe([&](WSListenersSubscriptionCallbackArg) {
        sizeSeenBySubscriber = model->getSize();
        model->getVariables(model->getVariableNames(), {"Value"}, false, 0, nullptr, false);
    });
    std::size_t sizeSeenByHost = 0;
    host.duringFetch = [&] { sizeSeenByHost = model->getSize(); };

    host.fire({event(EventType::VARIABLE_CHANGED, {"a", "b"})});
    EXPECT_EQ(sizeSeenBySubscriber, 2U);
    EXPECT_EQ(sizeSeenByHost, 2U);

    Names seenInResult;
    host.fire({event(EventType::VARIABLE_CHANGED, {"a"})});
    model->getVariables(
        {"a"}, {"Value", "Mean"}, false, 0,
        [&](std::vector<WSVariable>) { seenInResult = model->getVariableNames(); }, false);
    EXPECT_EQ(seenInResult, (Names{"a", "b"}));
}

TEST(WSDataModel, ConcurrentEventsAndFetchesKeepTheCacheConsistent) {
    ScriptedHost host;
    host.answer = ScriptedHost::Answer::Later;
    host.startWorker();
    auto model = host.makeModel();
    std::atomic<long> forwarded{0};
    Connection subscription =
        model->subscribe([&](WSListenersSubscriptionCallbackArg) { ++forwarded; });

    constexpr int kNames = 200;
    constexpr int kRounds = 150;
    auto nameOf = [](int i) { return "v" + std::to_string(i); };
    std::atomic<int> strayRecords{0};
    std::atomic<long> deliveries{0};

    std::thread eventThread([&] {
        for (int round = 0; round < kRounds; ++round) {
            Names changed;
            for (int i = round % 7; i < kNames; i += 7)
                changed.push_back(nameOf(i));
            WSListenersSubscriptionCallbackArg batch{event(EventType::VARIABLE_CHANGED, changed)};
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
                Names fields = round % 4 == v ? Names{"Value"} : Names{"Value", "Mean"};
                model->getVariables(
                    wanted, fields, false, 0,
                    [&, allowed](std::vector<WSVariable> records) {
                        ++deliveries;
                        for (const auto& record : records)
                            strayRecords += allowed.count(record.name) == 0 ? 1 : 0;
                    },
                    round % 9 == 0);
                if (round % 10 == 0)
                    (void)model->getVariableNames();
            }
        });
    }
    eventThread.join();
    for (auto& thread : viewModels)
        thread.join();
    host.stopWorker();

    EXPECT_EQ(forwarded.load(), kRounds);
    EXPECT_EQ(strayRecords.load(), 0);
    EXPECT_GE(deliveries.load(), 3 * kRounds);
    const auto map = model->getVariableMap();
    for (const auto& name : model->getVariableNames())
        EXPECT_EQ(map.count(name), 1U) << "every known name has a record: " << name;
}

TEST(WSDataModel, GetVariableValueSelectsFieldsByExactKey) {
    const WSVariable variable{.name = "N",
                              .size = "S",
                              .className = "C",
                              .value = "V",
                              .isSummary = true,
                              .isDirty = true,
                              .iconClass = "I",
                              .min = "min",
                              .max = "max",
                              .range = "range",
                              .mean = "mean",
                              .median = "median",
                              .mode = "mode",
                              .std = "std",
                              .var = "var",
                              .bytes = "bytes"};
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"Name", "N"},  {"Size", "S"},  {"Class", "C"},    {"Value", "V"},       {"Range", "range"},
        {"Min", "min"}, {"Max", "max"}, {"Mean", "mean"},  {"Median", "median"}, {"Mode", "mode"},
        {"Var", "var"}, {"Std", "std"}, {"Bytes", "bytes"}};
    for (const auto& [key, text] : expected)
        EXPECT_EQ(WSDataModel::getVariableValue(variable, key), text) << key;

    LogCapture log(4);
    for (const char* key : {"name", "IconClass", "IsDirty", ""})
        EXPECT_EQ(WSDataModel::getVariableValue(variable, key), "") << key;
    EXPECT_TRUE(
        log.has(std::string(kLine) + "WARNING getVariableValue field not found in variable: name"));
}
