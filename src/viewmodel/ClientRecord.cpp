#include "ClientRecord.hpp"

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <algorithm>
#include <cctype>

namespace workspace_browser_startup {

using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;

namespace {

constexpr int kLogLevel = foundation::log::kOrdinary;
const std::string kNameColumn = "Name";
const std::string kValueColumn = "Value";
// Icon class of the rows published before their data has been fetched.
const std::string kStandByIconClass = "double";

// The cells are logged under the view model's name: they are its replies.
const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatools::WSViewModel");
    return instance;
}

} // namespace

std::string ClientRecord::cellText(Object cell) {
    return foundation::json::serialize(Value(std::move(cell)));
}

WSVariable ClientRecord::make(const WSVariable& variable,
                              const std::unordered_set<std::string>& visible) {
    const bool logCells = logger().enabled(kLogLevel);
    WSVariable client;
    client.isSummary = variable.isSummary;
    client.isDirty = variable.isDirty;
    client.iconClass = variable.iconClass;

    client.name = cellText({{WSViewModel::CELL_VALUE, variable.name},
                            {WSViewModel::CELL_CLASS, variable.iconClass},
                            {WSViewModel::CELL_EDITOR_VALUE, variable.name}});
    if (logCells) {
        WSB_LOG(logger(), kLogLevel) << "IconClass: " << variable.iconClass;
        WSB_LOG(logger(), kLogLevel) << "client name: " << client.name;
    }

    if (visible.count(kValueColumn) != 0) {
        client.value = cellText({{WSViewModel::CELL_VALUE, variable.value},
                                 {WSViewModel::CELL_EDITABLE, true},
                                 {WSViewModel::CELL_IS_META_DATA, variable.isSummary},
                                 {WSViewModel::CELL_EDITOR_VALUE, variable.name}});
        if (logCells)
            WSB_LOG(logger(), kLogLevel) << "client value: " << client.value;
    }
    // The read-only cells, in the table's order. Size and Class also carry the variable's name
    // for the client's editor, the statistics and Bytes do not.
    for (const WSColumn& column : WSColumn::all()) {
        if (column.editable || visible.count(std::string(column.key)) == 0)
            continue;
        Object fields{{WSViewModel::CELL_VALUE, variable.*column.field},
                      {WSViewModel::CELL_EDITABLE, false}};
        if (column.key == "Size" || column.key == "Class")
            fields[WSViewModel::CELL_EDITOR_VALUE] = variable.name;
        std::string& cell = client.*column.field;
        cell = cellText(std::move(fields));
        if (logCells) {
            std::string label(column.key);
            std::transform(label.begin(), label.end(), label.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            WSB_LOG(logger(), kLogLevel) << "client " << label << ": " << cell;
        }
    }
    return client;
}

Array ClientRecord::standBy(const std::string& name, const std::vector<std::string>& ordered) {
    static const std::string blankCell = cellText({{WSViewModel::CELL_VALUE, std::string()}});
    Array row;
    row.reserve(ordered.size());
    for (const std::string& column : ordered) {
        row.emplace_back(column == kNameColumn
                             ? cellText({{WSViewModel::CELL_VALUE, name},
                                         {WSViewModel::CELL_CLASS, kStandByIconClass},
                                         {WSViewModel::CELL_EDITOR_VALUE, name}})
                             : blankCell);
    }
    return row;
}

} // namespace workspace_browser_startup
