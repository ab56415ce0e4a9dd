#pragma once

// A scripted host process and a scripted client grid for driving a real view model from the
// outside. The host owns the workspace: it raises workspace events, answers the data model's
// fetches (at once, from its own thread, or when told) and records the view model's callbacks.
// The client talks JSON on the channels of an in-process message service and records replies.

#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace wsb_test {

using Names = std::vector<std::string>;
using namespace workspace_browser_startup;

// Waits are bounded only so that a broken build fails instead of hanging; nothing is timed.
inline constexpr std::chrono::seconds kWaitLimit{60};

inline WSListenersSubscriptionCallbackArg batch(EventType type, Names names = {}) {
    return {EventInfo{type, std::move(names)}};
}

// "v000000", "v000001", ...: fixed width, so that they sort by number.
inline Names numberedNames(std::size_t count) {
    Names names;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string digits = std::to_string(i);
        names.push_back("v" + std::string(6 - digits.size(), '0') + digits);
    }
    return names;
}

inline std::vector<std::u16string> u16(const Names& names) {
    std::vector<std::u16string> result;
    for (const auto& name : names)
        result.emplace_back(name.begin(), name.end());
    return result;
}

// The host around the library. Thread-safe.
class ScriptedHost {
public:
    enum class Answer { Synchronously, FromHostThread, Later };
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

    std::shared_ptr<WSDataModel> makeModel() {
        struct Handle : ConnectionInterface {
            std::unique_ptr<ConnectionInterface> clone() const override {
                return std::make_unique<Handle>();
            }
            void disconnect() override {}
        };
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
            [] {});
    }

    // How the host builds a variable's record; set it before the first fetch.
    std::function<WSVariable(const std::string&)> recordFor = [](const std::string& name) {
        return WSVariable{.name = name,
                          .size = "1\xC3\x97"
                                  "1",
                          .className = "double",
                          .value = "v:" + name,
                          .iconClass = "double"};
    };
    std::atomic<Answer> answer{Answer::Synchronously};

    // Raises a workspace event batch on the calling thread, or on the host's thread.
    void fire(WSListenersSubscriptionCallbackArg events) {
        WSListenersSubscriptionCallback listener;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            listener = mListener;
        }
        listener(std::move(events));
    }
    void fireFromHostThread(WSListenersSubscriptionCallbackArg events) {
        post([this, events = std::move(events)]() mutable { fire(std::move(events)); });
    }

    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRequests;
    }
    bool waitForHeld(std::size_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kWaitLimit, [&] { return mHeld.size() >= count; });
    }
    std::size_t heldAnswers() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mHeld.size();
    }
    // Answers held requests, oldest first, at most `limit` of them, on the calling thread or
    // on the host's thread.
    void answerHeld(std::size_t limit = static_cast<std::size_t>(-1), bool onHostThread = false) {
        std::deque<std::function<void()>> taken;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            while (!mHeld.empty() && taken.size() < limit) {
                taken.push_back(std::move(mHeld.front()));
                mHeld.pop_front();
            }
        }
        for (auto& answerNow : taken) {
            if (onHostThread)
                post(std::move(answerNow));
            else
                answerNow();
        }
    }
    // Returns once the host's thread has run everything posted to it so far.
    void waitHostThreadIdle() {
        std::unique_lock<std::mutex> lock(mMutex);
        EXPECT_TRUE(
            mChanged.wait_for(lock, kWaitLimit, [this] { return mPosted.empty() && !mBusy; }));
    }

    // The view model's callbacks into the host; each call is recorded below.
    ViewModelCallback renameCallback() {
        return [this](std::string a, std::string b) { record([&] { renames.push_back({a, b}); }); };
    }
    ViewModelCallback editValueCallback() {
        return [this](std::string a, std::string b) { record([&] { edits.push_back({a, b}); }); };
    }
    std::function<void(Names, std::string)> selectionCallback() {
        return [this](Names names, std::string rows) {
            record([&] { selections.push_back({std::move(names), std::move(rows)}); });
        };
    }
    std::function<void(unsigned long)> countCallback() {
        return [this](unsigned long count) { record([&] { counts.push_back(count); }); };
    }
    // Waits until `pred` holds. It runs under the host's lock: it may read the records below but
    // must not call the host.
    template <class P> bool waitUntil(P&& pred) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kWaitLimit, pred);
    }

    // Read these once the view model is quiet (flushed or shut down) or through waitUntil.
    std::vector<std::pair<std::string, std::string>> renames;
    std::vector<std::pair<std::string, std::string>> edits;
    std::vector<Selection> selections;
    std::vector<unsigned long> counts;

private:
    template <class F> void record(F&& f) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            f();
        }
        mChanged.notify_all();
    }

    void fetch(const Names& names, Names fields, bool stats, double limit,
               WorkspaceDisplayResultCallback onResult) {
        std::function<void()> answerNow = [this, names, onResult = std::move(onResult)] {
            std::vector<WSVariable> records;
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
        if (how == Answer::FromHostThread)
            post(std::move(answerNow));
        else if (how == Answer::Synchronously)
            answerNow();
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
    WSListenersSubscriptionCallback mListener;
    std::vector<Request> mRequests;
    std::deque<std::function<void()>> mHeld;
    std::deque<std::function<void()>> mPosted;
    bool mBusy = false;
    bool mStopping = false;
    std::thread mThread; // last: starts once everything it uses exists
};

// The client grid: sends JSON on the paging channel (<id>_who) and the view-model channel (<id>)
// and records what the server publishes on both. Thread-safe.
class GridClient {
public:
    struct Message {
        std::string text;
        foundation::json::Object json;

        double number(const std::string& key) const { return json.at(key).get<double>(); }
        const std::string& string(const std::string& key) const {
            return json.at(key).get<std::string>();
        }
        bool flag(const std::string& key) const { return json.at(key).get<bool>(); }
    };
    using Predicate = std::function<bool(const Message&)>;
    using Cell = foundation::json::Object;

    GridClient(std::shared_ptr<connector::message_service::LocalMessageService> service,
               std::string id)
        : service(std::move(service)), paging(id + "_who"), viewModel(std::move(id)) {
        for (const std::string& channel : {paging, viewModel}) {
            mSubscriptions.push_back(this->service->subscribeClient(
                channel,
                [this](const connector::message_service::JsonMessage& m) { receive(m.text()); }));
        }
    }

    void sendPaging(const std::string& json) { service->publishFromClient(paging, json); }
    void sendViewModel(const std::string& json) { service->publishFromClient(viewModel, json); }
    // Paging requests by message code: 10 viewport, 11 data, 14 and 20 to 23 metadata.
    void range(int code, int startRow, int endRow, int startColumn = 0, int endColumn = 3) {
        sendPaging("{\"eventType\":" + std::to_string(code) + ",\"startRow\":" +
                   std::to_string(startRow) + ",\"endRow\":" + std::to_string(endRow) +
                   ",\"startColumn\":" + std::to_string(startColumn) +
                   ",\"endColumn\":" + std::to_string(endColumn) + "}");
    }
    void getData(int startRow, int endRow, int startColumn = 0, int endColumn = 3) {
        range(11, startRow, endRow, startColumn, endColumn);
    }
    void setViewport(int startRow, int endRow, int startColumn = 0, int endColumn = 3) {
        range(10, startRow, endRow, startColumn, endColumn);
    }
    void sort(int column, bool ascending) {
        sendPaging("{\"eventType\":24,\"column\":" + std::to_string(column) +
                   ",\"ascending\":" + (ascending ? "true" : "false") + "}");
    }
    // Rows and columns of an edit count from 1.
    void setData(int row, int column, const std::string& text) {
        sendPaging("{\"eventType\":12,\"row\":" + std::to_string(row) +
                   ",\"column\":" + std::to_string(column) + ",\"data\":\"" + text + "\"}");
    }
    void select(const std::vector<std::pair<int, int>>& ranges) {
        std::string rows;
        for (const auto& [start, end] : ranges) {
            rows += (rows.empty() ? "" : ",") + std::string("{\\\"start\\\":") +
                    std::to_string(start) + ",\\\"end\\\":" + std::to_string(end) + "}";
        }
        sendViewModel(R"({"type":"propertySet","propertyName":"Selection",)"
                      R"("propertyValue":{"selectedRows":"[)" +
                      rows + "]\"}}");
    }
    // Two or more names, or none: a single name travels as a plain string.
    void refresh(const Names& names, bool immediateUpdate) {
        std::string list;
        for (const auto& name : names)
            list += (list.empty() ? "\"" : ",\"") + name + "\"";
        sendViewModel("{\"type\":\"refresh\",\"count\":" + std::to_string(names.size()) +
                      ",\"immediateUpdate\":" + (immediateUpdate ? "true" : "false") +
                      ",\"variables\":[" + list + "]}");
    }

    std::size_t count() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMessages.size();
    }
    // The messages from index `from` on that satisfy `pred` (all when empty).
    std::vector<Message> since(std::size_t from, const Predicate& pred = {}) const {
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<Message> found;
        for (std::size_t i = from; i < mMessages.size(); ++i) {
            if (!pred || pred(mMessages[i]))
                found.push_back(mMessages[i]);
        }
        return found;
    }
    // The first message from index `from` on that satisfies `pred`, waiting for it. Fails the
    // test and returns an empty message if none comes within the safety limit.
    Message waitFor(const Predicate& pred, std::size_t from = 0) {
        std::unique_lock<std::mutex> lock(mMutex);
        for (std::size_t next = from;; ++next) {
            if (!mArrived.wait_for(lock, kWaitLimit, [&] { return next < mMessages.size(); })) {
                ADD_FAILURE() << "no matching message arrived";
                return {};
            }
            if (pred(mMessages[next]))
                return mMessages[next];
        }
    }
    // Waits until the view model has published everything it queued before this call: its
    // queue answers a metadata request only after the work ahead of it. The request is for an
    // empty row range that no one else asks for, so that its answer is recognised.
    void flush() {
        const std::size_t from = count();
        const int marker = 1000000000 + mFlushes.fetch_add(1);
        range(22, marker, 0);
        waitFor(
            [marker](const Message& m) {
                return isMetaData("RowModelProperties")(m) && m.number("startRow") == marker;
            },
            from);
    }
    // Does `action` and returns, once flushed, the messages published meanwhile that
    // satisfy `pred`.
    template <class F> std::vector<Message> during(F&& action, const Predicate& pred) {
        const std::size_t from = count();
        action();
        flush();
        return since(from, pred);
    }

    static Predicate isEvent(int type) {
        return [type](const Message& m) {
            return m.json.count("eventType") != 0 && m.number("eventType") == type;
        };
    }
    static Predicate isPage() { return isEvent(2); }
    static Predicate isSize() { return isEvent(1); }
    static Predicate isMetaData(const std::string& kind) {
        return [kind](const Message& m) {
            return m.json.count("metaDataType") != 0 && m.string("metaDataType") == kind;
        };
    }
    static Predicate isType(const std::string& type) {
        return
            [type](const Message& m) { return m.json.count("type") && m.string("type") == type; };
    }

    // The cells of a page, each parsed into its object.
    static std::vector<std::vector<Cell>> rows(const Message& page) {
        foundation::json::Array outer;
        const std::string& text = page.string("partialData");
        EXPECT_EQ(JsonTypedValues::parseArray(text.data(), text.data() + text.size(), outer), 0);
        std::vector<std::vector<Cell>> result;
        for (const auto& rowValue : outer) {
            result.emplace_back();
            for (const auto& cellValue : rowValue.get<foundation::json::Array>()) {
                const auto& cellText = cellValue.get<std::string>();
                EXPECT_EQ(JsonTypedValues::parseObject(cellText.data(),
                                                       cellText.data() + cellText.size(),
                                                       result.back().emplace_back()),
                          0);
            }
        }
        return result;
    }
    // The "value" of one column's cells, row by row.
    static Names column(const Message& page, std::size_t index = 0) {
        Names values;
        for (const auto& row : rows(page))
            values.push_back(row.at(index).at("value").get<std::string>());
        return values;
    }

    const std::shared_ptr<connector::message_service::LocalMessageService> service;
    const std::string paging;
    const std::string viewModel;

private:
    void receive(std::string_view text) {
        Message message{std::string(text), {}};
        EXPECT_EQ(
            JsonTypedValues::parseObject(text.data(), text.data() + text.size(), message.json), 0)
            << text;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mMessages.push_back(std::move(message));
        }
        mArrived.notify_all();
    }

    std::atomic<int> mFlushes{0};
    mutable std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Message> mMessages;
    std::vector<std::shared_ptr<connector::message_service::Subscription>> mSubscriptions;
};

inline const Names kAllColumnKeys = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                                     "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};

// One view model with its host, data model, message service and client, wired as a host wires
// them. Change the settings before start().
struct ViewModelRig {
    std::shared_ptr<connector::message_service::LocalMessageService> service =
        std::make_shared<connector::message_service::LocalMessageService>();
    ScriptedHost host;
    std::shared_ptr<WSDataModel> model = host.makeModel();
    Names visible = {"Name", "Value", "Size", "Class"};
    Names order = kAllColumnKeys;
    std::vector<double> widths = std::vector<double>(kAllColumnKeys.size(), 80.0);
    std::unique_ptr<GridClient> client;
    std::unique_ptr<WSViewModel> vm;

    GridClient& start(const std::string& id = "/Test/Grid") {
        client = std::make_unique<GridClient>(service, id);
        vm = std::make_unique<WSViewModel>(
            service, id, model, u16(visible), u16(order), widths, false, 0, host.renameCallback(),
            host.editValueCallback(), host.selectionCallback(), host.countCallback());
        return *client;
    }
    ~ViewModelRig() {
        if (vm)
            vm->onPreShutdown();
        vm.reset();
        // Answers still posted to the host's thread reach the data model, which goes first.
        host.waitHostThreadIdle();
    }
};

} // namespace wsb_test
