#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>
#include <workspace_browser/platform/message_service/JsonMessage.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>
#include <workspace_browser/pubsub/DSEvent.hpp>
#include <workspace_browser/pubsub/DSModelEvent.hpp>
#include <workspace_browser/pubsub/PubSubDSImpl.hpp>
#include <workspace_browser/pubsub/PubSubVMImpl.hpp>
#include <workspace_browser/viewmodel/RowRange.hpp>
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>
#include <workspace_browser/viewmodel/ViewModel.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace threadutil {
// Held by pointer only: the queue's header brings Boost.Thread's futures along.
class OrderedWorkQueue;
} // namespace threadutil

namespace workspace_browser_startup {

class DisplayOrder;
class LifetimeGate;

// A host callback that receives two texts: (old name, new name) for a rename, (name, new value
// text) for a value edit.
using ViewModelCallback = std::function<void(std::string, std::string)>;

// The workspace browser's view model: serves one client grid from the shared workspace data
// model. It owns the grid's paging and view-model channel endpoints and a work queue on which
// fetching, sorting and publishing run in the order they were asked for; it keeps the rows as a
// list of variable names, in display order, and the selection as names, so that both survive
// sorting and workspace changes.
// Thread-safe: client messages, workspace events, late host answers and the host's calls may
// arrive on any threads at once. The view state is guarded by one private lock that is never
// held while the data model, the host or the message service is called. The host calls
// onPreShutdown() before destroying the view model (the destructor does it when it was not),
// from a thread other than the view model's own work items, and delivers no client messages
// while destroying it.
class WSB_EXPORT WSViewModel : public ViewModel {
public:
    WSViewModel(connector::message_service::MessageService::Ptr service, std::string id,
                std::shared_ptr<WSDataModel> dataModel, const std::vector<std::u16string>& columns,
                const std::vector<std::u16string>& columnKeys,
                const std::vector<double>& columnWidths, bool statsFlag, double statsLimit,
                ViewModelCallback renameCallback, ViewModelCallback editValueCallback,
                std::function<void(std::vector<std::string>, std::string)> selectionCallback,
                std::function<void(unsigned long)> countCallback);
    ~WSViewModel() override;
    WSViewModel(const WSViewModel&) = delete;
    WSViewModel& operator=(const WSViewModel&) = delete;

    // Paging channel (called on the message service's delivery thread).
    void handleClientReady() override;
    void handleSetViewportRange(const DSEvent& event) override;
    void handleClientGetSize() override;
    void handleClientGetData(const DSEvent& event) override;
    void handleClientSetData(const DSEvent& event) override;
    void handleClientGetMetaData(const DSEvent& event) override;
    void handleClientGetTableMetaData(const DSEvent& event) override;
    void handleClientGetColumnMetaData(const DSEvent& event) override;
    void handleClientGetRowMetaData(const DSEvent& event) override;
    void handleClientGetCellMetaData(const DSEvent& event) override;
    void handleClientSetTableMetaData(const DSModelEvent& event) override;
    void handleClientSetColumnMetaData(const DSModelEvent& event) override;
    void handleClientSetRowMetaData(const DSModelEvent& event) override;
    void handleClientSetCellMetaData(const DSModelEvent& event) override;
    void handleSortChanged(int sortColumn, bool sortAscending) override;

    // Stops taking workspace batches and jobs, waits for the work in flight and ends the work
    // queue. Calling it again does nothing.
    void onPreShutdown() override;

    // View-model channel (called on the message service's delivery thread).
    void gridSizeChanged() override;
    void handleSelectionChanged(std::vector<RowRange> rows) override;
    void handleFocusChanged(bool hasFocus) override;
    void handleDoubleClick(std::string variableName) override;
    void handleDrop(std::string data, std::string workspace) override;
    void handleRefresh(std::vector<std::string> variables, bool immediateUpdate) override;

    // Messages on the desktop channel "/DesktopWSB"; only "StartupServices" is acted on. Never
    // throws.
    void handleDesktopMsg(const connector::message_service::JsonMessage& message);

    // Host settings: which columns are visible (`columnNames`), their display order
    // (`columnOrder`) and widths; whether statistics are computed, and up to which size.
    void updateColumnSettings(const std::vector<std::u16string>& columnNames,
                              const std::vector<std::u16string>& columnOrder,
                              const std::vector<double>& columnWidths);
    void updateStatsSettings(bool statsFlag, double statsLimit);

    // Off by default: numeric columns then sort as the comparator of this library orders them
    // (by the integer part of each displayed number). On, they sort by the full value each
    // text shows, with NaN and blanks last in both directions. Takes effect at the next sort.
    void setExactNumericOrder(bool exact);

    // Lists only the variables whose names contain `text`, ignoring ASCII case; the row count,
    // pages, sorting, selection rows and workspace updates all follow the filtered list. Empty
    // (the default) lists every variable. Re-sorts and republishes the size and the visible rows
    // on the work queue.
    void setFilter(const std::string& text);

    // The visible column keys in display order.
    std::vector<std::string> getOrderedColumns();

    // The record the client shows for `variable`: each text field holds the JSON object of
    // its cell.
    WSVariable getWSVariableForClient(const WSVariable& variable);

    // Queues a fetch and publication of the event's rows; `forceUpdate` fetches them from the
    // host even when the cache is up to date.
    void doBackgroundGetData(const DSEvent& event, bool forceUpdate);
    // Fetches the event's rows and publishes them (runs on the work queue).
    void publishData(std::shared_ptr<DSEvent> event, bool forceUpdate);
    // Publishes every name at once, before their data is fetched.
    void publishVariableNames();
    // Rebuilds the display order from the known names under the current sort (runs on the
    // work queue).
    void sortVariables();
    // Republishes the rows where the selected names now stand.
    void updateSelectedRowsToSelectedVariables();

    // Metadata publishers (run on the work queue).
    void publishTableModelProps(std::shared_ptr<DSEvent> event);
    void publishColumnModelProps(std::shared_ptr<DSEvent> event, bool useEventRange);
    void publishRowModelProps(std::shared_ptr<DSEvent> event);
    void publishCellModelProps(std::shared_ptr<DSEvent> event);

    // Keys of the cell objects sent to the client.
    static const std::string CELL_VALUE;
    static const std::string CELL_EDITABLE;
    static const std::string CELL_EDITOR_VALUE;
    static const std::string CELL_CLASS;
    static const std::string CELL_IS_META_DATA;

private:
    struct PageRequest;

    void applyDataModelEvents(const WSListenersSubscriptionCallbackArg& events);
    // The selection handling behind handleSelectionChanged, for the view model's own work,
    // which must still run while it shuts down.
    void selectionChanged(const std::vector<RowRange>& rows);
    // False once shutdown has begun: client messages are then ignored.
    bool acceptsClientMessages() const;
    void publishPage(const std::shared_ptr<DSEvent>& event, const PageRequest& request,
                     std::vector<WSVariable> records);
    // These read the view state: call them with mStateMutex held.
    std::vector<std::string> orderedColumnsLocked() const;
    // The visible column at `index` among the ordered columns, or empty when there is none.
    std::string orderedColumnAtLocked(std::int64_t index) const;
    // Falls back to the name sort when there are too many names for a column sort.
    void limitSortLocked(std::size_t count);

    // Queues `work`; throws what the queue throws (after shutdown: std::runtime_error).
    void pushTask(std::function<void()> work);
    // Queues `work`, or logs why the queue refused it.
    bool tryPushTask(std::function<void()> work);
    // Queues `work` as one job counted in mCallbackCounter; it is skipped once shutting down.
    void pushCountedJob(std::function<void()> work);
    void countJobOut(std::mutex& mutex);
    void shutDown();

    std::shared_ptr<std::mutex> mMutex;
    std::shared_ptr<bool> mIsShuttingDown;
    std::int32_t mCallbackCounter;
    std::condition_variable mCallbackCondition;
    connector::message_service::MessageService::Ptr mMessageService;
    std::string mChannelId;
    std::shared_ptr<threadutil::OrderedWorkQueue> mTaskQueue;
    std::shared_ptr<WSDataModel> mDataModel;
    PubSubVMImpl mPubSubVM;
    PubSubDSImpl mPubSubDS;
    // The names listed and their display order (the name set and list), guarded by
    // mStateMutex.
    std::unique_ptr<DisplayOrder> mOrder;
    std::vector<std::string> mSelectedVariables;
    ViewModelCallback mRenameCallback;
    ViewModelCallback mEditValueCallback;
    std::function<void(std::vector<std::string>, std::string)> mSelectionCallback;
    std::function<void(unsigned long)> mCountCallback;
    std::int32_t mStartRow;
    std::int32_t mEndRow;
    std::int32_t mStartColumn;
    std::int32_t mEndColumn;
    std::string mSortColumn;
    bool mExactNumericOrder = false; // guarded by mStateMutex
    bool mSortAscending;
    bool mHandleStartupServices;
    Connection mDataModelConnection;
    std::vector<std::u16string> mColumnNames;
    std::vector<std::u16string> mColumnKeys;
    std::vector<double> mColumnWidths;
    bool mStatsFlag;
    double mStatsLimit;
    std::shared_ptr<connector::message_service::Subscription> mDesktopSubscription;

    // Guards the view state that client messages, queued work and late host answers share:
    // the name set and list, the selection, the viewport, the sort state, the column and
    // statistics settings and mHandleStartupServices.
    mutable std::mutex mStateMutex;
    // Held while a page of rows is checked against the display order and published, so that a
    // page for an older order cannot go out after the page of a newer one. Recursive because the
    // message service may deliver on the publishing thread into a handler that publishes.
    std::recursive_mutex mPublishMutex;
    bool mPreShutdownDone = false; // guarded by *mMutex
    // Lets answers that the host sends late, from its own thread, reach this object only while
    // it is alive; the destructor closes it and waits for the ones in progress.
    std::shared_ptr<LifetimeGate> mGate;
};

} // namespace workspace_browser_startup
