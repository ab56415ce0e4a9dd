#pragma once

// A scripted host and a scripted client grid around a real view model: the host raises workspace
// events and answers fetches, the client talks JSON over an in-process message service.

#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace wsb_test {

using namespace workspace_browser_startup;
using Names = std::vector<std::string>;
using connector::message_service::LocalMessageService;
using foundation::json::Object;

inline WSListenersSubscriptionCallbackArg batch(EventType type, Names names = {}) {
    return {EventInfo{type, std::move(names)}};
}

// "v000000", "v000001", ...: fixed width, so that they sort by number.
inline Names numberedNames(std::size_t count) {
    Names names;
    char name[16];
    for (std::size_t i = 0; i < count; ++i)
        names.emplace_back(name, std::snprintf(name, sizeof name, "v%06zu", i));
    return names;
}

inline std::vector<std::u16string> u16(const Names& names) {
    std::vector<std::u16string> result;
    for (const auto& name : names)
        result.emplace_back(name.begin(), name.end());
    return result;
}

// The host around the library: answers fetches at once or holds them until answerHeld(), which
// any thread may call; records the view model's calls. Thread-safe.
class ScriptedHost {
public:
    struct Request {
        Names names, fields;
        bool stats;
        double limit;
    };

    // How the host builds a variable's record; set it before the first fetch.
    std::function<WSVariable(const std::string&)> recordFor = [](const std::string& name) {
        return WSVariable{
            .name = name, .size = "1\u00D71", .className = "double", .value = "v:" + name};
    };

    std::atomic<bool> holdAnswers{false};

    std::shared_ptr<WSDataModel> makeModel() {
        auto subscribe = [this](WSListenersSubscriptionCallback listener) {
            std::lock_guard<std::mutex> lock(mMutex);
            mListener = std::move(listener);
            return Connection();
        };
        auto fetch = [this](const Names& names, Names fields, bool stats, double limit,
                            WorkspaceDisplayResultCallback onResult) {
            auto reply = [this, names, onResult = std::move(onResult)] {
                std::vector<WSVariable> records;
                for (const std::string& name : names)
                    records.push_back(recordFor(name));
                onResult(records);
            };
            std::unique_lock<std::mutex> lock(mMutex);
            mRequests.push_back({names, std::move(fields), stats, limit});
            if (holdAnswers) {
                mHeld.push_back(std::move(reply));
                return;
            }
            lock.unlock();
            reply();
        };
        return std::make_shared<WSDataModel>(subscribe, fetch, [] {});
    }

    void fire(WSListenersSubscriptionCallbackArg events) {
        std::unique_lock<std::mutex> lock(mMutex);
        auto listener = mListener;
        lock.unlock();
        listener(std::move(events));
    }
    // Answers up to `limit` held fetches, oldest first, on the calling thread.
    void answerHeld(std::size_t limit = SIZE_MAX) {
        for (; limit > 0; --limit) {
            std::unique_lock<std::mutex> lock(mMutex);
            if (mHeld.empty())
                return;
            auto reply = std::move(mHeld.front());
            mHeld.pop_front();
            lock.unlock();
            reply();
        }
    }
    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRequests;
    }
    // A view-model callback that records its arguments as "<kind> <arg>|<arg>...".
    auto recorder(std::string kind) {
        return [this, kind](auto... args) {
            std::string call = kind;
            char separator = ' ';
            ((call += separator + text(args), separator = '|'), ...);
            std::lock_guard<std::mutex> lock(mMutex);
            mCalls.push_back(call);
        };
    }
    Names calls() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }

private:
    static std::string text(const std::string& s) { return s; }
    static std::string text(unsigned long n) { return std::to_string(n); }
    static std::string text(const Names& names) {
        std::string list;
        for (const auto& name : names)
            list += (list.empty() ? "" : ",") + name;
        return list;
    }

    mutable std::mutex mMutex;
    WSListenersSubscriptionCallback mListener;
    std::vector<Request> mRequests;
    Names mCalls;
    std::deque<std::function<void()>> mHeld;
};

// The client grid: sends JSON on the paging channel (<id>_who) and the view-model channel (<id>)
// and keeps every reply, parsed. Thread-safe.
class GridClient {
public:
    struct Message {
        std::string text;
        Object json;
        double number(const std::string& key) const { return json.at(key).get<double>(); }
        bool flag(const std::string& key) const { return json.at(key).get<bool>(); }
        std::string string(const std::string& key) const { return json.at(key).get<std::string>(); }
    };
    using Predicate = std::function<bool(const Message&)>;

    // Replies whose `key` holds `want`.
    static Predicate is(std::string key, foundation::json::Value want) {
        return [key, want](const Message& m) {
            const auto found = m.json.find(key);
            return found != m.json.end() && found->second == want;
        };
    }

    GridClient(std::shared_ptr<LocalMessageService> service, const std::string& id)
        : mService(std::move(service)), mPaging(id + "_who"), mViewModel(id) {
        for (const std::string& channel : {mPaging, mViewModel})
            mSubscriptions.push_back(mService->subscribeClient(
                channel, [this](const auto& message) { receive(message.text()); }));
    }

    void paging(const std::string& json) { mService->publishFromClient(mPaging, json); }
    void viewModel(const std::string& json) { mService->publishFromClient(mViewModel, json); }
    // Range requests by code: 10 viewport, 11 data, 14 and 20 to 23 metadata.
    void range(int code, int startRow, int endRow, int startColumn = 0, int endColumn = 3) {
        paging("{\"eventType\":" + std::to_string(code) + ",\"startRow\":" +
               std::to_string(startRow) + ",\"endRow\":" + std::to_string(endRow) +
               ",\"startColumn\":" + std::to_string(startColumn) +
               ",\"endColumn\":" + std::to_string(endColumn) + "}");
    }
    void sort(int column, bool ascending) {
        paging("{\"eventType\":24,\"column\":" + std::to_string(column) +
               ",\"ascending\":" + (ascending ? "true" : "false") + "}");
    }
    void select(const std::vector<std::pair<int, int>>& ranges) {
        std::string rows;
        for (const auto& [start, end] : ranges)
            rows += (rows.empty() ? "{" : ",{") + std::string("\\\"start\\\":") +
                    std::to_string(start) + ",\\\"end\\\":" + std::to_string(end) + "}";
        viewModel(R"({"type":"propertySet","propertyName":"Selection",)"
                  R"("propertyValue":{"selectedRows":"[)" +
                  rows + "]\"}}");
    }

    std::size_t count() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mInbox.size();
    }
    // Waits for the first reply, from the `from`-th on, that satisfies `pred`. Bounded only so
    // that a broken build fails instead of hanging.
    Message waitFor(const Predicate& pred, std::size_t from = 0) {
        std::unique_lock<std::mutex> lock(mMutex);
        std::optional<Message> found;
        mArrived.wait_for(lock, std::chrono::seconds(60), [&] {
            for (; from < mInbox.size() && !found; ++from)
                if (pred(mInbox[from]))
                    found = mInbox[from];
            return found.has_value();
        });
        EXPECT_TRUE(found.has_value()) << "no matching reply arrived";
        return found.value_or(Message{});
    }
    // Waits until the view model has published everything queued before this call: its queue
    // answers a row metadata request for a range no one else asks for only after that work.
    // The wait is bounded only so that a broken build fails instead of hanging.
    void flush() {
        std::unique_lock<std::mutex> lock(mMutex);
        const std::size_t from = mInbox.size();
        lock.unlock();
        range(22, kFlushRow, 0);
        lock.lock();
        EXPECT_TRUE(mArrived.wait_for(lock, std::chrono::seconds(60), [&] {
            return std::any_of(mInbox.begin() + from, mInbox.end(), isFlush);
        }));
    }
    // Does `action` and returns, once flushed, the replies meanwhile that satisfy `pred`.
    template <class F> std::vector<Message> during(F&& action, const Predicate& pred) {
        const std::size_t from = count();
        action();
        flush();
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<Message> found;
        for (std::size_t i = from; i < mInbox.size(); ++i) {
            if (pred(mInbox[i]) && !isFlush(mInbox[i]))
                found.push_back(mInbox[i]);
        }
        return found;
    }
    // The last page published during `action`.
    template <class F> Message page(F&& action) {
        const auto pages = during(action, is("eventType", 2));
        EXPECT_FALSE(pages.empty());
        return pages.empty() ? Message{} : pages.back();
    }

    // The "value" of one column's cells, row by row.
    static Names column(const Message& page, std::size_t index = 0) {
        Names values;
        for (const auto& row : parse<foundation::json::Array>(page.string("partialData")))
            values.push_back(
                parse<Object>(row.get<foundation::json::Array>().at(index).get<std::string>())
                    .at("value")
                    .get<std::string>());
        return values;
    }

private:
    static constexpr int kFlushRow = 1000000000;
    static bool isFlush(const Message& m) { return is("startRow", kFlushRow)(m); }

    template <class T> static T parse(const std::string& s) {
        T out;
        if constexpr (std::is_same_v<T, Object>)
            EXPECT_EQ(JsonTypedValues::parseObject(s.data(), s.data() + s.size(), out), 0) << s;
        else
            EXPECT_EQ(JsonTypedValues::parseArray(s.data(), s.data() + s.size(), out), 0) << s;
        return out;
    }
    void receive(std::string_view text) {
        Message message{std::string(text), parse<Object>(std::string(text))};
        std::lock_guard<std::mutex> lock(mMutex);
        mInbox.push_back(std::move(message));
        mArrived.notify_all();
    }

    std::shared_ptr<LocalMessageService> mService;
    std::string mPaging, mViewModel;
    mutable std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Message> mInbox;
    std::vector<std::shared_ptr<connector::message_service::Subscription>> mSubscriptions;
};

inline const GridClient::Predicate kPage = GridClient::is("eventType", 2);
inline const GridClient::Predicate kSize = GridClient::is("eventType", 1);

inline const Names kAllColumnKeys = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                                     "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};

// One view model with its host, data model, message service and client, wired as a host wires
// them. Change the settings before start().
struct ViewModelRig {
    std::shared_ptr<LocalMessageService> service = std::make_shared<LocalMessageService>();
    ScriptedHost host;
    std::shared_ptr<WSDataModel> model = host.makeModel();
    Names visible = {"Name", "Value", "Size", "Class"};
    Names order = kAllColumnKeys;
    std::vector<double> widths = std::vector<double>(kAllColumnKeys.size(), 80.0);
    std::unique_ptr<GridClient> client;
    std::unique_ptr<WSViewModel> vm;

    std::unique_ptr<WSViewModel> make(const std::string& id) {
        return std::make_unique<WSViewModel>(
            service, id, model, u16(visible), u16(order), widths, false, 0, host.recorder("rename"),
            host.recorder("edit"), host.recorder("select"), host.recorder("count"));
    }
    GridClient& start(const std::string& id = "/Test/Grid") {
        client = std::make_unique<GridClient>(service, id);
        vm = make(id);
        return *client;
    }
    ~ViewModelRig() {
        if (vm)
            vm->onPreShutdown();
        vm.reset();
    }
};

} // namespace wsb_test
