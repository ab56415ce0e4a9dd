#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "WSViewModelParts.hpp"

#include "DisplayOrder.hpp"
#include "LifetimeGate.hpp"
#include "RowSelection.hpp"
#include "ViewportMath.hpp"

#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <utility>

namespace workspace_browser_startup {

using namespace wsviewmodel;

const std::string WSViewModel::CELL_VALUE = "value";
const std::string WSViewModel::CELL_EDITABLE = "editable";
const std::string WSViewModel::CELL_EDITOR_VALUE = "editorValue";
const std::string WSViewModel::CELL_CLASS = "class";
const std::string WSViewModel::CELL_IS_META_DATA = "isMetaData";

namespace {

constexpr const char* kTraceFile = "WSViewModel.cpp";

// Set while one of a view model's work items runs on its queue thread, so that a shutdown asked
// for from inside such an item does not wait for itself.
thread_local const void* tRunningQueueOwner = nullptr;

// Runs a function when the scope ends, however it ends.
template <class F> class ScopeExit {
public:
    explicit ScopeExit(F f) : mF(std::move(f)) {}
    ~ScopeExit() { mF(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    F mF;
};

} // namespace

WSViewModel::WSViewModel(
    connector::message_service::MessageService::Ptr service, std::string id,
    std::shared_ptr<WSDataModel> dataModel, const std::vector<std::u16string>& columns,
    const std::vector<std::u16string>& columnKeys, const std::vector<double>& columnWidths,
    bool statsFlag, double statsLimit, ViewModelCallback renameCallback,
    ViewModelCallback editValueCallback,
    std::function<void(std::vector<std::string>, std::string)> selectionCallback,
    std::function<void(unsigned long)> countCallback)
    : mMutex(std::make_shared<std::mutex>()), mIsShuttingDown(std::make_shared<bool>(false)),
      mCallbackCounter(0),
      mMessageService(service ? std::move(service)
                              : throw std::invalid_argument("WSViewModel needs a message service")),
      mChannelId(std::move(id)), mTaskQueue(threadutil::OrderedWorkQueue::create(kQueueName)),
      mDataModel(dataModel ? std::move(dataModel)
                           : throw std::invalid_argument("WSViewModel needs a data model")),
      mPubSubVM(mMessageService, mChannelId),
      mPubSubDS(mMessageService, mChannelId + kPagingChannelSuffix),
      mOrder(std::make_unique<DisplayOrder>()), mRenameCallback(std::move(renameCallback)),
      mEditValueCallback(std::move(editValueCallback)),
      mSelectionCallback(std::move(selectionCallback)), mCountCallback(std::move(countCallback)),
      mStartRow(0), mEndRow(0), mStartColumn(0), mEndColumn(3), mSortColumn(kNameColumn),
      mSortAscending(true), mHandleStartupServices(false), mColumnNames(columns),
      mColumnKeys(columnKeys), mColumnWidths(columnWidths), mStatsFlag(statsFlag),
      mStatsLimit(statsLimit), mGate(std::make_shared<LifetimeGate>()) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);

    // The closure keeps the lock and the flag alive by itself: the data model may call it on
    // its own thread while this object is shutting down.
    const std::shared_ptr<std::mutex> mutex = mMutex;
    const std::shared_ptr<bool> shuttingDown = mIsShuttingDown;
    mDataModelConnection = mDataModel->subscribe(
        [this, mutex, shuttingDown](WSListenersSubscriptionCallbackArg events) {
            WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
            {
                std::lock_guard<std::mutex> lock(*mutex);
                if (*shuttingDown)
                    return;
                ++mCallbackCounter;
            }
            // Counts the batch out when the last of this closure and its task lets go of it.
            const std::shared_ptr<void> countOut(nullptr,
                                                 [this, mutex](void*) { countJobOut(*mutex); });
            auto batch = std::make_shared<WSListenersSubscriptionCallbackArg>(std::move(events));
            tryPushTask([this, batch, countOut] { applyDataModelEvents(*batch); });
        });

    try {
        mPubSubVM.addVMObserver(this);
        mPubSubDS.addDSObserver(this);

        const std::shared_ptr<LifetimeGate> gate = mGate;
        auto subscription = mMessageService->subscribe(
            kDesktopChannel, [this, gate](const connector::message_service::JsonMessage& message) {
                const LifetimeGate::Pass pass(*gate);
                if (!pass)
                    return;
                WSB_LOG(logger(), kLogLevel)
                    << "WSViewModel message recieved on /DesktopWSB channel";
                handleDesktopMsg(message);
            });
        if (!subscription.valid())
            throw std::runtime_error("Future state isn't valid!");
        mDesktopSubscription = subscription.get();

        // Sorted once, outside the lock, with the name set's own order: the set is then filled
        // from the back in constant time per name, which keeps a page's first answer fast on a
        // workspace of a million variables.
        std::vector<std::string> names = mDataModel->getVariableNames();
        // The data model hands them over in byte order, which is already this order for names
        // without capitals or non-ASCII bytes: the check costs one pass, the sort many more.
        const TextAlphabeticalSortComparator ascending{true};
        if (!std::is_sorted(names.begin(), names.end(), ascending))
            std::sort(names.begin(), names.end(), ascending);
        std::size_t count = 0;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            mOrder->replace(std::move(names), mSortAscending);
            count = mOrder->names().size();
        }
        WSB_LOG(logger(), kLogLevel) << "Initial update of mVariablesNames done. size=" << count;
    } catch (...) {
        // A batch may already have started the queue; it must be stopped before it is freed.
        {
            std::lock_guard<std::mutex> lock(*mMutex);
            mPreShutdownDone = true;
        }
        shutDown();
        mGate->close();
        throw;
    }
}

WSViewModel::~WSViewModel() {
    WSB_LOG(logger(), kLogLevel) << "WSViewModel destructor";
    bool shutDownNow = false;
    {
        std::lock_guard<std::mutex> lock(*mMutex);
        shutDownNow = !std::exchange(mPreShutdownDone, true);
    }
    // A host that forgot onPreShutdown still gets an orderly stop rather than a running queue
    // over a freed object.
    if (shutDownNow) {
        try {
            shutDown();
        } catch (const std::exception& e) {
            WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
        }
    }
    mGate->close();
}

// ---------------------------------------------------------------------------------------------
// Lifecycle and queue helpers

void WSViewModel::onPreShutdown() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    {
        std::lock_guard<std::mutex> lock(*mMutex);
        if (std::exchange(mPreShutdownDone, true))
            return;
    }
    shutDown();
}

void WSViewModel::shutDown() {
    mPubSubDS.removeDSObserver(this);
    // The view-model endpoint outlives the name containers and the locks declared after it, so
    // it must not call in here once this object is on its way out.
    mPubSubVM.removeVMObserver(this);
    {
        std::unique_lock<std::mutex> lock(*mMutex);
        *mIsShuttingDown = true;
        WSB_LOG(logger(), kLogLevel)
            << "WSViewModel PreShutdown mCallbackCounter = " << mCallbackCounter;
        // A batch counted in just before the flag was set may not be queued yet; once the count
        // is back at zero every counted batch has run, and no new one can start. From inside a
        // work item the wait would be for that item itself, so it is skipped there.
        if (tRunningQueueOwner != this)
            mCallbackCondition.wait(lock, [this] { return mCallbackCounter == 0; });
    }
    mTaskQueue->terminate(true);
}

bool WSViewModel::acceptsClientMessages() const {
    std::lock_guard<std::mutex> lock(*mMutex);
    return !*mIsShuttingDown;
}

void WSViewModel::countJobOut(std::mutex& mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    // Notified under the lock: the waiter may destroy this object as soon as it sees zero.
    if (--mCallbackCounter == 0)
        mCallbackCondition.notify_one();
}

void WSViewModel::pushTask(std::function<void()> work) {
    mTaskQueue->push([this, work = std::move(work)] {
        const void* const outer = std::exchange(tRunningQueueOwner, this);
        const ScopeExit restore([outer] { tRunningQueueOwner = outer; });
        work();
    });
}

bool WSViewModel::tryPushTask(std::function<void()> work) {
    try {
        pushTask(std::move(work));
        return true;
    } catch (const std::exception& e) {
        // The queue refuses work once shutdown has begun.
        WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
        return false;
    }
}

void WSViewModel::pushCountedJob(std::function<void()> work) {
    const std::shared_ptr<std::mutex> mutex = mMutex;
    const std::shared_ptr<bool> shuttingDown = mIsShuttingDown;
    tryPushTask([this, mutex, shuttingDown, work = std::move(work)] {
        {
            std::lock_guard<std::mutex> lock(*mutex);
            if (*shuttingDown)
                return;
            ++mCallbackCounter;
        }
        const ScopeExit countOut([this, mutex] { countJobOut(*mutex); });
        try {
            work();
        } catch (const std::exception& e) {
            WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Small client handlers

void WSViewModel::handleClientReady() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleClientGetSize() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::size_t rows = mDataModel->getSize();
    std::size_t columns = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        columns = mColumnNames.size();
        // A filtered grid's size is its list's, not the workspace's.
        if (mOrder->filtered())
            rows = mOrder->names().size();
    }
    mPubSubDS.sizeUpdated(ViewportMath::toInt32(static_cast<std::int64_t>(rows)),
                          std::max(ViewportMath::toInt32(static_cast<std::int64_t>(columns)), 0));
}

void WSViewModel::handleFocusChanged(bool /*hasFocus*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleDoubleClick(std::string /*variableName*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleDrop(std::string /*data*/, std::string /*workspace*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleClientGetMetaData(const DSEvent& /*event*/) {
    // A request for metadata of no particular kind: the grid asks for each kind separately.
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

// The paging endpoint never forwards the client's metadata edits; nothing is editable here.
void WSViewModel::handleClientSetTableMetaData(const DSModelEvent& /*event*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleClientSetColumnMetaData(const DSModelEvent& /*event*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleClientSetRowMetaData(const DSModelEvent& /*event*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleClientSetCellMetaData(const DSModelEvent& /*event*/) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
}

void WSViewModel::handleDesktopMsg(const connector::message_service::JsonMessage& message) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    try {
        auto json = mPubSubVM.convertMessageToJson(message);
        const std::string type = JsonTypedValues::toString(json[PubSubVMImpl::EVENT_PROPERTY_TYPE]);
        if (type != kStartupServices)
            return;

        std::vector<std::string> selected;
        std::string rows;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            selected = mSelectedVariables;
            rows = rowsText(RowSelection::rowsOf(mOrder->names(), selected));
        }
        WSB_LOG(logger(), kLogLevel) << "Handling StartupServices, rows: " << rows;
        pushTask([this, selected = std::move(selected), rows = std::move(rows)] {
            if (mSelectionCallback)
                mSelectionCallback(selected, rows);
        });
    } catch (const std::exception& e) {
        WSB_LOG(logger(), kLogLevel) << "Caught a standard exception: " << e.what();
    } catch (...) {
        WSB_LOG(logger(), kLogLevel) << "Caught an unknown exception";
    }
}

} // namespace workspace_browser_startup
