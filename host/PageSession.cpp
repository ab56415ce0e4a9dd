#include "PageSession.hpp"

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/settings/Settings.hpp>

namespace wsbrowser {

using namespace workspace_browser_startup;

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::PageSession");
    return instance;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

// Column keys are plain ASCII, so narrowing each unit is the whole conversion.
std::vector<std::string> keysAsText(const std::vector<std::u16string>& keys) {
    std::vector<std::string> texts;
    texts.reserve(keys.size());
    for (const std::u16string& key : keys)
        texts.emplace_back(key.begin(), key.end());
    return texts;
}

} // namespace

std::vector<std::u16string> PageSession::columnKeys() {
    // Column keys are plain ASCII, so widening each byte is the whole conversion.
    std::vector<std::u16string> keys;
    for (const WSColumn& column : WSColumn::all())
        keys.emplace_back(column.key.begin(), column.key.end());
    return keys;
}

std::vector<double> PageSession::columnWidths() {
    std::vector<double> widths;
    for (const WSColumn& column : WSColumn::all())
        widths.push_back(column.defaultWidth);
    try {
        const auto node =
            settings::standalone::getSettingsRoot().node("zentra.desktop.workspace.columns");
        if (node.has("ColumnWidths")) {
            const auto stored = node.get<std::vector<double>>("ColumnWidths");
            for (std::size_t i = 0; i < stored.size() && i < widths.size(); ++i) {
                if (stored[i] > 0)
                    widths[i] = stored[i];
            }
        }
    } catch (const std::exception& e) {
        WSB_LOG(logger(), foundation::log::kWarning)
            << "Using the built-in column widths: " << e.what();
    }
    return widths;
}

PageSession::PageSession(connector::message_service::MessageService::Ptr service,
                         std::string pageId, std::shared_ptr<WSDataModel> dataModel,
                         std::shared_ptr<WorkspaceHost> host, Options options)
    : mPageId(std::move(pageId)) {
    const auto columns = columnKeys();
    ColumnsChannel::Statistics statistics{options.statsFlag, options.statsLimit, {}};
    for (const WSColumn& column : WSColumn::all()) {
        if (column.statistic)
            statistics.columns.emplace_back(column.key);
    }
    mColumns = std::make_unique<ColumnsChannel>(service, "/Columns/" + mPageId, keysAsText(columns),
                                                std::move(statistics));
    std::weak_ptr<WorkspaceHost> weakHost = host;
    const std::shared_ptr<WorkspaceHost> workspaceHost = host;
    const auto workspaceService = service;
    if (options.console)
        mConsole =
            std::make_unique<ConsoleChannel>(service, "/Console/" + mPageId, std::move(host));
    ViewModelCallback rename = [weakHost](std::string oldName, std::string newName) {
        if (auto alive = weakHost.lock())
            alive->rename(std::move(oldName), std::move(newName));
    };
    ViewModelCallback edit = [weakHost](std::string name, std::string text) {
        if (auto alive = weakHost.lock())
            alive->editValue(std::move(name), std::move(text));
    };
    auto selection = [id = mPageId](const std::vector<std::string>& names,
                                    const std::string& rows) {
        WSB_LOG(logger(), foundation::log::kInfo)
            << "Page " << id << " selected: " << joined(names) << " (rows " << rows << ")";
    };
    auto count = [id = mPageId](unsigned long variables) {
        WSB_LOG(logger(), foundation::log::kInfo)
            << "Page " << id << " shows " << variables << " variables";
    };
    mViewModel = std::make_unique<WSViewModel>(
        std::move(service), "/WorkspaceBrowser/" + mPageId, std::move(dataModel), columns, columns,
        columnWidths(), options.statsFlag, options.statsLimit, std::move(rename), std::move(edit),
        std::move(selection), std::move(count));
    // Python users read 1e+40 as larger than 3 and expect NaN and blanks at the end.
    mViewModel->setExactNumericOrder(true);
    // After the view model: a filter request goes straight to it.
    mWorkspace = std::make_unique<WorkspaceChannel>(
        workspaceService, "/Workspace/" + mPageId, workspaceHost,
        [viewModel = mViewModel.get()](const std::string& text) { viewModel->setFilter(text); });
}

PageSession::~PageSession() {
    close();
}

void PageSession::close() {
    if (mConsole)
        mConsole->close();
    if (mColumns)
        mColumns->close();
    if (mWorkspace)
        mWorkspace->close();
    if (mViewModel)
        mViewModel->onPreShutdown();
}

void PageSession::notify(const std::string& message) {
    if (mConsole)
        mConsole->publish(message + "\n", true);
}

} // namespace wsbrowser
