// Publishes arbitrary client messages into a real view model's channels, as a page would.
//
// The first byte of an input picks the channel (paging, view model, or the desktop channel),
// the rest is the message text. One view model serves every input, so no threads are started
// per input; before each input the page is put back into one known state (rows, sort,
// viewport, selection), so that a finding reproduces from its input file alone. After each
// input the harness waits until the view model's work queue has run everything the message
// queued: work that crashes or hangs there is then blamed on the input that caused it.

#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using namespace workspace_browser_startup;
using connector::message_service::JsonMessage;
using connector::message_service::LocalMessageService;
using connector::message_service::Subscription;

// Few variables keep the per-input reset cheap; a page of them still spans several rows.
constexpr std::size_t kVariables = 16;
const std::string kPage = "/WorkspaceBrowser/page-1";
const std::string kPaging = kPage + "_who";
const std::string kDesktop = "/DesktopWSB";
// Rows no real request asks for: a row-metadata request for one of them marks the end of the
// queued work.
constexpr std::int64_t kFlushRow = 1000000000;
// Longer than any input may reasonably keep the queue busy; libFuzzer's own -timeout
// normally reports a hang first.
constexpr auto kDrainLimit = std::chrono::seconds(60);

// A host that answers as a real one does: records for the variables it has, at once, and
// nothing for names it does not know. It keeps no history, so memory stays flat.
class Host {
public:
    Host() {
        char name[16];
        for (std::size_t i = 0; i < kVariables; ++i) {
            mNames.emplace_back(name, std::snprintf(name, sizeof name, "v%02zu", i));
            mValues[mNames.back()] = std::to_string(i * 7 % 23) + ".5";
        }
    }

    std::shared_ptr<WSDataModel> makeModel() {
        auto subscribe = [this](WSListenersSubscriptionCallback listener) {
            mListener = std::move(listener);
            return Connection();
        };
        auto fetch = [this](const std::vector<std::string>& names, std::vector<std::string>, bool,
                            double, const WorkspaceDisplayResultCallback& done) {
            std::vector<WSVariable> records;
            for (const std::string& name : names)
                if (const auto found = mValues.find(name); found != mValues.end())
                    records.push_back({.name = name,
                                       .size = "1x" + std::to_string(name.size()),
                                       .className = name.back() % 2 ? "double" : "char",
                                       .value = found->second,
                                       .iconClass = "double"});
            done(records);
        };
        return std::make_shared<WSDataModel>(subscribe, fetch, [this] { announce(); });
    }

    void announce() {
        mListener({EventInfo{EventType::WORKSPACE_CLEARED, {}},
                   EventInfo{EventType::VARIABLE_CHANGED, mNames}});
    }

    const std::vector<std::string>& names() const { return mNames; }

private:
    std::vector<std::string> mNames;
    std::unordered_map<std::string, std::string> mValues; // read-only after construction
    WSListenersSubscriptionCallback mListener;
};

// The page around one view model, built once for the whole run and never destroyed: libFuzzer
// leaves by exit(), and a view model must not be torn down from an exit handler.
class Page {
public:
    Page() {
        mModel = mHost.makeModel();
        mHost.announce();
        for (const std::string& channel : {kPaging, kPage})
            mSubscriptions.push_back(mService->subscribeClient(
                channel, [this](const JsonMessage& message) { received(message.text()); }));
        const std::vector<std::u16string> visible{u"Name", u"Value", u"Size", u"Class"};
        const std::vector<std::u16string> order{u"Name", u"Value", u"Size", u"Class",  u"Min",
                                                u"Max",  u"Range", u"Mean", u"Median", u"Mode",
                                                u"Var",  u"Std",   u"Bytes"};
        const auto ignore2 = [](std::string, std::string) {};
        mViewModel = std::make_unique<WSViewModel>(
            mService, kPage, mModel, visible, order, std::vector<double>(order.size(), 80.0), false,
            0, ignore2, ignore2, [](std::vector<std::string>, std::string) {},
            [](unsigned long) {});

        std::string names;
        for (const std::string& name : mHost.names())
            names += (names.empty() ? "\"" : ",\"") + name + "\"";
        mReset = R"({"type":"refresh","count":)" + std::to_string(kVariables) +
                 R"(,"immediateUpdate":false,"variables":[)" + names + "]}";
        drain();
    }

    // Puts the page back into its starting state: every variable listed by name, ascending, the
    // first rows in view and nothing selected.
    void reset() {
        mService->publishFromClient(kPaging, R"({"eventType":24,"column":0,"ascending":true})");
        mService->publishFromClient(
            kPaging, R"({"eventType":10,"startRow":0,"endRow":5,"startColumn":0,"endColumn":3})");
        mService->publishFromClient(kPage, mReset);
        mService->publishFromClient(kPage, R"({"type":"propertySet","propertyName":"Selection",)"
                                           R"("propertyValue":{"selectedRows":"[]"}})");
    }

    void publish(std::uint8_t channel, std::string_view text) {
        switch (channel % 3) {
        case 0:
            mService->publishFromClient(kPaging, text);
            break;
        case 1:
            mService->publishFromClient(kPage, text);
            break;
        default:
            mService->publishFromClient(kDesktop, text);
            break;
        }
    }

    // Waits until the view model's queue has run everything queued so far: it answers the
    // row-metadata request queued now only after that.
    void drain() {
        std::unique_lock lock(mMutex);
        mMarker = "\"startRow\":" + std::to_string(kFlushRow + mFlushes++ % 1000000);
        mMarkerSeen = false;
        lock.unlock();
        mService->publishFromClient(kPaging, R"({"eventType":22,"endRow":0,"startRow":)" +
                                                 mMarker.substr(11) + "}");
        lock.lock();
        if (!mArrived.wait_for(lock, kDrainLimit, [this] { return mMarkerSeen; })) {
            std::fprintf(stderr, "The view model's queue did not drain within %lld s\n",
                         static_cast<long long>(kDrainLimit.count()));
            std::abort();
        }
    }

private:
    void received(std::string_view text) {
        std::lock_guard lock(mMutex);
        if (mMarker.empty() || mMarkerSeen)
            return;
        const std::size_t at = text.find(mMarker);
        if (at == std::string_view::npos)
            return;
        const std::size_t after = at + mMarker.size();
        if (after < text.size() && text[after] >= '0' && text[after] <= '9')
            return;
        mMarkerSeen = true;
        mArrived.notify_all();
    }

    std::shared_ptr<LocalMessageService> mService = std::make_shared<LocalMessageService>();
    Host mHost;
    std::shared_ptr<WSDataModel> mModel;
    std::vector<std::shared_ptr<Subscription>> mSubscriptions;
    std::unique_ptr<WSViewModel> mViewModel;
    std::string mReset;

    std::mutex mMutex;
    std::condition_variable mArrived;
    std::uint64_t mFlushes = 0; // guarded by mMutex
    std::string mMarker;        // guarded by mMutex
    bool mMarkerSeen = false;   // guarded by mMutex
};

Page* gPage = nullptr;

} // namespace

// The page is never torn down (see Page), so what it holds at exit is not a leak.
extern "C" int __lsan_is_turned_off() {
    return 1;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Column widths a message sets are saved as user settings: never into the real ones.
    std::filesystem::create_directories(WSB_FUZZ_SETTINGS_DIR);
    setenv("WSB_SETTINGS_DIR", WSB_FUZZ_SETTINGS_DIR, 1);
    // Every library record would otherwise be printed, and printing would be most of the work.
    static const auto quiet = foundation::log::addConsoleSink(0);
    gPage = new Page();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    gPage->reset();
    gPage->publish(data[0], std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
    gPage->drain();
    return 0;
}
