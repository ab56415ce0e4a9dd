#include "ModelProperties.hpp"

#include "ViewportMath.hpp"

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/i18n/MessageCatalog.hpp>
#include <workspace_browser/platform/i18n/MessageID.hpp>

#include <boost/locale/encoding_utf.hpp>

namespace workspace_browser_startup {

using foundation::json::Object;

namespace {

// Model event kinds of the paging channel.
constexpr std::int32_t kTableMetaData = 3;
constexpr std::int32_t kColumnMetaData = 4;
constexpr std::int32_t kRowMetaData = 5;
constexpr std::int32_t kCellMetaData = 6;

const std::string kNameColumn = "Name";
const std::string kEditable = "editable";
// Headers of keys the column table does not know (a host may pass any) are looked up here.
const std::string kHeaderMessagePrefix = "ZENTRA:codetools:variableeditor:";

std::string header(const std::string& key, const WSColumn* column) {
    const std::string id =
        column ? std::string(column->headerMessageId) : kHeaderMessagePrefix + key;
    return boost::locale::conv::utf_to_utf<char>(
        fl::i18n::MessageCatalog::get_message(fl::i18n::MessageID(id)));
}

// A reply of `kind` over the request's range, without entries yet.
DSModelEvent reply(std::int32_t kind, const DSEvent& request) {
    DSModelEvent model;
    model.eventType = kind;
    ViewportMath::copyRange(request, model);
    return model;
}

} // namespace

DSModelEvent ModelProperties::table(const DSEvent& request,
                                    const std::vector<std::string>& selected) {
    Object properties;
    properties["class"] = "char";
    if (!selected.empty()) {
        std::string fields;
        for (std::size_t i = 0; i < selected.size(); ++i)
            fields += (i == 0 ? "" : ",") + selected[i];
        properties["SelectedFields"] = std::move(fields);
    }
    DSModelEvent model = reply(kTableMetaData, request);
    model.data = DSModelEvent::List{DSModelEventData{0, 0, std::move(properties)}};
    return model;
}

DSModelEvent ModelProperties::columns(const DSEvent& range, const std::vector<std::string>& columns,
                                      const std::vector<double>& widths, std::size_t rowCount) {
    DSModelEvent model = reply(kColumnMetaData, range);
    const bool sortable = rowCount <= kMaxSortableRows;
    DSModelEvent::List list;
    list.reserve(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::string& key = columns[i];
        const WSColumn* column = WSColumn::find(key);
        Object properties;
        properties["ColumnWidth"] = widths.at(i);
        properties["HeaderName"] = header(key, column);
        // The name column sorts even when the others no longer do; a value has no order.
        const bool unordered = column && column->order == WSColumn::Order::none;
        properties["IsSortable"] = key == kNameColumn || (sortable && !unordered);
        properties[kEditable] = column && column->editable;
        if (key == kNameColumn)
            properties["DataAttributes"] = "IconLabelNameColumn";
        list.push_back(DSModelEventData{0, ViewportMath::toInt32(static_cast<std::int64_t>(i)),
                                        std::move(properties)});
    }
    model.data = std::move(list);
    return model;
}

DSModelEvent ModelProperties::rows(const DSEvent& request, std::size_t rowCount,
                                   std::size_t columnCount) {
    DSModelEvent model = reply(kRowMetaData, request);
    model.fullStartRow = request.startRow;
    model.fullEndRow = request.endRow;
    model.fullStartColumn = 0;
    model.fullEndColumn = ViewportMath::lastIndex(columnCount);
    const auto [first, last] = ViewportMath::rowsInGrid(request, rowCount);
    DSModelEvent::List list;
    for (std::int64_t row = first; row <= last; ++row)
        list.push_back(DSModelEventData{static_cast<std::int32_t>(row), 0, Object()});
    model.data = std::move(list);
    return model;
}

DSModelEvent ModelProperties::cells(const DSEvent& request, std::size_t columnCount,
                                    std::size_t rowCount) {
    DSModelEvent model = reply(kCellMetaData, request);
    const auto [first, last] = ViewportMath::rowsInGrid(request, rowCount);
    DSModelEvent::Grid grid;
    for (std::int64_t row = first; row <= last; ++row) {
        std::vector<DSModelEventData> cells;
        cells.reserve(columnCount);
        for (std::size_t c = 0; c < columnCount; ++c) {
            cells.push_back(DSModelEventData{static_cast<std::int32_t>(row),
                                             static_cast<std::int32_t>(c), Object()});
        }
        grid.push_back(std::move(cells));
    }
    model.data = std::move(grid);
    return model;
}

} // namespace workspace_browser_startup
