// The view model's display order: workspace changes, sorting and refresh.

#include "WSViewModelParts.hpp"

#include "DisplayOrder.hpp"
#include "ExactNumericOrder.hpp"
#include "LifetimeGate.hpp"
#include "ViewportMath.hpp"

#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace workspace_browser_startup {

using namespace wsviewmodel;

namespace {

constexpr const char* kTraceFile = "WSViewModelOrder.cpp";

} // namespace

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
        std::size_t listedBefore = 0;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            oldCount = mOrder->nameSet().size();
            listedBefore = mOrder->names().size();
            const DisplayOrder::Effect effect = mOrder->apply(events);
            namesChanged = effect.namesChanged;
            clearSelection = effect.cleared;
            // One pass over the selection, however many names went: deleting 100,000 selected
            // variables must not cost 100,000 passes.
            if (!effect.deleted.empty() && !mSelectedVariables.empty()) {
                const std::unordered_set<std::string_view> deleted(effect.deleted.begin(),
                                                                   effect.deleted.end());
                selectedRemoved =
                    std::erase_if(mSelectedVariables, [&deleted](const std::string& n) {
                        return deleted.contains(n);
                    }) > 0;
            }
            // The display order is rebuilt from the set by sortVariables below.
            count = mOrder->nameSet().size();
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
        // A filtered grid shows fewer rows than the workspace has: its sizes are the list's.
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            if (mOrder->filtered()) {
                oldCount = listedBefore;
                count = mOrder->names().size();
            }
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
        limitSortLocked(mOrder->names().size());
    }
    pushCountedJob([this] {
        sortVariables();
        std::shared_ptr<DSEvent> event;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            event = ViewportMath::tableEvent(mOrder->names().size(), mColumnNames.size(), mStartRow,
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
    bool exact = false;
    std::uint64_t generation = 0;
    std::vector<std::string> fields;
    bool statsFlag = false;
    double statsLimit = 0;
    std::shared_ptr<std::unordered_set<std::string>> listed;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        limitSortLocked(mOrder->nameSet().size());
        generation = mOrder->beginRebuild();
        column = mSortColumn;
        ascending = mSortAscending;
        exact = mExactNumericOrder;
        if (column == kNameColumn) {
            names = mOrder->byName(ascending);
        } else {
            // Until the records answer, the rows stand in name order.
            mOrder->setNames(mOrder->byName(true));
            // The records cover every name the data model knows; the grid lists only its own
            // (a refresh may have listed fewer).
            listed = std::make_shared<std::unordered_set<std::string>>();
            for (const std::string& name : mOrder->nameSet()) {
                if (mOrder->matches(name))
                    listed->insert(name);
            }
            fields = uStringVectorToStdStringVector(mColumnNames);
            statsFlag = mStatsFlag;
            statsLimit = mStatsLimit;
        }
    }

    if (column == kNameColumn) {
        std::lock_guard<std::mutex> lock(mStateMutex);
        mOrder->finishRebuild(generation, std::move(names));
        return;
    }

    // The records may come twice, the second time late and from the host's thread; a newer
    // rebuild of the list in the meantime wins over them.
    const std::shared_ptr<LifetimeGate> gate = mGate;
    WSVariablesCallback onRecords = [this, gate, column, ascending, exact, generation,
                                     listed](std::vector<WSVariable> records) {
        const LifetimeGate::Pass pass(*gate);
        if (!pass)
            return;
        WSB_LOG(logger(), kLogLevel) << "Sort Column: " << column;
        std::erase_if(records, [&listed](const WSVariable& record) {
            return !listed->contains(record.name);
        });
        if (!exact || !ExactNumericOrder::sort(records, column, ascending))
            WSVariableAlphabeticalSortComparator{ascending, column}.sort(records);
        std::vector<std::string> sorted;
        sorted.reserve(records.size());
        for (WSVariable& record : records)
            sorted.push_back(std::move(record.name));
        std::lock_guard<std::mutex> lock(mStateMutex);
        mOrder->finishRebuild(generation, std::move(sorted));
    };
    mDataModel->getVariables(mDataModel->getVariableNames(), std::move(fields), statsFlag,
                             statsLimit, std::move(onRecords), false);
}

void WSViewModel::setFilter(const std::string& text) {
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        mOrder->setFilter(text);
    }
    pushCountedJob([this] {
        sortVariables();
        std::shared_ptr<DSEvent> event;
        std::int64_t count = 0;
        std::int64_t columns = 0;
        {
            std::lock_guard<std::mutex> lock(mStateMutex);
            count = static_cast<std::int64_t>(mOrder->names().size());
            columns = static_cast<std::int64_t>(mColumnNames.size());
            event = ViewportMath::tableEvent(mOrder->names().size(), mColumnNames.size(), mStartRow,
                                             mEndRow, 0, true);
        }
        mPubSubDS.sizeUpdated(ViewportMath::toInt32(count), ViewportMath::toInt32(columns));
        publishData(event, false);
        updateSelectedRowsToSelectedVariables();
    });
}

void WSViewModel::setExactNumericOrder(bool exact) {
    std::lock_guard<std::mutex> lock(mStateMutex);
    mExactNumericOrder = exact;
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
        limitSortLocked(variables.size());
        mOrder->replace(std::move(variables), mSortAscending);
        byColumn = mSortColumn != kNameColumn;
        count = static_cast<std::int64_t>(mOrder->names().size());
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
        count = static_cast<std::int64_t>(mOrder->names().size());
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

} // namespace workspace_browser_startup
