#pragma once

// A scripted host process and a scripted client grid, for driving a real view model from the
// outside: the host owns the workspace (records it hands to the data model, answering fetches
// synchronously, from its own thread or when told), raises workspace events and records the
// callbacks the view model makes; the client talks JSON on the channels of an in-process
// message service and records what comes back.

#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/ConnectionInterface.hpp>
#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace wsb_test {

using Names = std::vector<std::string>;
using workspace_browser_startup::EventInfo;
using workspace_browser_startup::EventType;
using workspace_browser_startup::WSVariable;

// Waits are bounded only so that a broken build fails instead of hanging; nothing is timed.
inline constexpr std::chrono::seconds kWaitLimit{60};

inline workspace_browser_startup::WSListenersSubscriptionCallbackArg batch(EventType type,
                                                                           Names names = {}) {
    return {EventInfo{type, std::move(names)}};
}

// Names "<prefix>000000", "<prefix>000001", ...: fixed width, so they sort by number.
inline Names numberedNames(std::size_t count, const std::string& prefix = "v") {
    Names names;
    names.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        std::string digits = std::to_string(i);
        names.push_back(prefix + std::string(6 - std::min<std::size_t>(6, digits.size()), '0') +
                        digits);
    }
    return names;
}

// The host around the library. Thread-safe.
class ScriptedHost {
public:
    enum class Answer {
        Synchronously,  // inside the fetch call
        FromHostThread, // posted to the host's own thread
        Later,          // held until answerHeld()
    };
    struct Request {
        Names names;
        Names fields;
        bool computeStats = false;
        double statsLimit = 0;
    };
    struct Selection {
        Names names;
        std::string rows;
    };

    ScriptedHost() : mThread([this] { run(); }) {}
    ~ScriptedHost() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopping = true;
        }
        mChanged.notify_all();
        mThread.join();
    }
    ScriptedHost(const ScriptedHost&) = delete;
    ScriptedHost& operator=(const ScriptedHost&) = delete;

    std::shared_ptr<workspace_browser_startup::WSDataModel> makeModel() {
        using namespace workspace_browser_startup;
        return std::make_shared<WSDataModel>(
            [this](WSListenersSubscriptionCallback listener) {
                std::lock_guard<std::mutex> lock(mMutex);
                mListener = std::move(listener);
                return Connection(std::make_unique<Handle>());
            },
            [this](const Names& names, Names fields, bool stats, double limit,
                   WorkspaceDisplayResultCallback onResult) {
                fetch(names, std::move(fields), stats, limit, std::move(onResult));
            },
            [this] { ++triggers; });
    }

    // How the host builds the record of a variable; set before the first fetch.
    std::function<WSVariable(const std::string&)> recordFor = [](const std::string& name) {
        return WSVariable{.name = name,
                          .size = "1\xC3\x97"
                                  "1",
                          .className = "double",
                          .value = "v:" + name,
                          .iconClass = "double"};
    };
    std::atomic<Answer> answer{Answer::Synchronously};
    std::atomic<int> triggers{0};

    // Raises a workspace event batch on the calling thread.
    void fire(workspace_browser_startup::WSListenersSubscriptionCallbackArg events) {
        workspace_browser_startup::WSListenersSubscriptionCallback listener;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            listener = mListener;
        }
        listener(std::move(events));
    }
    // Raises a batch on the host's own thread.
    void fireFromHostThread(workspace_browser_startup::WSListenersSubscriptionCallbackArg events) {
        post([this, events = std::move(events)]() mutable { fire(std::move(events)); });
    }

    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRequests;
    }
    std::size_t heldAnswers() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mHeld.size();
    }
    // Waits until `count` answers are held; false after the safety limit.
    bool waitForHeld(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kWaitLimit, [&] { return mHeld.size() >= count; });
    }
    // Answers held requests on the calling thread, oldest first: all of them, or at most
    // `limit`.
    void answerHeld(std::size_t limit = static_cast<std::size_t>(-1)) {
        for (auto& answerNow : takeHeld(limit))
            answerNow();
    }
    // Answers every held request on the host's thread.
    void answerHeldFromHostThread() {
        for (auto& answerNow : takeHeld())
            post(std::move(answerNow));
    }
    // Returns once the host's thread has run everything posted to it so far.
    void waitHostThreadIdle() {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool idle =
            mChanged.wait_for(lock, kWaitLimit, [this] { return mPosted.empty() && !mBusy; });
        EXPECT_TRUE(idle) << "the host thread did not finish its work";
    }

    // The view model's callbacks into the host, recording every call.
    workspace_browser_startup::ViewModelCallback renameCallback() {
        return [this](std::string from, std::string to) {
            record([&] { renames.push_back({std::move(from), std::move(to)}); });
        };
    }
    workspace_browser_startup::ViewModelCallback editValueCallback() {
        return [this](std::string name, std::string text) {
            record([&] { edits.push_back({std::move(name), std::move(text)}); });
        };
    }
    std::function<void(std::vector<std::string>, std::string)> selectionCallback() {
        return [this](Names names, std::string rows) {
            record([&] { selections.push_back({std::move(names), std::move(rows)}); });
        };
    }
    std::function<void(unsigned long)> countCallback() {
        return [this](unsigned long count) { record([&] { counts.push_back(count); }); };
    }

    // Reads the recorded callbacks under the lock.
    template <class F> auto inspect(F&& f) const {
        std::lock_guard<std::mutex> lock(mMutex);
        return f();
    }
    // Waits until `pred` holds; false after the safety limit. `pred` runs under the host's lock,
    // so it may read the recorded callbacks but must not call the host's members.
    template <class P> bool waitUntil(P&& pred) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kWaitLimit, pred);
    }

    // Recorded callbacks; read them through inspect() or after the view model is quiet.
    std::vector<std::pair<std::string, std::string>> renames;
    std::vector<std::pair<std::string, std::string>> edits;
    std::vector<Selection> selections;
    std::vector<unsigned long> counts;

private:
    struct Handle : workspace_browser_startup::ConnectionInterface {
        std::unique_ptr<ConnectionInterface> clone() const override {
            return std::make_unique<Handle>();
        }
        void disconnect() override {}
    };

    template <class F> void record(F&& f) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            f();
        }
        mChanged.notify_all();
    }

    void fetch(const Names& names, Names fields, bool stats, double limit,
               workspace_browser_startup::WorkspaceDisplayResultCallback onResult) {
        std::function<void()> answerNow = [this, names, onResult = std::move(onResult)] {
            std::vector<WSVariable> records;
            records.reserve(names.size());
            for (const std::string& name : names)
                records.push_back(recordFor(name));
            onResult(records);
        };
        const Answer how = answer;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mRequests.push_back({names, std::move(fields), stats, limit});
            if (how == Answer::Later)
                mHeld.push_back(std::move(answerNow));
        }
        mChanged.notify_all();
        if (how == Answer::Later)
            return;
        if (how == Answer::FromHostThread)
            post(std::move(answerNow));
        else
            answerNow();
    }

    std::deque<std::function<void()>> takeHeld(std::size_t limit = static_cast<std::size_t>(-1)) {
        std::lock_guard<std::mutex> lock(mMutex);
        std::deque<std::function<void()>> taken;
        while (!mHeld.empty() && taken.size() < limit) {
            taken.push_back(std::move(mHeld.front()));
            mHeld.pop_front();
        }
        return taken;
    }

    void post(std::function<void()> work) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mPosted.push_back(std::move(work));
        }
        mChanged.notify_all();
    }

    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        while (true) {
            mChanged.wait(lock, [this] { return mStopping || !mPosted.empty(); });
            if (mPosted.empty())
                return;
            auto work = std::move(mPosted.front());
            mPosted.pop_front();
            mBusy = true;
            lock.unlock();
            work();
            lock.lock();
            mBusy = false;
            mChanged.notify_all();
        }
    }

    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    workspace_browser_startup::WSListenersSubscriptionCallback mListener;
    std::vector<Request> mRequests;
    std::deque<std::function<void()>> mHeld;
    std::deque<std::function<void()>> mPosted;
    bool mBusy = false;
    bool mStopping = false;
    std::thread mThread; // last: starts after everything it uses exists
};

// The client grid: sends JSON on the paging channel (<id>_who) and the view-model channel (<id>)
// and records what the server publishes on both. Thread-safe.
class GridClient {
public:
    struct Message {
        std::string channel;
        std::string text;
        foundation::json::Object json;

        double number(const std::string& key) const { return json.at(key).get<double>(); }
        const std::string& string(const std::string& key) const {
            return json.at(key).get<std::string>();
        }
        bool has(const std::string& key) const { return json.count(key) != 0; }
    };
    using Predicate = std::function<bool(const Message&)>;
    using Cell = foundation::json::Object;
    using Row = std::vector<Cell>;

    GridClient(std::shared_ptr<connector::message_service::LocalMessageService> service,
               std::string id)
        : mService(std::move(service)), mPaging(id + "_who"), mViewModel(std::move(id)) {
        mSubscriptions.push_back(mService->subscribeClient(
            mPaging, [this](const connector::message_service::JsonMessage& m) {
                receive(mPaging, m.text());
            }));
        mSubscriptions.push_back(mService->subscribeClient(
            mViewModel, [this](const connector::message_service::JsonMessage& m) {
                receive(mViewModel, m.text());
            }));
    }

    const std::string& pagingChannel() const { return mPaging; }
    const std::string& viewModelChannel() const { return mViewModel; }

    void sendPaging(const std::string& json) { mService->publishFromClient(mPaging, json); }
    void sendViewModel(const std::string& json) { mService->publishFromClient(mViewModel, json); }

    void getData(int startRow, int endRow, int startColumn = 0, int endColumn = 3) {
        sendPaging(range(11, startRow, endRow, startColumn, endColumn));
    }
    void setViewport(int startRow, int endRow, int startColumn = 0, int endColumn = 3) {
        sendPaging(range(10, startRow, endRow, startColumn, endColumn));
    }
    void sort(int column, bool ascending) {
        sendPaging("{\"eventType\":24,\"column\":" + std::to_string(column) +
                   ",\"ascending\":" + (ascending ? "true" : "false") + "}");
    }
    // Rows and columns of an edit are 1-based.
    void setData(int row, int column, const std::string& text) {
        sendPaging("{\"eventType\":12,\"row\":" + std::to_string(row) +
                   ",\"column\":" + std::to_string(column) + ",\"data\":\"" + text + "\"}");
    }
    void getSize() { sendPaging("{\"eventType\":13}"); }
    void getTableMetaData() { sendPaging(range(20, 0, 0, 0, 0)); }
    void select(const std::vector<std::pair<int, int>>& ranges) {
        std::string rows = "[";
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            rows += (i == 0 ? "" : ",") + std::string("{\\\"start\\\":") +
                    std::to_string(ranges[i].first) +
                    ",\\\"end\\\":" + std::to_string(ranges[i].second) + "}";
        }
        rows += "]";
        sendViewModel("{\"type\":\"propertySet\",\"propertyName\":\"Selection\","
                      "\"propertyValue\":{\"selectedRows\":\"" +
                      rows + "\"}}");
    }
    void refresh(const Names& names, bool immediateUpdate) {
        std::string list = "[";
        for (std::size_t i = 0; i < names.size(); ++i)
            list += (i == 0 ? "\"" : ",\"") + names[i] + "\"";
        list += "]";
        sendViewModel("{\"type\":\"refresh\",\"count\":" + std::to_string(names.size()) +
                      ",\"immediateUpdate\":" + (immediateUpdate ? "true" : "false") +
                      ",\"variables\":" + (names.size() == 1 ? "\"" + names[0] + "\"" : list) +
                      "}");
    }

    std::size_t count() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMessages.size();
    }
    std::vector<Message> messages() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMessages;
    }

    // The first message from index `from` on that satisfies `pred`, waiting for it if needed.
    // Returns an empty message, after a test failure, if none comes within the safety limit.
    template <class P> Message waitFor(P&& pred, std::size_t from = 0) {
        std::unique_lock<std::mutex> lock(mMutex);
        std::size_t next = from;
        const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
        while (true) {
            for (; next < mMessages.size(); ++next) {
                if (pred(mMessages[next]))
                    return mMessages[next];
            }
            if (mArrived.wait_until(lock, deadline) == std::cv_status::timeout &&
                next == mMessages.size()) {
                ADD_FAILURE() << "no matching message arrived";
                return {};
            }
        }
    }
    // Index just past the first message from `from` on that satisfies `pred` (waiting for it).
    template <class P> std::size_t indexAfter(P&& pred, std::size_t from = 0) {
        waitFor(pred, from);
        std::lock_guard<std::mutex> lock(mMutex);
        for (std::size_t i = from; i < mMessages.size(); ++i) {
            if (pred(mMessages[i]))
                return i + 1;
        }
        return mMessages.size();
    }

    // Waits until everything the view model queued before this call has been published: its
    // queue answers a table-metadata request only after the work queued ahead of it.
    void flush() {
        const std::size_t from = count();
        getTableMetaData();
        waitFor(isMetaData("TableModelProperties"), from);
    }

    static Predicate isEvent(int type) {
        return [type](const Message& m) {
            return m.has("eventType") && m.json.at("eventType").get<double>() == type;
        };
    }
    static Predicate isPage() { return isEvent(2); }
    static Predicate isSize() { return isEvent(1); }
    static Predicate isMetaData(const std::string& kind) {
        return [kind](const Message& m) {
            return m.has("metaDataType") && m.string("metaDataType") == kind;
        };
    }
    static Predicate isType(const std::string& type) {
        return [type](const Message& m) { return m.has("type") && m.string("type") == type; };
    }

    // The cells of a page, parsed: one object per cell.
    static std::vector<Row> rows(const Message& page) {
        foundation::json::Array outer;
        const std::string& text = page.string("partialData");
        EXPECT_EQ(workspace_browser_startup::JsonTypedValues::parseArray(
                      text.data(), text.data() + text.size(), outer),
                  0);
        std::vector<Row> result;
        for (const auto& rowValue : outer) {
            Row row;
            for (const auto& cellValue : rowValue.get<foundation::json::Array>()) {
                foundation::json::Object cell;
                const auto& cellText = cellValue.get<std::string>();
                EXPECT_EQ(workspace_browser_startup::JsonTypedValues::parseObject(
                              cellText.data(), cellText.data() + cellText.size(), cell),
                          0);
                row.push_back(std::move(cell));
            }
            result.push_back(std::move(row));
        }
        return result;
    }
    // The "value" of one column's cells, row by row.
    static Names column(const Message& page, std::size_t index = 0) {
        Names values;
        for (const Row& row : rows(page))
            values.push_back(row.at(index).at("value").get<std::string>());
        return values;
    }

private:
    static std::string range(int type, int startRow, int endRow, int startColumn, int endColumn) {
        return "{\"eventType\":" + std::to_string(type) +
               ",\"startRow\":" + std::to_string(startRow) +
               ",\"endRow\":" + std::to_string(endRow) +
               ",\"startColumn\":" + std::to_string(startColumn) +
               ",\"endColumn\":" + std::to_string(endColumn) + "}";
    }

    void receive(const std::string& channel, std::string_view text) {
        Message message{channel, std::string(text), {}};
        const int code = workspace_browser_startup::JsonTypedValues::parseObject(
            text.data(), text.data() + text.size(), message.json);
        EXPECT_EQ(code, 0) << text;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mMessages.push_back(std::move(message));
        }
        mArrived.notify_all();
    }

    std::shared_ptr<connector::message_service::LocalMessageService> mService;
    std::string mPaging;
    std::string mViewModel;
    mutable std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Message> mMessages;
    std::vector<std::shared_ptr<connector::message_service::Subscription>> mSubscriptions;
};

// The column lists a host typically gives: which columns are visible, all column keys in
// display order, and one width per key.
inline std::vector<std::u16string> u16(const Names& names) {
    std::vector<std::u16string> result;
    for (const auto& name : names)
        result.emplace_back(name.begin(), name.end());
    return result;
}
inline const Names kAllColumnKeys = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                                     "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};

// One view model with its host, data model, message service and client, wired as a host
// would wire them. Settings may be changed before start().
struct ViewModelRig {
    std::shared_ptr<connector::message_service::LocalMessageService> service =
        std::make_shared<connector::message_service::LocalMessageService>();
    ScriptedHost host;
    std::shared_ptr<workspace_browser_startup::WSDataModel> model = host.makeModel();
    std::string id = "/Test/Grid";
    Names visible = {"Name", "Value", "Size", "Class"};
    Names order = kAllColumnKeys;
    std::vector<double> widths = std::vector<double>(kAllColumnKeys.size(), 80.0);
    bool statsFlag = false;
    double statsLimit = 0;
    std::unique_ptr<GridClient> client;
    std::unique_ptr<workspace_browser_startup::WSViewModel> vm;

    workspace_browser_startup::WSViewModel& start() {
        client = std::make_unique<GridClient>(service, id);
        vm = std::make_unique<workspace_browser_startup::WSViewModel>(
            service, id, model, u16(visible), u16(order), widths, statsFlag, statsLimit,
            host.renameCallback(), host.editValueCallback(), host.selectionCallback(),
            host.countCallback());
        return *vm;
    }
    ~ViewModelRig() {
        if (vm) {
            vm->onPreShutdown();
            vm.reset();
        }
        // Answers still posted to the host's thread reach the data model, which goes first.
        host.waitHostThreadIdle();
    }
};

} // namespace wsb_test
