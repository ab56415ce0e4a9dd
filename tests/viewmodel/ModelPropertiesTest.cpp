// Metadata replies built from a request and a view state: they never reach past the grid's
// rows, and each column's properties come from the column table.

#include "viewmodel/ModelProperties.hpp"

#include <workspace_browser/platform/i18n/MessageCatalog.hpp>

#include <gtest/gtest.h>

#include <limits>

using namespace workspace_browser_startup;

namespace {

DSEvent request(std::int32_t startRow, std::int32_t endRow) {
    DSEvent event;
    event.startRow = event.fullStartRow = startRow;
    event.endRow = event.fullEndRow = endRow;
    event.startColumn = event.fullStartColumn = 0;
    event.endColumn = event.fullEndColumn = 3;
    return event;
}

std::size_t entries(const DSModelEvent& model) {
    if (const auto* list = std::get_if<DSModelEvent::List>(&model.data))
        return list->size();
    return std::get<DSModelEvent::Grid>(model.data).size();
}

const foundation::json::Object& properties(const DSModelEvent& model, std::size_t i) {
    return std::get<DSModelEvent::List>(model.data).at(i).properties;
}

} // namespace

TEST(ModelProperties, RowsAndCellsStopAtTheGridsRowsHoweverFarARequestReaches) {
    const auto far = request(9, std::numeric_limits<std::int32_t>::max());
    const DSModelEvent rows = ModelProperties::rows(far, 10, 4);
    EXPECT_EQ(entries(rows), 1U);
    EXPECT_EQ(rows.endRow, far.endRow) << "the reply still names the range asked for";
    EXPECT_EQ(rows.fullEndColumn, 3);
    EXPECT_EQ(entries(ModelProperties::rows(request(-2, 20000), 10, 4)), 10U);
    const DSModelEvent cells = ModelProperties::cells(far, 4, 10);
    ASSERT_EQ(entries(cells), 1U);
    EXPECT_EQ(std::get<DSModelEvent::Grid>(cells.data)[0].size(), 4U);
    EXPECT_EQ(entries(ModelProperties::cells(request(10, 20), 4, 10)), 0U);
    EXPECT_EQ(entries(ModelProperties::cells(request(5, 4), 4, 10)), 0U);
}

TEST(ModelProperties, ColumnsTakeSortingEditingAndHeadersFromTheColumnTable) {
    fl::i18n::MessageCatalog::set_locale("en_US.UTF-8");
    const std::vector<std::string> keys = {"Name", "Value", "Mean", "Custom"};
    const std::vector<double> widths = {1, 2, 3, 4};
    const DSModelEvent few = ModelProperties::columns(request(0, 9), keys, widths, 10);
    EXPECT_EQ(properties(few, 0).at("IsSortable").get<bool>(), true);
    EXPECT_EQ(properties(few, 0).at("DataAttributes").get<std::string>(), "IconLabelNameColumn");
    EXPECT_EQ(properties(few, 1).at("IsSortable").get<bool>(), false) << "a value has no order";
    EXPECT_EQ(properties(few, 1).at("editable").get<bool>(), true);
    EXPECT_EQ(properties(few, 2).at("HeaderName").get<std::string>(), "Mean");
    EXPECT_EQ(properties(few, 2).at("editable").get<bool>(), false);
    // A key the table does not know is a read-only, sortable column under the usual prefix.
    EXPECT_EQ(properties(few, 3).at("IsSortable").get<bool>(), true);
    EXPECT_EQ(properties(few, 3).at("HeaderName").get<std::string>(),
              "ZENTRA:codetools:variableeditor:Custom");

    const DSModelEvent many = ModelProperties::columns(request(0, 9), keys, widths, 10001);
    EXPECT_EQ(properties(many, 0).at("IsSortable").get<bool>(), true) << "the name still sorts";
    EXPECT_EQ(properties(many, 2).at("IsSortable").get<bool>(), false);
    EXPECT_THROW(ModelProperties::columns(request(0, 9), keys, {1, 2}, 10), std::out_of_range);
}
