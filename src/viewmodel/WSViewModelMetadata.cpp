// The view model's metadata, column and statistics settings, and selection.

#include "WSViewModelParts.hpp"

#include "DisplayOrder.hpp"

#include "LifetimeGate.hpp"
#include "ModelProperties.hpp"
#include "RowSelection.hpp"
#include "ViewportMath.hpp"

#include <workspace_browser/platform/json/Value.hpp>

#include <cstddef>
#include <exception>
#include <stdexcept>
#include <utility>

namespace workspace_browser_startup {

using namespace wsviewmodel;

namespace {

constexpr const char* kTraceFile = "WSViewModelMetadata.cpp";

} // namespace

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
        rowCount = mOrder->names().size();
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
        rowCount = mOrder->names().size();
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
        rowCount = mOrder->names().size();
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
        event = ViewportMath::tableEvent(mOrder->names().size(), mColumnNames.size(), mStartRow,
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
        event = ViewportMath::tableEvent(mOrder->names().size(), mColumnNames.size(), mStartRow,
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
        count = mOrder->names().size();
        RowSelection::Picked picked = RowSelection::namesIn(mOrder->names(), rows);
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
            ranges = RowSelection::runs(RowSelection::rowsOf(mOrder->names(), mSelectedVariables));
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
