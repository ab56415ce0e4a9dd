#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "ClientRecord.hpp"
#include "LifetimeGate.hpp"
#include "ModelProperties.hpp"
#include "RowSelection.hpp"
#include "ViewportMath.hpp"

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/i18n/MessageCatalog.hpp>
#include <workspace_browser/platform/i18n/MessageID.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/DSModelEventData.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>
#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <boost/locale/encoding_utf.hpp>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <exception>
#include <limits>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace workspace_browser_startup {

using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;

const std::string WSViewModel::CELL_VALUE = "value";
const std::string WSViewModel::CELL_EDITABLE = "editable";
const std::string WSViewModel::CELL_EDITOR_VALUE = "editorValue";
const std::string WSViewModel::CELL_CLASS = "class";
const std::string WSViewModel::CELL_IS_META_DATA = "isMetaData";

namespace {

constexpr int kLogLevel = foundation::log::kOrdinary;
constexpr const char* kTraceFile = "WSViewModel.cpp";

const std::string kDesktopChannel = "/DesktopWSB";
const std::string kStartupServices = "StartupServices";
const std::string kPagingChannelSuffix = "_who";
const std::string kQueueName = "wsViewModel";
const std::string kNameColumn = "Name";
const std::string kValueColumn = "Value";
const char* const kDashedLine = "-----------------------------";

// Above this many variables sorting every row by a column costs too much: only the name
// column stays sortable, and a column sort in force falls back to the name.
constexpr std::size_t kMaxSortableVariables = ModelProperties::kMaxSortableRows;
// Rows fetched beyond the viewport's end on a refresh, so that a little scrolling needs no fetch.
constexpr std::int64_t kRefreshRowMargin = 200;

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatools::WSViewModel");
    return instance;
}

const foundation::log::basic_diagnostic_logger& perfLogger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatoolsperf::WSViewModel");
    return instance;
}

// Set while one of a view model's work items runs on its queue thread, so that a shutdown asked
// for from inside such an item does not wait for itself.
thread_local const void* tRunningQueueOwner = nullptr;

std::string toUtf8(const std::u16string& text) {
    return boost::locale::conv::utf_to_utf<char>(text);
}

std::vector<std::string> uStringVectorToStdStringVector(const std::vector<std::u16string>& texts) {
    std::vector<std::string> result;
    result.reserve(texts.size());
    for (const std::u16string& text : texts)
        result.push_back(toUtf8(text));
    return result;
}

// Streams a list of texts separated by ", ".
struct Joined {
    const std::vector<std::string>& texts;
};

std::ostream& operator<<(std::ostream& out, const Joined& joined) {
    for (std::size_t i = 0; i < joined.texts.size(); ++i)
        out << (i == 0 ? "" : ", ") << joined.texts[i];
    return out;
}

std::string rowsText(const std::vector<std::int32_t>& rows) {
    std::string text;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (i != 0)
            text += ", ";
        text += std::to_string(rows[i]);
    }
    return text;
}

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

// Lets callbacks that may arrive after the view model is gone (host answers from the host's
// thread, desktop messages) in only while it is alive. Thread-safe.
// What a page publication needs from the view state, taken once when the page is requested:
// a host that answers late must still publish the rows it was asked for, in the order asked.
struct WSViewModel::PageRequest {
    std::size_t start = 0; // first row, inclusive
    std::size_t end = 0;   // last row, exclusive
    bool byName = true;
    std::string sortColumn;
    bool ascending = true;
    std::vector<std::string> orderedColumns;
    std::unordered_set<std::string> visible;
    // The order the rows were taken from, and under a column sort the names of the rows.
    std::uint64_t generation = 0;
    std::vector<std::string> rowNames;
};

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
      mVariableNameSet(TextAlphabeticalSortComparator{true}),
      mRenameCallback(std::move(renameCallback)), mEditValueCallback(std::move(editValueCallback)),
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
            for (const std::string& name : names)
                mVariableNameSet.insert(mVariableNameSet.end(), name);
            mVariableNames = std::move(names);
            if (!mSortAscending)
                std::sort(mVariableNames.begin(), mVariableNames.end(),
                          TextAlphabeticalSortComparator{false});
            ++mNamesGeneration;
            ++mOrderGeneration;
            count = mVariableNames.size();
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
    const std::size_t rows = mDataModel->getSize();
    std::size_t columns = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        columns = mColumnNames.size();
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
            rows = rowsText(RowSelection::rowsOf(mVariableNames, selected));
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

// ---------------------------------------------------------------------------------------------
// Workspace changes

void WSViewModel::applyDataModelEvents(const WSListenersSubscriptionCallbackArg& events) {
    WSB_LOG(logger(), kLogLevel) << "Variables Changed from Data Model";
    try {
        bool namesChanged = false;
        bool clearSelection = false;
        bool selectedRemoved = false;
        bool republishColumns = false;
        std::size_t oldCount = 0;
        std::size_t count = 0;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            oldCount = mVariableNameSet.size();
            for (const EventInfo& event : events) {
                switch (event.type) {
                case EventType::VARIABLE_DELETED:
                    for (const std::string& name : event.variableNames) {
                        mVariableNameSet.erase(name);
                        if (std::erase(mSelectedVariables, name) > 0)
                            selectedRemoved = true;
                    }
                    namesChanged = true;
                    break;
                case EventType::VARIABLE_CHANGED: {
                    WSB_LOG(logger(), kLogLevel)
                        << "WSViewModel Handling VARIABLE_CHANGED or ADDED";
                    const std::size_t before = mVariableNameSet.size();
                    for (const std::string& name : event.variableNames)
                        mVariableNameSet.insert(name);
                    if (mVariableNameSet.size() > before)
                        namesChanged = true;
                    break;
                }
                case EventType::WORKSPACE_CLEARED:
                    WSB_LOG(logger(), kLogLevel) << "WSViewModel Handling WORKSPACE_CLEARED";
                    mVariableNameSet.clear();
                    namesChanged = true;
                    clearSelection = true;
                    break;
                default:
                    // New names arrive as changed variables; the data model sends added ones
                    // that way too.
                    break;
                }
            }
            count = mVariableNameSet.size();
            // The display order is rebuilt from the set by sortVariables below; an empty set
            // needs no sort.
            if (namesChanged && count == 0) {
                setVariableNamesLocked({});
                ++mNamesGeneration;
            }
            if (!namesChanged)
                count = oldCount;
        }

        if (namesChanged) {
            if (mCountCallback)
                mCountCallback(count);

            {
                std::lock_guard<std::mutex> lock(mStateMutex);
                if (oldCount <= kMaxSortableVariables && count > kMaxSortableVariables) {
                    if (mSortColumn != kNameColumn) {
                        WSB_LOG(logger(), kLogLevel) << "Reset sort to alphabetical by name";
                        mSortColumn = kNameColumn;
                        mSortAscending = true;
                    }
                    republishColumns = true;
                } else if (oldCount > kMaxSortableVariables && count <= kMaxSortableVariables) {
                    republishColumns = true;
                }
            }

            if (count > 0)
                sortVariables();
            WSB_LOG(logger(), kLogLevel) << "Variables updated. new size=" << count;
        }

        std::shared_ptr<DSEvent> event;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            event = ViewportMath::tableEvent(count, mColumnNames.size(), mStartRow, mEndRow,
                                             std::max(mStartColumn, 0), count != oldCount);
        }
        if (count < 2)
            clearSelection = true;
        WSB_LOG(logger(), kLogLevel) << "endRow before publishData: " << event->endRow;

        publishData(event, false);

        if (clearSelection)
            selectionChanged({});
        else if (count == oldCount && selectedRemoved)
            updateSelectedRowsToSelectedVariables();

        if (republishColumns)
            publishColumnModelProps(event, false);
    } catch (const std::exception& e) {
        WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
    }
}

// ---------------------------------------------------------------------------------------------
// Sorting

void WSViewModel::handleSortChanged(int sortColumn, bool sortAscending) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    WSB_LOG(logger(), kLogLevel) << "handleSortChanged sortColumn: " << sortColumn
                                 << " sortAscending: " << (sortAscending ? 1 : 0);
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        // The index counts the columns as the grid shows them, the same way pages and edits do.
        // A column the grid does not have throws std::out_of_range back to the channel.
        std::string column = orderedColumnAtLocked(sortColumn);
        if (column.empty())
            throw std::out_of_range("handleSortChanged: no such column");
        mSortColumn = std::move(column);
        mSortAscending = sortAscending;
        limitSortLocked(mVariableNames.size());
    }
    pushCountedJob([this] {
        sortVariables();
        std::shared_ptr<DSEvent> event;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            event = ViewportMath::tableEvent(mVariableNames.size(), mColumnNames.size(), mStartRow,
                                             mEndRow, 0, true);
        }
        publishData(event, false);
        updateSelectedRowsToSelectedVariables();
    });
}

void WSViewModel::sortVariables() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::vector<std::string> names;
    std::string column;
    bool ascending = true;
    std::uint64_t generation = 0;
    std::vector<std::string> fields;
    bool statsFlag = false;
    double statsLimit = 0;
    std::shared_ptr<std::unordered_set<std::string>> listed;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        limitSortLocked(mVariableNameSet.size());
        generation = ++mNamesGeneration;
        column = mSortColumn;
        ascending = mSortAscending;
        if (column == kNameColumn) {
            // The set already holds the names in ascending name order, and that order is a
            // strict total order whose descending form is its exact reverse: sorting by name is
            // a copy, reversed for descending.
            if (ascending)
                names.assign(mVariableNameSet.begin(), mVariableNameSet.end());
            else
                names.assign(mVariableNameSet.rbegin(), mVariableNameSet.rend());
        } else {
            setVariableNamesLocked({mVariableNameSet.begin(), mVariableNameSet.end()});
            // The records cover every name the data model knows; the grid lists only its own
            // (a refresh may have listed fewer).
            listed = std::make_shared<std::unordered_set<std::string>>(mVariableNameSet.begin(),
                                                                       mVariableNameSet.end());
            fields = uStringVectorToStdStringVector(mColumnNames);
            statsFlag = mStatsFlag;
            statsLimit = mStatsLimit;
        }
    }

    if (column == kNameColumn) {
        std::lock_guard<std::mutex> lock(mStateMutex);
        if (generation == mNamesGeneration)
            setVariableNamesLocked(std::move(names));
        return;
    }

    // The records may come twice, the second time late and from the host's thread; a newer
    // rebuild of the list in the meantime wins over them.
    const std::shared_ptr<LifetimeGate> gate = mGate;
    WSVariablesCallback onRecords = [this, gate, column, ascending, generation,
                                     listed](std::vector<WSVariable> records) {
        const LifetimeGate::Pass pass(*gate);
        if (!pass)
            return;
        WSB_LOG(logger(), kLogLevel) << "Sort Column: " << column;
        std::erase_if(records, [&listed](const WSVariable& record) {
            return !listed->contains(record.name);
        });
        WSVariableAlphabeticalSortComparator{ascending, column}.sort(records);
        std::vector<std::string> sorted;
        sorted.reserve(records.size());
        for (WSVariable& record : records)
            sorted.push_back(std::move(record.name));
        std::lock_guard<std::mutex> lock(mStateMutex);
        if (generation == mNamesGeneration)
            setVariableNamesLocked(std::move(sorted));
    };
    mDataModel->getVariables(mDataModel->getVariableNames(), std::move(fields), statsFlag,
                             statsLimit, std::move(onRecords), false);
}

void WSViewModel::setVariableNamesLocked(std::vector<std::string> names) {
    if (names == mVariableNames)
        return;
    mVariableNames = std::move(names);
    ++mOrderGeneration;
}

void WSViewModel::limitSortLocked(std::size_t count) {
    if (count > kMaxSortableVariables && mSortColumn != kNameColumn) {
        WSB_LOG(logger(), kLogLevel) << "Reset sort to alphabetical by name";
        mSortColumn = kNameColumn;
        mSortAscending = true;
    }
}

std::string WSViewModel::orderedColumnAtLocked(std::int64_t index) const {
    const std::vector<std::string> ordered = orderedColumnsLocked();
    if (index < 0 || index >= static_cast<std::int64_t>(ordered.size()))
        return {};
    return ordered[static_cast<std::size_t>(index)];
}

// ---------------------------------------------------------------------------------------------
// Viewport and data publishing

void WSViewModel::handleSetViewportRange(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::int32_t startRow = 0;
    std::int32_t endRow = 0;
    std::int32_t startColumn = 0;
    std::int32_t endColumn = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        // The columns are bounded by the row count as well: the grid relies on it.
        const std::int32_t count =
            ViewportMath::toInt32(static_cast<std::int64_t>(mVariableNames.size()));
        mStartRow = startRow = std::min(count, std::max(event.startRow, 0));
        mEndRow = endRow = std::min(count, std::max(event.endRow, 0));
        mStartColumn = startColumn = std::min(count, std::max(event.startColumn, 0));
        mEndColumn = endColumn = std::min(count, std::max(event.endColumn, 0));
    }
    WSB_LOG(logger(), kLogLevel) << "Viewport Range startRow=" << startRow << " endRow=" << endRow
                                 << " startCol=" << startColumn << " endColumn=" << endColumn;
}

void WSViewModel::handleClientGetData(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    doBackgroundGetData(event, false);
}

void WSViewModel::doBackgroundGetData(const DSEvent& event, bool forceUpdate) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    auto job = std::make_shared<DSEvent>(event);
    WSB_LOG(logger(), kLogLevel) << kDashedLine;
    WSB_LOG(logger(), kLogLevel) << "doBackgroundGetData, forceUpdate = "
                                 << (forceUpdate ? "true" : "false")
                                 << ", startRow=" << job->startRow << ", endRow=" << job->endRow;
    WSB_LOG(logger(), kLogLevel) << kDashedLine;
    pushCountedJob([this, job, forceUpdate] { publishData(job, forceUpdate); });
}

void WSViewModel::publishData(std::shared_ptr<DSEvent> event, bool forceUpdate) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    auto request = std::make_shared<PageRequest>();
    std::vector<std::string> fields;
    std::vector<std::string> names;
    bool statsFlag = false;
    double statsLimit = 0;
    std::size_t listSize = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        listSize = mVariableNames.size();
        const std::int64_t end = std::clamp<std::int64_t>(std::int64_t{event->endRow} + 1, 0,
                                                          static_cast<std::int64_t>(listSize));
        request->end = static_cast<std::size_t>(end);
        request->start =
            static_cast<std::size_t>(std::clamp<std::int64_t>(event->startRow, 0, end));
        request->sortColumn = mSortColumn;
        request->ascending = mSortAscending;
        request->byName = mSortColumn == kNameColumn;
        request->orderedColumns = orderedColumnsLocked();
        fields = uStringVectorToStdStringVector(mColumnNames);
        statsFlag = mStatsFlag;
        statsLimit = mStatsLimit;
        // Under a column sort the request keeps the names to find its rows again.
        std::vector<std::string>& rowNames = request->byName ? names : request->rowNames;
        rowNames.assign(mVariableNames.begin() + static_cast<std::ptrdiff_t>(request->start),
                        mVariableNames.begin() + static_cast<std::ptrdiff_t>(request->end));
        request->generation = mOrderGeneration;
    }
    request->visible.insert(request->orderedColumns.begin(), request->orderedColumns.end());
    WSB_LOG(logger(), kLogLevel) << "Obtained start and end. mVariableNames.size()=" << listSize
                                 << " start=" << request->start << " end=" << request->end;

    const std::shared_ptr<LifetimeGate> gate = mGate;
    WSVariablesCallback onRecords = [this, gate, event, request](std::vector<WSVariable> records) {
        const LifetimeGate::Pass pass(*gate);
        if (!pass)
            return;
        // This may run on the host's thread, where nothing must escape.
        try {
            publishPage(event, *request, std::move(records));
        } catch (const std::exception& e) {
            WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
        }
    };

    if (request->byName) {
        WSB_LOG(logger(), kLogLevel) << "Publish Data Variables: " << Joined{names};
        WSB_LOG(logger(), kLogLevel) << "Created variablesInRange. size=" << names.size();
        mDataModel->getVariables(std::move(names), std::move(fields), statsFlag, statsLimit,
                                 std::move(onRecords), forceUpdate);
    } else {
        WSB_LOG(logger(), kLogLevel) << "Sorting by: " << request->sortColumn;
        mDataModel->getVariables(mDataModel->getVariableNames(), std::move(fields), statsFlag,
                                 statsLimit, std::move(onRecords), forceUpdate);
    }
}

void WSViewModel::publishPage(const std::shared_ptr<DSEvent>& event, const PageRequest& request,
                              std::vector<WSVariable> records) {
    WSB_LOG(logger(), kLogLevel) << "Got variables from WSDataModel. variables.size()="
                                 << records.size();
    if (!request.byName) {
        // Laid out in the list's order, with the records looked up by name, rather than by
        // sorting the records again: they may have changed since the list was sorted, and each
        // row must show the variable that an edit or a selection of that row acts on.
        std::unordered_map<std::string_view, std::size_t> byName;
        byName.reserve(records.size());
        for (std::size_t i = 0; i < records.size(); ++i)
            byName.try_emplace(records[i].name, i);
        std::vector<WSVariable> rows;
        rows.reserve(request.rowNames.size());
        for (const std::string& name : request.rowNames) {
            const auto found = byName.find(name);
            if (found != byName.end())
                rows.push_back(records[found->second]);
            else
                rows.push_back(WSVariable{.name = name}); // gone from the data model meanwhile
        }
        records = std::move(rows);
    }

    // Each reply is a fresh copy: the first and the second delivery of one request may overlap
    // with other publications of the same event.
    DSEvent page = *event;
    page.data.clear();
    page.data.reserve(records.size());
    const bool logEach = logger().enabled(kLogLevel);
    for (const WSVariable& record : records) {
        const WSVariable client = ClientRecord::make(record, request.visible);
        if (logEach) {
            WSB_LOG(logger(), kLogLevel)
                << "Created entry for variable. Name=" << record.name << " Value=" << record.value;
        }
        Array row;
        for (std::size_t c = 0; c < request.orderedColumns.size(); ++c) {
            const auto position = static_cast<std::int64_t>(c);
            if (position >= page.startColumn && position <= page.endColumn)
                row.emplace_back(WSDataModel::getVariableValue(client, request.orderedColumns[c]));
        }
        page.data.emplace_back(std::move(row));
    }

    {
        // A page taken from an older order would show rows that edits and selections no longer
        // map to (a host answering late, after a sort or a workspace change): it is asked for
        // again in the current order instead. Checked and sent under one lock, so that no page
        // of an older order goes out after the newer order's own page.
        const std::lock_guard<std::recursive_mutex> publishing(mPublishMutex);
        bool current = false;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            current = request.generation == mOrderGeneration;
        }
        if (current) {
            WSB_LOG(logger(), kLogLevel)
                << "Created DSEvent startRow=" << page.startRow << ", endRow=" << page.endRow
                << ", fullStartRow=" << page.fullStartRow << ", fullEndRow=" << page.fullEndRow
                << "newData.size()=" << page.data.size();
            mPubSubDS.dataUpdated(page);
            return;
        }
    }
    WSB_LOG(logger(), kLogLevel) << "Rows reordered while fetching, fetching startRow="
                                 << event->startRow << ", endRow=" << event->endRow << " again";
    // The answer has just refreshed the cache, so the new request needs no forced fetch.
    doBackgroundGetData(*event, false);
}

WSVariable WSViewModel::getWSVariableForClient(const WSVariable& variable) {
    std::vector<std::string> ordered;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        ordered = orderedColumnsLocked();
    }
    const std::unordered_set<std::string> visible(ordered.begin(), ordered.end());
    return ClientRecord::make(variable, visible);
}

void WSViewModel::handleClientSetData(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    WSB_LOG(logger(), kLogLevel) << "handleClientSetData row:" << event.startRow
                                 << " column:" << event.startColumn;
    // The client counts rows and columns from 1 here. Indices outside the lists throw
    // std::out_of_range back to the channel and the edit is dropped.
    const auto rowIndex = static_cast<std::size_t>(std::int64_t{event.startRow} - 1);
    const auto columnIndex = static_cast<std::size_t>(std::int64_t{event.startColumn} - 1);
    std::string name;
    std::string columnKey;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        name = mVariableNames.at(rowIndex);
        // The column counts the columns as the grid shows them, as pages and sorts do.
        columnKey = orderedColumnAtLocked(static_cast<std::int64_t>(columnIndex));
        if (columnKey.empty())
            throw std::out_of_range("handleClientSetData: no such column");
    }
    if (event.data.empty())
        throw std::out_of_range("handleClientSetData: the edit carries no text");
    const std::string newText = JsonTypedValues::toString(event.data.front());

    if (columnKey == kNameColumn) {
        WSB_LOG(logger(), kLogLevel) << "Rename: " << name << " to: " << newText;
        // The row being renamed normally still holds the old name, so the client's selected
        // rows stay right; only when that row has gone meanwhile are they recomputed.
        bool oldNameListed = false;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            oldNameListed = std::find(mVariableNames.begin(), mVariableNames.end(), name) !=
                            mVariableNames.end();
        }
        mRenameCallback(name, newText);
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            mSelectedVariables = {newText};
        }
        mPubSubVM.selectedVariablesUpdated({newText});
        if (!oldNameListed)
            updateSelectedRowsToSelectedVariables();
    } else if (columnKey == kValueColumn) {
        WSB_LOG(logger(), kLogLevel) << "Edit value: " << name << " to: " << newText;
        mEditValueCallback(name, newText);
    }
}

void WSViewModel::handleRefresh(std::vector<std::string> variables, bool immediateUpdate) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    const LifetimeGate::Pass pass(*mGate);
    if (!pass || !acceptsClientMessages())
        return;
    bool byColumn = false;
    std::int64_t count = 0;
    std::int64_t columns = 0;
    std::int32_t startRow = 0;
    std::int32_t endRow = 0;
    std::int32_t startColumn = 0;
    std::int32_t endColumn = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        mVariableNameSet.clear();
        for (const std::string& name : variables)
            mVariableNameSet.insert(name);
        limitSortLocked(variables.size());
        std::sort(variables.begin(), variables.end(),
                  TextAlphabeticalSortComparator{mSortAscending});
        setVariableNamesLocked(std::move(variables));
        ++mNamesGeneration;
        byColumn = mSortColumn != kNameColumn;
        count = static_cast<std::int64_t>(mVariableNames.size());
        columns = static_cast<std::int64_t>(mColumnNames.size());
        startRow = mStartRow;
        endRow = mEndRow;
        startColumn = mStartColumn;
        endColumn = mEndColumn;
    }
    // Under a column sort the pages come in that column's order, so the rows are put in that
    // order too: a rename, edit or selection of a row must act on the variable the row shows.
    if (byColumn) {
        sortVariables();
        std::lock_guard<std::mutex> lock(mStateMutex);
        count = static_cast<std::int64_t>(mVariableNames.size());
    }
    mPubSubDS.sizeUpdated(ViewportMath::toInt32(count), ViewportMath::toInt32(columns));
    if (immediateUpdate)
        publishVariableNames();

    WSB_LOG(logger(), kLogLevel) << "Refresh startRow=" << startRow << " endRow=" << endRow
                                 << " startCol=" << startColumn << " endColumn=" << endColumn;

    DSEvent event;
    if (!(startRow == 0 && endRow == 0) && count > 0) {
        const std::int64_t first = std::clamp<std::int64_t>(startRow, 0, count - 1);
        event.startRow = ViewportMath::toInt32(first);
        event.endRow = ViewportMath::toInt32(
            std::clamp<std::int64_t>(endRow + kRefreshRowMargin, first, count - 1));
    } else {
        event.startRow = 0;
        event.endRow = ViewportMath::toInt32(
            std::max<std::int64_t>(std::min(count - 1, kRefreshRowMargin), 0));
    }
    event.startColumn = ViewportMath::toInt32(std::clamp<std::int64_t>(startColumn, 0, count));
    event.endColumn = endColumn;
    event.fullStartRow = 0;
    event.fullEndRow = ViewportMath::toInt32(count - 1);
    event.fullStartColumn = 0;
    event.fullEndColumn = ViewportMath::lastIndex(static_cast<std::size_t>(columns));
    event.sizeChanged = true;
    WSB_LOG(logger(), kLogLevel) << "Refresh resolved startRow=" << event.startRow
                                 << " endRow=" << event.endRow << " startCol=" << event.startColumn
                                 << " endColumn=" << event.endColumn;
    doBackgroundGetData(event, true);
}

void WSViewModel::publishVariableNames() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    // Read and sent under one lock, as pages are, so that they go out in the order of the
    // orders they show.
    const std::lock_guard<std::recursive_mutex> publishing(mPublishMutex);
    std::vector<std::string> names;
    std::vector<std::string> ordered;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        names = mVariableNames;
        ordered = orderedColumnsLocked();
    }
    // The other cells stay blank until the real rows arrive.
    DSEvent event = ViewportMath::wholeTable(names.size(), ordered.size());
    event.data.reserve(names.size());
    for (const std::string& name : names)
        event.data.emplace_back(ClientRecord::standBy(name, ordered));
    WSB_LOG(logger(), kLogLevel) << "Publish Data Variables: " << Joined{names};
    mPubSubDS.dataUpdated(event);
}

// ---------------------------------------------------------------------------------------------
// Metadata, columns and statistics settings

std::vector<std::string> WSViewModel::getOrderedColumns() {
    std::lock_guard<std::mutex> lock(mStateMutex);
    return orderedColumnsLocked();
}

std::vector<std::string> WSViewModel::orderedColumnsLocked() const {
    const std::vector<std::string> visibleKeys = uStringVectorToStdStringVector(mColumnNames);
    const std::unordered_set<std::string> visible(visibleKeys.begin(), visibleKeys.end());
    std::vector<std::string> ordered;
    for (const std::u16string& key : mColumnKeys) {
        std::string utf8 = toUtf8(key);
        if (visible.count(utf8) != 0)
            ordered.push_back(std::move(utf8));
    }
    return ordered;
}

void WSViewModel::handleClientGetTableMetaData(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    auto job = std::make_shared<DSEvent>(event);
    tryPushTask([this, job] { publishTableModelProps(job); });
}

void WSViewModel::handleClientGetColumnMetaData(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    auto job = std::make_shared<DSEvent>(event);
    tryPushTask([this, job] {
        try {
            publishColumnModelProps(job, true);
        } catch (const std::exception& e) {
            WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
        }
    });
}

void WSViewModel::handleClientGetRowMetaData(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    auto job = std::make_shared<DSEvent>(event);
    tryPushTask([this, job] { publishRowModelProps(job); });
}

void WSViewModel::handleClientGetCellMetaData(const DSEvent& event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    auto job = std::make_shared<DSEvent>(event);
    tryPushTask([this, job] { publishCellModelProps(job); });
}

void WSViewModel::publishTableModelProps(std::shared_ptr<DSEvent> event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::vector<std::string> selected;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        selected = mSelectedVariables;
    }
    mPubSubDS.metaDataUpdated(ModelProperties::table(*event, selected));
    WSB_LOG(logger(), kLogLevel) << "Created TableModelProperties DSModelEvent";
}

void WSViewModel::publishColumnModelProps(std::shared_ptr<DSEvent> event, bool useEventRange) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::vector<std::string> columns;
    std::vector<double> widths;
    std::size_t rowCount = 0;
    DSEvent range;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        columns = orderedColumnsLocked();
        widths = mColumnWidths;
        rowCount = mVariableNames.size();
        if (useEventRange) {
            range = *event;
        } else {
            // The whole table, but its last row not clamped: an empty table ends at row -1.
            range = ViewportMath::wholeTable(rowCount, mColumnNames.size());
            range.endRow = range.fullEndRow =
                ViewportMath::toInt32(static_cast<std::int64_t>(rowCount) - 1);
        }
    }
    // Fewer widths than columns is a settings error: std::out_of_range, nothing published.
    mPubSubDS.metaDataUpdated(ModelProperties::columns(range, columns, widths, rowCount));
    WSB_LOG(logger(), kLogLevel) << "Created ColumnModelProperties DSModelEvent";
}

void WSViewModel::publishRowModelProps(std::shared_ptr<DSEvent> event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::size_t columnCount = 0;
    std::size_t rowCount = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        columnCount = mColumnNames.size();
        rowCount = mVariableNames.size();
    }
    DSModelEvent model = ModelProperties::rows(*event, rowCount, columnCount);
    WSB_LOG(logger(), kLogLevel) << "publishRowModelProps, startRow = " << event->startRow
                                 << ", endRow = " << event->endRow;
    mPubSubDS.metaDataUpdated(model);
}

void WSViewModel::publishCellModelProps(std::shared_ptr<DSEvent> event) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::size_t columnCount = 0;
    std::size_t rowCount = 0;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        columnCount = orderedColumnsLocked().size();
        rowCount = mVariableNames.size();
    }
    DSModelEvent model = ModelProperties::cells(*event, columnCount, rowCount);
    WSB_LOG(logger(), kLogLevel) << "publishCellModelProps, startRow = " << event->startRow
                                 << ", endRow = " << event->endRow;
    mPubSubDS.metaDataUpdated(model);
}

void WSViewModel::updateColumnSettings(const std::vector<std::u16string>& columnNames,
                                       const std::vector<std::u16string>& columnOrder,
                                       const std::vector<double>& columnWidths) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::shared_ptr<DSEvent> event;
    bool columnCountChanged = false;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        columnCountChanged = columnNames.size() != mColumnNames.size();
        mColumnNames = columnNames;
        mColumnKeys = columnOrder;
        mColumnWidths = columnWidths;
        event = ViewportMath::tableEvent(mVariableNames.size(), mColumnNames.size(), mStartRow,
                                         mEndRow, mStartColumn, columnCountChanged);
    }
    if (columnCountChanged)
        handleClientGetSize();
    handleClientGetColumnMetaData(*event);
    handleClientGetData(*event);
}

void WSViewModel::updateStatsSettings(bool statsFlag, double statsLimit) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::shared_ptr<DSEvent> event;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        if (statsFlag == mStatsFlag && statsLimit == mStatsLimit)
            return;
        mStatsFlag = statsFlag;
        mStatsLimit = statsLimit;
        event = ViewportMath::tableEvent(mVariableNames.size(), mColumnNames.size(), mStartRow,
                                         mEndRow, mStartColumn, false);
    }
    doBackgroundGetData(*event, true);
}

// ---------------------------------------------------------------------------------------------
// Selection

void WSViewModel::handleSelectionChanged(std::vector<RowRange> rows) {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    const LifetimeGate::Pass pass(*mGate);
    if (!pass || !acceptsClientMessages())
        return;
    selectionChanged(rows);
}

void WSViewModel::selectionChanged(const std::vector<RowRange>& rows) {
    std::vector<std::string> selected;
    std::string text;
    std::size_t count = 0;
    std::size_t columnCount = 0;
    bool handOver = false;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        count = mVariableNames.size();
        RowSelection::Picked picked = RowSelection::namesIn(mVariableNames, rows);
        mSelectedVariables = std::move(picked.names);
        for (const std::int64_t row : picked.rows)
            text += (text.empty() ? "" : ", ") + std::to_string(row);
        selected = mSelectedVariables;
        columnCount = mColumnNames.size();
        handOver = !selected.empty() && !mHandleStartupServices;
        if (handOver)
            mHandleStartupServices = true;
    }
    WSB_LOG(logger(), kLogLevel) << "handleSelectionChanged: " << text;
    mPubSubVM.selectedVariablesUpdated(selected);

    // The table properties carry the selected names.
    handleClientGetTableMetaData(ViewportMath::wholeTable(count, columnCount));

    if (!handOver)
        return;
    WSB_LOG(logger(), kLogLevel) << "mHandleStartupServices after first selection is made, rows: "
                                 << text;
    tryPushTask([this, selected = std::move(selected), text = std::move(text)] {
        if (mSelectionCallback)
            mSelectionCallback(selected, text);
    });
}

void WSViewModel::updateSelectedRowsToSelectedVariables() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    std::vector<RowRange> ranges;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        // Rows in the order the names were selected, not sorted.
        if (!mSelectedVariables.empty())
            ranges = RowSelection::runs(RowSelection::rowsOf(mVariableNames, mSelectedVariables));
    }
    // The selected names are kept even when none is listed now: they may come back with the
    // next workspace change.
    if (ranges.empty())
        WSB_LOG(logger(), kLogLevel) << "Selected variables not found, clearing selection";
    else
        WSB_LOG(logger(), kLogLevel) << "Updating selected variables";
    mPubSubVM.selectedRowsUpdated(std::move(ranges));
}

void WSViewModel::gridSizeChanged() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    const LifetimeGate::Pass pass(*mGate);
    if (!pass || !acceptsClientMessages())
        return;
    updateSelectedRowsToSelectedVariables();
}

} // namespace workspace_browser_startup
