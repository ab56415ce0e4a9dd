// The view model's viewport, data pages and edits.

#include "WSViewModelParts.hpp"

#include "DisplayOrder.hpp"

#include "ClientRecord.hpp"
#include "LifetimeGate.hpp"
#include "ViewportMath.hpp"

#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace workspace_browser_startup {

using foundation::json::Array;
using foundation::json::Value;
using namespace wsviewmodel;

namespace {

constexpr const char* kTraceFile = "WSViewModelPages.cpp";

} // namespace

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
            ViewportMath::toInt32(static_cast<std::int64_t>(mOrder->names().size()));
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
        listSize = mOrder->names().size();
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
        rowNames.assign(mOrder->names().begin() + static_cast<std::ptrdiff_t>(request->start),
                        mOrder->names().begin() + static_cast<std::ptrdiff_t>(request->end));
        request->generation = mOrder->order();
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
            current = request.generation == mOrder->order();
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
        name = mOrder->names().at(rowIndex);
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
            oldNameListed = std::find(mOrder->names().begin(), mOrder->names().end(), name) !=
                            mOrder->names().end();
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

void WSViewModel::publishVariableNames() {
    WSB_TRACE_SCOPE(perfLogger(), kTraceFile);
    // Read and sent under one lock, as pages are, so that they go out in the order of the
    // orders they show.
    const std::lock_guard<std::recursive_mutex> publishing(mPublishMutex);
    std::vector<std::string> names;
    std::vector<std::string> ordered;
    {
        std::lock_guard<std::mutex> lock(mStateMutex);
        names = mOrder->names();
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

} // namespace workspace_browser_startup
