// The workspace view model's metadata exactly as the client receives it, and the host's column
// and statistics settings.

#include <workspace_browser/platform/i18n/MessageCatalog.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>

#include "support/LogCapture.hpp"
#include "support/ScriptedHost.hpp"

#include <gtest/gtest.h>

#include <algorithm>

using namespace wsb_test;
using Message = GridClient::Message;

namespace {

const auto kColumns = GridClient::is("metaDataType", "ColumnModelProperties");

// The one reply of `kind` to a range request, or how many came.
std::string answer(GridClient& client, int code, int startRow, int endRow,
                   const std::string& kind) {
    const auto found = client.during([&] { client.range(code, startRow, endRow); },
                                     GridClient::is("metaDataType", kind));
    return found.size() == 1 ? found[0].text : "replies: " + std::to_string(found.size());
}

// Ten variables; widths differ per position so that their order shows.
struct MetadataRig : ViewModelRig {
    MetadataRig() {
        widths = {100, 200, 50.5, 60, 1, 2, 3, 4, 5, 6, 7, 8, 9};
        host.fire(batch(EventType::VARIABLE_CHANGED, numberedNames(10)));
        fl::i18n::MessageCatalog::set_locale("en_US.UTF-8");
    }
};

} // namespace

TEST(WSViewModelMetadata, TableColumnRowAndCellMetadataAsTheClientReceivesThem) {
    MetadataRig rig;
    GridClient& client = rig.start();
    EXPECT_EQ(answer(client, 20, 0, 9, "TableModelProperties"),
              R"({"eventType":3,"metaDataType":"TableModelProperties",)"
              R"("properties":[{"class":"char"}],"source":"server"})");
    const std::string english =
        R"({"endColumn":3,"eventType":4,"fullEndColumn":3,"fullStartColumn":0,)"
        R"("metaDataType":"ColumnModelProperties","properties":[)"
        R"({"ColumnNumber":1,"ColumnWidth":100,"DataAttributes":"IconLabelNameColumn",)"
        R"("HeaderName":"Name","IsSortable":true,"editable":true},)"
        R"({"ColumnNumber":2,"ColumnWidth":200,"HeaderName":"Value","IsSortable":false,)"
        R"("editable":true},)"
        R"({"ColumnNumber":3,"ColumnWidth":50.5,"HeaderName":"Size","IsSortable":true,)"
        R"("editable":false},)"
        R"({"ColumnNumber":4,"ColumnWidth":60,"HeaderName":"Class","IsSortable":true,)"
        R"("editable":false}],"source":"server","startColumn":0})";
    EXPECT_EQ(answer(client, 21, 0, 9, "ColumnModelProperties"), english);
    // Headers come in the process-wide locale of the moment.
    fl::i18n::MessageCatalog::set_locale("de_DE.UTF-8");
    std::string german = english;
    for (const auto& [from, to] : {std::pair{"\"Value\"", "\"Wert\""},
                                   {"\"Size\"", "\"Gr\u00F6\u00DFe\""},
                                   {"\"Class\"", "\"Klasse\""}})
        german.replace(german.find(from), std::string(from).size(), to);
    EXPECT_EQ(answer(client, 21, 0, 9, "ColumnModelProperties"), german);

    EXPECT_EQ(answer(client, 22, 2, 4, "RowModelProperties"),
              R"({"endRow":4,"eventType":5,"fullEndRow":4,"fullStartRow":2,)"
              R"("metaDataType":"RowModelProperties",)"
              R"("properties":[{"RowNumber":3},{"RowNumber":4},{"RowNumber":5}],)"
              R"("source":"server","startRow":2})");
    const std::string cells = R"({"eventType":6,"metaDataType":"CellModelProperties",)"
                              R"("properties":[)";
    EXPECT_EQ(answer(client, 23, 1, 2, "CellModelProperties"),
              cells + R"([{"ColumnNumber":1,"RowNumber":2},{"ColumnNumber":2,"RowNumber":2},)"
                      R"({"ColumnNumber":3,"RowNumber":2},{"ColumnNumber":4,"RowNumber":2}],)"
                      R"([{"ColumnNumber":1,"RowNumber":3},{"ColumnNumber":2,"RowNumber":3},)"
                      R"({"ColumnNumber":3,"RowNumber":3},{"ColumnNumber":4,"RowNumber":3}]],)"
                      R"("source":"server"})");
    EXPECT_EQ(answer(client, 23, 5, 4, "CellModelProperties"), cells + R"(],"source":"server"})");
    // A request for metadata of no particular kind gets no reply: the grid asks per kind.
    EXPECT_TRUE(
        client.during([&] { client.range(14, 0, 9); }, [](const auto&) { return true; }).empty());
}

TEST(WSViewModelMetadata, ColumnSettingsRepublishColumnsAndRowsAndTheSizeWhenItChanged) {
    MetadataRig rig;
    GridClient& client = rig.start();
    client.range(10, 2, 5, 2, 3);
    client.range(11, 2, 5);
    client.flush();
    auto settings = [&](const Names& visible, const Names& order) {
        return client.during(
            [&] { rig.vm->updateColumnSettings(u16(visible), u16(order), rig.widths); },
            [](const Message& m) { return kSize(m) || kPage(m) || kColumns(m); });
    };

    // Same number of columns: no size, new column metadata, rows fetched with the new fields.
    auto sent = settings({"Name", "Size", "Class", "Mean"}, kAllColumnKeys);
    ASSERT_EQ(sent.size(), 3U); // columns, then the page from the cache and from the host
    EXPECT_EQ(std::vector<double>({sent[0].number("startColumn"), sent[0].number("endColumn")}),
              std::vector<double>({2, 3})); // the viewport's first column, bounded by the rows
    EXPECT_EQ(std::vector<double>({sent[2].number("startRow"), sent[2].number("endRow")}),
              std::vector<double>({2, 5}));
    EXPECT_FALSE(sent[2].flag("sizeChanged"));
    EXPECT_EQ(rig.host.requests().back().fields, (Names{"Class", "Mean", "Name", "Size"}));

    // Fewer columns: the size goes out first. Columns follow the order list, which leaves out
    // "Min"; widths go by position.
    sent = settings({"Name", "Min", "Value"}, {"Value", "Name", "Size"});
    ASSERT_GE(sent.size(), 3U);
    EXPECT_EQ(sent[0].text, R"({"columnCount":3,"eventType":1,"rowCount":10,"source":"server"})");
    const auto& columns = sent[1].json.at("properties").get<foundation::json::Array>();
    ASSERT_EQ(columns.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& column = columns[i].get<Object>();
        EXPECT_EQ(column.at("HeaderName").get<std::string>(), i == 0 ? "Value" : "Name");
        EXPECT_EQ(column.at("ColumnWidth").get<double>(), rig.widths[i]);
    }
    EXPECT_TRUE(sent.back().flag("sizeChanged"));
    // Pages carry the same cells in the same order.
    const Message page = client.page([&] { client.range(11, 0, 0, 0, 2); });
    EXPECT_EQ(GridClient::column(page, 0), Names{"v:v000000"});
    EXPECT_EQ(GridClient::column(page, 1), Names{"v000000"});
}

TEST(WSViewModelMetadata, StatisticsSettingsRefetchTheViewportOnlyWhenTheyChange) {
    MetadataRig rig;
    rig.visible = {"Name", "Mean"};
    GridClient& client = rig.start();
    client.range(10, 0, 4);
    client.range(11, 0, 4);
    client.flush();
    const std::size_t requests = rig.host.requests().size();
    auto pagesFor = [&](bool flag, double limit) {
        return client.during([&] { rig.vm->updateStatsSettings(flag, limit); }, kPage).size();
    };
    EXPECT_EQ(pagesFor(false, 0), 0U);
    EXPECT_EQ(rig.host.requests().size(), requests);
    EXPECT_EQ(pagesFor(true, 5e5), 2U) << "forced: the clean rows are fetched again";
    const auto request = rig.host.requests().back();
    EXPECT_TRUE(request.stats);
    EXPECT_EQ(request.limit, 5e5);
    EXPECT_EQ(request.names, numberedNames(5));
    EXPECT_EQ(pagesFor(true, 5e5), 0U);
}

TEST(WSViewModelMetadata, TooFewWidthsFailInsideTheQueueOnly) {
    MetadataRig rig;
    rig.widths = {100, 200};
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, numberedNames(10000)));
    LogCapture log("zentra::datatools::WSViewModel");
    GridClient& client = rig.start();

    // Asked for, and republished by a batch crossing the sortable limit: neither goes out,
    // everything else does.
    const auto sent = client.during(
        [&] {
            client.range(21, 0, 0);
            rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"zz"}));
            client.range(11, 0, 0);
        },
        [](const Message& m) { return kPage(m) || kColumns(m); });
    EXPECT_FALSE(sent.empty());
    EXPECT_TRUE(std::all_of(sent.begin(), sent.end(), kPage));
    EXPECT_EQ(client
                  .during(
                      [&] {
                          rig.vm->updateColumnSettings(u16(rig.visible), u16(kAllColumnKeys),
                                                       {1, 2, 3, 4});
                      },
                      kColumns)
                  .size(),
              1U);

    rig.vm->onPreShutdown();
    const auto lines = log.texts();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const auto& line) { return line.rfind("Exception caught: ", 0) == 0; }),
        2);
}
