// The workspace view model's metadata exactly as the client receives it, and the host's column
// and statistics settings.

#include <workspace_browser/platform/i18n/MessageCatalog.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "support/LogCapture.hpp"
#include "support/ScriptedHost.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace wsb_test;
using Message = GridClient::Message;

namespace {

// Does `action` and returns the metadata of `kind` sent meanwhile (not the flush's own rows).
std::vector<Message> answers(GridClient& client, const std::string& kind,
                             const std::function<void()>& action) {
    return client.during(action, [kind](const Message& m) {
        return GridClient::isMetaData(kind)(m) &&
               !(m.json.count("startRow") && m.number("startRow") >= 1e9);
    });
}
std::string answer(GridClient& client, int code, int startRow, int endRow,
                   const std::string& kind) {
    const auto found = answers(client, kind, [&] { client.range(code, startRow, endRow); });
    return found.size() == 1 ? found[0].text : "answers: " + std::to_string(found.size());
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
    for (const auto& [from, to] :
         std::vector<std::pair<std::string, std::string>>{{"\"Value\"", "\"Wert\""},
                                                          {"\"Size\"", "\"Gr\xC3\xB6\xC3\x9F"
                                                                       "e\""},
                                                          {"\"Class\"", "\"Klasse\""}})
        german.replace(german.find(from), from.size(), to);
    EXPECT_EQ(answer(client, 21, 0, 9, "ColumnModelProperties"), german);

    EXPECT_EQ(answer(client, 22, 2, 4, "RowModelProperties"),
              R"({"endRow":4,"eventType":5,"fullEndRow":4,"fullStartRow":2,)"
              R"("metaDataType":"RowModelProperties",)"
              R"("properties":[{"RowNumber":3},{"RowNumber":4},{"RowNumber":5}],)"
              R"("source":"server","startRow":2})");
    std::string cells;
    for (int row = 2; row <= 3; ++row) {
        cells += row == 2 ? "[" : ",[";
        for (int column = 1; column <= 4; ++column)
            cells += std::string(column == 1 ? "" : ",") + R"({"ColumnNumber":)" +
                     std::to_string(column) + R"(,"RowNumber":)" + std::to_string(row) + "}";
        cells += "]";
    }
    EXPECT_EQ(answer(client, 23, 1, 2, "CellModelProperties"),
              R"({"eventType":6,"metaDataType":"CellModelProperties","properties":[)" + cells +
                  R"(],"source":"server"})");
    EXPECT_EQ(
        answer(client, 23, 5, 4, "CellModelProperties"),
        R"({"eventType":6,"metaDataType":"CellModelProperties","properties":[],"source":"server"})");
    // A request for metadata of no particular kind gets no answer: the grid asks per kind.
    EXPECT_TRUE(client
                    .during([&] { client.range(14, 0, 9); },
                            [](const Message& m) {
                                return m.json.count("metaDataType") &&
                                       m.string("metaDataType") != "RowModelProperties";
                            })
                    .empty());
}

TEST(WSViewModelMetadata, ColumnsFollowTheOrderListAndLeaveOutUnorderedKeys) {
    MetadataRig rig;
    rig.visible = {"Name", "Min", "Value"};
    rig.order = {"Value", "Name", "Size"};
    GridClient& client = rig.start();

    const auto columns =
        answers(client, "ColumnModelProperties", [&] { client.range(21, 0, 0, 0, 2); });
    ASSERT_EQ(columns.size(), 1U);
    const auto& properties = columns[0].json.at("properties").get<foundation::json::Array>();
    ASSERT_EQ(properties.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& column = properties[i].get<foundation::json::Object>();
        EXPECT_EQ(column.at("HeaderName").get<std::string>(), i == 0 ? "Value" : "Name");
        EXPECT_EQ(column.at("ColumnWidth").get<double>(), rig.widths[i]);
    }
    // Pages carry the same cells in the same order; the size counts the visible keys.
    const auto pages = client.during([&] { client.getData(0, 0, 0, 2); }, GridClient::isPage());
    ASSERT_FALSE(pages.empty());
    const auto row = GridClient::rows(pages.back()).at(0);
    ASSERT_EQ(row.size(), 2U);
    EXPECT_TRUE(row[0].at("editable").get<bool>());
    EXPECT_EQ(row[1].at("value").get<std::string>(), "v000000");
    client.sendPaging(R"({"eventType":13})");
    EXPECT_EQ(client.waitFor(GridClient::isSize()).number("columnCount"), 3);
}

TEST(WSViewModelMetadata, ColumnSettingsRepublishColumnsRowsAndSizeWhenItChanged) {
    MetadataRig rig;
    GridClient& client = rig.start();
    client.setViewport(2, 5, 2, 3);
    client.getData(2, 5);
    client.flush();

    // Same number of columns: no size, new column metadata, rows fetched with the new fields.
    auto sent = client.during(
        [&] {
            rig.vm->updateColumnSettings(u16({"Name", "Size", "Class", "Mean"}),
                                         u16(kAllColumnKeys), rig.widths);
        },
        [](const Message& m) {
            return GridClient::isSize()(m) || GridClient::isPage()(m) ||
                   GridClient::isMetaData("ColumnModelProperties")(m);
        });
    ASSERT_EQ(sent.size(), 3U); // columns, then the page from the cache and from the host
    EXPECT_EQ(std::vector<double>({sent[0].number("startColumn"), sent[0].number("endColumn")}),
              std::vector<double>({2, 3})); // the viewport's first column, bounded by the rows
    EXPECT_EQ(std::vector<double>({sent[2].number("startRow"), sent[2].number("endRow")}),
              std::vector<double>({2, 5}));
    EXPECT_FALSE(sent[2].flag("sizeChanged"));
    EXPECT_EQ(rig.host.requests().back().fields, (Names{"Class", "Mean", "Name", "Size"}));

    // Fewer columns: the new size goes out first.
    sent = client.during(
        [&] {
            rig.vm->updateColumnSettings(u16({"Name", "Value"}), u16(kAllColumnKeys), rig.widths);
        },
        [](const Message& m) { return GridClient::isSize()(m) || GridClient::isPage()(m); });
    ASSERT_GE(sent.size(), 2U);
    EXPECT_EQ(sent[0].text, R"({"columnCount":2,"eventType":1,"rowCount":10,"source":"server"})");
    EXPECT_TRUE(sent.back().flag("sizeChanged"));
    EXPECT_EQ(sent.back().number("endColumn"), 1);
}

TEST(WSViewModelMetadata, StatisticsSettingsRefetchTheViewportOnlyWhenTheyChange) {
    MetadataRig rig;
    rig.visible = {"Name", "Mean"};
    GridClient& client = rig.start();
    client.setViewport(0, 4);
    client.getData(0, 4);
    client.flush();

    const std::size_t requests = rig.host.requests().size();
    auto pagesFor = [&](bool flag, double limit) {
        return client
            .during([&] { rig.vm->updateStatsSettings(flag, limit); }, GridClient::isPage())
            .size();
    };
    EXPECT_EQ(pagesFor(false, 0), 0U);
    EXPECT_EQ(rig.host.requests().size(), requests);
    EXPECT_EQ(pagesFor(true, 5e5), 2U) << "forced: the clean rows are fetched again";
    const auto request = rig.host.requests().back();
    EXPECT_TRUE(request.computeStats);
    EXPECT_EQ(request.statsLimit, 5e5);
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
            client.getData(0, 0);
        },
        [](const Message& m) {
            return GridClient::isPage()(m) || GridClient::isMetaData("ColumnModelProperties")(m);
        });
    EXPECT_TRUE(std::all_of(sent.begin(), sent.end(), GridClient::isPage()));
    EXPECT_FALSE(sent.empty());
    EXPECT_EQ(
        answers(
            client, "ColumnModelProperties",
            [&] {
                rig.vm->updateColumnSettings(u16(rig.visible), u16(kAllColumnKeys), {1, 2, 3, 4});
            })
            .size(),
        1U);

    rig.vm->onPreShutdown();
    const auto lines = log.texts();
    EXPECT_EQ(std::count_if(
                  lines.begin(), lines.end(),
                  [](const std::string& line) { return line.rfind("Exception caught: ", 0) == 0; }),
              2);
}
