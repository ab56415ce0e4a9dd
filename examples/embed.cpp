// How a host embeds the library: the part between the "embed" markers is quoted in the README,
// so it must stay short and readable. main() below checks that it really serves a page.
// [embed]
#include <workspace_browser/workspace_browser.hpp>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace workspace_browser_startup;
namespace ms = connector::message_service;

// The host's side: its interpreter's variables, and the three functions the data model calls.
class Workspace {
public:
    std::shared_ptr<WSDataModel> makeDataModel() {
        auto subscribe = [this](WSListenersSubscriptionCallback listener) {
            return mListeners.registerCallback(std::move(listener)); // ends with the Connection
        };
        // Describes the named variables. It may answer later and on another thread.
        auto fetch = [this](const std::vector<std::string>& names, std::vector<std::string>,
                            bool /*computeStats*/, double /*statsLimit*/,
                            WorkspaceDisplayResultCallback done) {
            std::vector<WSVariable> records;
            std::unique_lock lock(mMutex);
            for (const std::string& name : names)
                if (auto found = mValues.find(name); found != mValues.end())
                    records.push_back({.name = name,
                                       .size = "1x1",
                                       .className = "double",
                                       .value = found->second,
                                       .iconClass = "double"});
            lock.unlock();
            done(records);
        };
        // Asked for when the data model has lost track of the workspace.
        auto trigger = [this] { announceAll(); };
        return std::make_shared<WSDataModel>(subscribe, fetch, trigger);
    }

    // A new data model knows nothing yet, so the host announces every name once it exists.
    // Names reach the cache through change events: "added" alone would not put them there.
    void announceAll() {
        std::vector<std::string> names;
        for (std::lock_guard lock(mMutex); const auto& [name, value] : mValues)
            names.push_back(name);
        mListeners.invokeCallbacks({EventInfo{EventType::WORKSPACE_CLEARED, {}},
                                    EventInfo{EventType::VARIABLE_CHANGED, names}});
    }

    // What the interpreter reports after running code; a new name may come as a change too.
    void assign(const std::string& name, const std::string& value) {
        std::unique_lock lock(mMutex);
        mValues[name] = value;
        lock.unlock();
        mListeners.invokeCallbacks({EventInfo{EventType::VARIABLE_CHANGED, {name}}});
    }

private:
    std::mutex mMutex;
    std::map<std::string, std::string> mValues;
    CallbackManager<WSListenersSubscriptionCallbackArg> mListeners;
};

// One view model per browser page, on that page's channels.
class Pages {
public:
    Pages(ms::MessageService::Ptr service, std::shared_ptr<WSDataModel> dataModel)
        : mService(std::move(service)), mDataModel(std::move(dataModel)) {}

    void connected(const std::string& pageId) {
        const std::vector<std::u16string> columns{u"Name", u"Value", u"Size", u"Class"};
        auto viewModel = std::make_shared<WSViewModel>(
            mService, "/WorkspaceBrowser/" + pageId, mDataModel, columns, columns,
            std::vector<double>{160, 200, 90, 90}, /*statsFlag=*/false, /*statsLimit=*/0,
            [](std::string /*oldName*/, std::string /*newName*/) { /* rename in the host */ },
            [](std::string /*name*/, std::string /*text*/) { /* evaluate, then assign */ },
            [](std::vector<std::string> /*names*/, std::string /*rows*/) {},
            [](unsigned long /*count*/) {});
        std::lock_guard lock(mMutex);
        mPages[pageId] = std::move(viewModel);
    }

    // Page handlers run on the service's delivery thread. Shutting a view model down waits for
    // its queued work, so it is done on a queue of its own and deliveries go on meanwhile.
    // Never on the view model's own queue: a work queue must not be terminated or released
    // from its own worker thread, which ends the process.
    void disconnected(const std::string& pageId) {
        std::lock_guard lock(mMutex);
        if (auto page = mPages.extract(pageId))
            mRetired->push([viewModel = std::move(page.mapped())]() mutable {
                viewModel->onPreShutdown();
                viewModel.reset();
            });
    }

    void shutdown() {
        mRetired->terminate(/*waitForPending=*/true); // from this thread, not from mRetired
        std::lock_guard lock(mMutex);
        for (auto& [pageId, viewModel] : mPages)
            viewModel->onPreShutdown();
        mPages.clear();
    }

private:
    ms::MessageService::Ptr mService;
    std::shared_ptr<WSDataModel> mDataModel;
    std::shared_ptr<threadutil::OrderedWorkQueue> mRetired =
        threadutil::OrderedWorkQueue::create("retiredPages");
    std::mutex mMutex;
    std::map<std::string, std::shared_ptr<WSViewModel>> mPages;
};

// Serves the workspace to browser pages while `whileServing` runs.
void serve(Workspace& workspace, const std::filesystem::path& webClient,
           const std::function<void(const std::string& url)>& whileServing) {
    auto dataModel = workspace.makeDataModel();
    workspace.announceAll();
    auto service = ms::WebSocketMessageService::create({.staticRoot = webClient});
    Pages pages(service, dataModel);
    service->setPageHandlers([&](const std::string& id) { pages.connected(id); },
                             [&](const std::string& id) { pages.disconnected(id); });
    service->start(); // loopback, any free port, a fresh token
    whileServing(service->url());
    // Pages first (no more client messages), then the view models. The data model goes on
    // return; a host that answers fetches later must stop those answers before that.
    service->stop();
    pages.shutdown();
}
// [embed]

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>

namespace {

int failures = 0;
void check(bool ok, const std::string& what) {
    if (!ok) {
        std::cerr << "embed: FAILED " << what << "\n";
        ++failures;
    }
}

// The Value cell of the first row of a data reply, or "" when the reply is not one.
std::string firstValue(const std::string& reply) {
    foundation::json::Object message;
    foundation::json::Array rows;
    foundation::json::Object cell;
    if (JsonTypedValues::parseObject(reply.data(), reply.data() + reply.size(), message) != 0 ||
        JsonTypedValues::toInt32(message["eventType"]) != 2)
        return {};
    const std::string page = JsonTypedValues::toString(message["partialData"]);
    if (JsonTypedValues::parseArray(page.data(), page.data() + page.size(), rows) != 0 ||
        rows.empty())
        return {};
    const std::string text =
        JsonTypedValues::toString(rows.front().get<foundation::json::Array>().at(1));
    JsonTypedValues::parseObject(text.data(), text.data() + text.size(), cell);
    return JsonTypedValues::toString(cell["value"]);
}

} // namespace

int main(int argc, char** argv) {
    const auto settingsDir = std::filesystem::temp_directory_path() / "wsb-embed-settings";
    ::setenv("WSB_SETTINGS_DIR", settingsDir.c_str(), 1);
    // Without a sink of its own the logging library prints every record.
    const auto logs = foundation::log::addConsoleSink(foundation::log::kWarning);

    Workspace workspace;
    // `embed --serve WEBDIR` serves until Enter is pressed, for trying the sample by hand.
    if (argc == 3 && std::string(argv[1]) == "--serve") {
        workspace.assign("answer", "42");
        serve(workspace, argv[2], [](const std::string& url) {
            std::cout << "Workspace browser: " << url << "\nPress Enter to stop.\n";
            std::cin.get();
        });
        return 0;
    }

    // The same view models over the in-process service, with a scripted page on it.
    {
        workspace.assign("answer", "42");
        auto dataModel = workspace.makeDataModel();
        workspace.announceAll();
        auto local = std::make_shared<ms::LocalMessageService>();
        Pages pages(local, dataModel);
        pages.connected("page-1");

        std::mutex mutex;
        std::condition_variable arrived;
        std::vector<std::string> replies;
        auto subscription =
            local->subscribeClient("/WorkspaceBrowser/page-1_who", [&](const ms::JsonMessage& m) {
                std::lock_guard lock(mutex);
                replies.emplace_back(m.text());
                arrived.notify_all();
            });
        local->publishFromClient("/WorkspaceBrowser/page-1_who", R"({"eventType":13})");
        local->publishFromClient("/WorkspaceBrowser/page-1_who",
                                 R"({"eventType":11,"startRow":0,"endRow":0,)"
                                 R"("startColumn":0,"endColumn":3})");
        std::unique_lock lock(mutex);
        const bool served = arrived.wait_for(lock, std::chrono::seconds(10), [&] {
            for (const std::string& reply : replies)
                if (firstValue(reply) == "42")
                    return true;
            return false;
        });
        check(!replies.empty() && replies.front().find(R"("rowCount":1)") != std::string::npos,
              "size reply");
        check(served, "data reply with the host's value");
        lock.unlock();
        pages.disconnected("page-1");
        pages.shutdown();
    }

    // The WebSocket service binds a loopback port and stops cleanly.
    std::string url;
    serve(workspace, {}, [&](const std::string& served) { url = served; });
    check(url.rfind("http://127.0.0.1:", 0) == 0 && url.find("/?token=") != std::string::npos,
          "served URL " + url);

    std::filesystem::remove_all(settingsDir);
    if (failures == 0)
        std::cout << "embed: the sample host serves a page\n";
    return failures == 0 ? 0 : 1;
}
