#pragma once

#include "PageSession.hpp"
#include "WorkspaceHost.hpp"

#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>
#include <workspace_browser/viewmodel/VEAppViewModel.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace wsbrowser {

// Ties the workspace to the library: one data model over the host's functions, one page
// session per connected page, and with `watch` an app view model that reports every change
// through `watchSink`. Host messages (refused renames, failed edits) go to `messageSink` and to
// every page's console. Shutdown order: page view models, then the app view model, then the
// workspace (its queued work finishes and it answers no more), then the data model.
// Thread-safe: pages may connect and disconnect on any thread while others run; a departed
// page's session is shut down on a thread of its own, never on the caller's.
class BrowserApp {
public:
    struct Options {
        PageSession::Options page;
        bool watch = false;
        std::function<void(const std::string&)> watchSink;   // one line per change group
        std::function<void(const std::string&)> messageSink; // host messages besides pages
    };

    BrowserApp(std::shared_ptr<WorkspaceHost> host,
               connector::message_service::MessageService::Ptr service, Options options);
    // Shuts down first when that was not done.
    ~BrowserApp();
    BrowserApp(const BrowserApp&) = delete;
    BrowserApp& operator=(const BrowserApp&) = delete;

    // The page handlers of the message service. An id seen twice keeps its first session;
    // after stop() they do nothing.
    void pageConnected(const std::string& pageId);
    void pageDisconnected(const std::string& pageId);

    std::shared_ptr<workspace_browser_startup::WSDataModel> dataModel() const;
    std::vector<std::string> pageIds() const;

    // Stops everything in the order above; the caller stops delivering page messages first.
    void stop();

    // "added: a, b" and the like, from an app view model notification.
    static std::string describeChange(const std::vector<std::string>& notification);

private:
    std::shared_ptr<WorkspaceHost> mHost;
    connector::message_service::MessageService::Ptr mService;
    Options mOptions;
    std::shared_ptr<workspace_browser_startup::WSDataModel> mDataModel;
    std::unique_ptr<workspace_browser_startup::VEAppViewModel> mWatcher;
    std::shared_ptr<threadutil::OrderedWorkQueue> mClosingPages; // closes departed pages

    mutable std::mutex mMutex; // guards mSessions and mShutDown
    std::map<std::string, std::shared_ptr<PageSession>> mSessions;
    bool mShutDown = false;
};

} // namespace wsbrowser
