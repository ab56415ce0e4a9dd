#pragma once

#include "ColumnsChannel.hpp"
#include "ConsoleChannel.hpp"
#include "WorkspaceChannel.hpp"
#include "WorkspaceHost.hpp"

#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <memory>
#include <string>
#include <vector>

namespace wsbrowser {

// What one connected browser page gets: a workspace view model on "/WorkspaceBrowser/<pageId>"
// showing every column of the column table, "/Columns/<pageId>" telling the page which key each
// column position holds, the page's requests to the workspace (edit texts, refresh) on
// "/Workspace/<pageId>", and, unless consoles are off, a console on "/Console/<pageId>". The view
// model's rename and edit requests go to the workspace; selection and count are logged. Thread-safe
// as far as its parts are; close() and destruction must not run on the service's delivery thread
// nor on the view model's own queue.
class PageSession {
public:
    struct Options {
        bool console = true;
        bool statsFlag = true;
        double statsLimit = 100000; // statistics for arrays with at most this many elements
    };

    PageSession(connector::message_service::MessageService::Ptr service, std::string pageId,
                std::shared_ptr<workspace_browser_startup::WSDataModel> dataModel,
                std::shared_ptr<WorkspaceHost> host, Options options);
    // Closes first when that was not done.
    ~PageSession();
    PageSession(const PageSession&) = delete;
    PageSession& operator=(const PageSession&) = delete;

    // Closes the console and columns channels and shuts the view model down. Calling it again
    // does nothing more.
    void close();

    // Sends a host message to the page's console; nothing without a console.
    void notify(const std::string& message);

    const std::string& pageId() const { return mPageId; }

    // The grid's columns in display order, and their widths: the user's stored widths where
    // they fit, the built-in ones otherwise.
    static std::vector<std::u16string> columnKeys();
    static std::vector<double> columnWidths();

private:
    std::string mPageId;
    std::unique_ptr<ConsoleChannel> mConsole;
    std::unique_ptr<ColumnsChannel> mColumns;
    std::unique_ptr<WorkspaceChannel> mWorkspace;
    std::unique_ptr<workspace_browser_startup::WSViewModel> mViewModel;
};

} // namespace wsbrowser
