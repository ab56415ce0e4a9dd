#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/viewmodel/ViewModel.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace connector::message_service {
class MessageService;
}

namespace threadutil {
// Held by pointer only: the queue's header brings Boost.Thread's futures along.
class OrderedWorkQueue;
} // namespace threadutil

namespace workspace_browser_startup {

class WSDataModel;

// Receives one group of workspace changes: the kind first ("VARIABLE_ADDED",
// "VARIABLE_CHANGED", "VARIABLE_DELETED" or "WORKSPACE_CLEARED"), then the variable names.
using VEAppNotificationFunction = std::function<void(std::vector<std::string>)>;

// A view model without a grid: it follows the workspace data model and tells the host, by name,
// which variables appeared, changed, disappeared or were cleared. Every grid and channel
// operation does nothing.
// Thread-safe: batches may arrive on any thread while onPreShutdown runs on another; the
// notification function is called on the view model's own work-queue thread, one group at a
// time, in the order the data model reported the batches.
class WSB_EXPORT VEAppViewModel : public ViewModel {
public:
    // Subscribes to `dataModel` last, so batches arrive only once the view model is complete.
    // `service` and `id` are kept but nothing is sent. Throws std::invalid_argument without a
    // data model.
    VEAppViewModel(std::shared_ptr<connector::message_service::MessageService> service,
                   std::string id, std::shared_ptr<WSDataModel> dataModel,
                   VEAppNotificationFunction notifyFcn);
    // Shuts down first if the host did not call onPreShutdown, so that no queued batch can run
    // against a destroyed view model.
    ~VEAppViewModel() override;
    VEAppViewModel(const VEAppViewModel&) = delete;
    VEAppViewModel& operator=(const VEAppViewModel&) = delete;

    void handleClientReady() override {}
    void handleSetViewportRange(const DSEvent&) override {}
    void handleClientGetSize() override {}
    void handleClientGetData(const DSEvent&) override {}
    void handleClientSetData(const DSEvent&) override {}
    void handleClientGetMetaData(const DSEvent&) override {}
    void handleClientGetTableMetaData(const DSEvent&) override {}
    void handleClientGetColumnMetaData(const DSEvent&) override {}
    void handleClientGetRowMetaData(const DSEvent&) override {}
    void handleClientGetCellMetaData(const DSEvent&) override {}
    void handleClientSetTableMetaData(const DSModelEvent&) override {}
    void handleClientSetColumnMetaData(const DSModelEvent&) override {}
    void handleClientSetRowMetaData(const DSModelEvent&) override {}
    void handleClientSetCellMetaData(const DSModelEvent&) override {}
    void handleSortChanged(int, bool) override {}

    void handleSelectionChanged(std::vector<RowRange>) override {}
    void handleFocusChanged(bool) override {}
    void handleDoubleClick(std::string) override {}
    void handleDrop(std::string, std::string) override {}
    void handleRefresh(std::vector<std::string>, bool) override {}
    void gridSizeChanged() override {}

    // Drops every batch from now on, waits until the batches already accepted have finished,
    // then stops the work queue. Calling it again does nothing more. It must not be called from
    // the notification function, which would wait for itself: that throws std::logic_error.
    void onPreShutdown() override;

private:
    class PendingBatch;

    // Runs on the queue's thread: sorts the batch against the known names and notifies.
    void processBatch(const WSListenersSubscriptionCallbackArg& events);

    // Shared with every queued batch, so that a batch that runs late still finds them valid.
    std::shared_ptr<std::mutex> mMutex;
    std::shared_ptr<bool> mShuttingDown;   // guarded by *mMutex
    std::int32_t mCallbacksInProgress = 0; // accepted, not yet finished; guarded by *mMutex
    std::condition_variable mFinished;     // signalled when mCallbacksInProgress drops
    bool mQueueTerminated = false;         // guarded by *mMutex
    std::shared_ptr<connector::message_service::MessageService> mMessageService;
    std::string mId;
    std::shared_ptr<threadutil::OrderedWorkQueue> mWorkQueue;
    std::shared_ptr<WSDataModel> mDataModel;
    VEAppNotificationFunction mNotifyFcn; // used only on the queue's thread
    std::set<std::string> mKnownNames;    // used only on the queue's thread
    Connection mConnection;               // declared last: destroyed first, so batches stop
};

} // namespace workspace_browser_startup
