#include "BrowserApp.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>

namespace wsbrowser {

using namespace workspace_browser_startup;

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance("zentra::wsbrowser::BrowserApp");
    return instance;
}

} // namespace

BrowserApp::BrowserApp(std::shared_ptr<WorkspaceHost> host,
                       connector::message_service::MessageService::Ptr service, Options options)
    : mHost(std::move(host)), mService(std::move(service)), mOptions(std::move(options)),
      mDataModel(std::make_shared<WSDataModel>(mHost->subscribeFunction(), mHost->displayFunction(),
                                               mHost->triggerFunction())),
      mClosingPages(threadutil::OrderedWorkQueue::create("wsbPages")) {
    if (mOptions.watch) {
        auto sink = mOptions.watchSink;
        mWatcher = std::make_unique<VEAppViewModel>(mService, "wsbrowser-watch", mDataModel,
                                                    [sink](const std::vector<std::string>& change) {
                                                        if (sink)
                                                            sink(describeChange(change));
                                                    });
    }
    mHost->setMessageHandler([this](const std::string& message) {
        if (mOptions.messageSink)
            mOptions.messageSink(message);
        std::vector<std::shared_ptr<PageSession>> sessions;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            for (const auto& entry : mSessions)
                sessions.push_back(entry.second);
        }
        for (const auto& session : sessions)
            session->notify(message);
    });
}

BrowserApp::~BrowserApp() {
    try {
        stop();
    } catch (const std::exception& e) {
        WSB_LOG(logger(), foundation::log::kError) << "Shutting down failed: " << e.what();
    }
}

void BrowserApp::pageConnected(const std::string& pageId) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mShutDown || mSessions.count(pageId) != 0)
        return;
    try {
        mSessions.emplace(pageId, std::make_shared<PageSession>(mService, pageId, mDataModel, mHost,
                                                                mOptions.page));
        WSB_LOG(logger(), foundation::log::kInfo) << "Page " << pageId << " connected";
    } catch (const std::exception& e) {
        WSB_LOG(logger(), foundation::log::kError)
            << "Cannot serve page " << pageId << ": " << e.what();
    }
}

void BrowserApp::pageDisconnected(const std::string& pageId) {
    std::shared_ptr<PageSession> session;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mSessions.find(pageId);
        if (mShutDown || found == mSessions.end())
            return;
        session = std::move(found->second);
        mSessions.erase(found);
        // The view model waits for its own work while shutting down; that work may be waiting
        // for the very thread that reports the page gone, so it is closed elsewhere.
        try {
            mClosingPages->push([session]() mutable {
                session->close();
                session.reset();
            });
        } catch (const std::exception& e) {
            WSB_LOG(logger(), foundation::log::kError)
                << "Cannot close page " << pageId << ": " << e.what();
        }
    }
    WSB_LOG(logger(), foundation::log::kInfo) << "Page " << pageId << " disconnected";
}

std::shared_ptr<WSDataModel> BrowserApp::dataModel() const {
    return mDataModel;
}

std::vector<std::string> BrowserApp::pageIds() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> ids;
    for (const auto& entry : mSessions)
        ids.push_back(entry.first);
    return ids;
}

void BrowserApp::stop() {
    std::map<std::string, std::shared_ptr<PageSession>> sessions;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mShutDown)
            return;
        mShutDown = true;
        sessions.swap(mSessions);
    }
    mClosingPages->terminate(true);
    for (auto& entry : sessions)
        entry.second->close();
    sessions.clear();
    if (mWatcher) {
        mWatcher->onPreShutdown();
        mWatcher.reset();
    }
    mHost->setMessageHandler(nullptr);
    mHost->close();
    mDataModel.reset();
}

std::string BrowserApp::describeChange(const std::vector<std::string>& notification) {
    if (notification.empty())
        return {};
    static const std::map<std::string, std::string> kinds = {{"VARIABLE_ADDED", "added"},
                                                             {"VARIABLE_CHANGED", "changed"},
                                                             {"VARIABLE_DELETED", "deleted"},
                                                             {"WORKSPACE_CLEARED", "cleared"}};
    const auto kind = kinds.find(notification.front());
    std::string text = kind == kinds.end() ? notification.front() : kind->second;
    for (std::size_t i = 1; i < notification.size(); ++i)
        text += (i == 1 ? ": " : ", ") + notification[i];
    return text;
}

} // namespace wsbrowser
