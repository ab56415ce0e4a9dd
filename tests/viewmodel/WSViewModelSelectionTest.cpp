// The workspace view model's selection: row ranges from the client become names, and the names
// become rows again wherever the variables have moved.

#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "support/LogCapture.hpp"
#include "support/ScriptedHost.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using namespace wsb_test;

namespace {

const std::string kLogger = "zentra::datatools::WSViewModel";

// Ten variables v000000 .. v000009 behind a started view model.
struct SelectionRig : ViewModelRig {
    GridClient& grid;
    SelectionRig()
        : grid((host.fire(batch(EventType::VARIABLE_CHANGED, numberedNames(10))), start())) {}

    // Selects; returns the selected names and the table properties the client is sent.
    std::pair<std::string, std::string> select(const std::vector<std::pair<int, int>>& ranges) {
        const auto sent =
            grid.during([&] { grid.select(ranges); },
                        [](const GridClient::Message& m) {
                            return GridClient::isType("SelectedVariablesChanged")(m) ||
                                   GridClient::isMetaData("TableModelProperties")(m);
                        });
        EXPECT_EQ(sent.size(), 2U);
        return {sent.at(0).text, sent.at(1).text};
    }
    // The selected rows that the client is sent after `action`, and after the grid resized.
    std::string rowsAfter(const std::function<void()>& action) {
        grid.flush();
        const auto sent = grid.during(
            [&] {
                action();
                grid.flush(); // workspace changes queued by the action are applied first
                grid.sendViewModel(R"({"type":"propertySet","propertyName":"GridSize"})");
            },
            GridClient::isType("SelectedRowsChanged"));
        return sent.empty() ? std::string() : sent.back().text;
    }
};

std::string variables(const Names& names) {
    std::string list;
    for (const auto& name : names)
        list += (list.empty() ? "\"" : ",\"") + name + "\"";
    return R"({"Variables":[)" + list + R"(],"type":"SelectedVariablesChanged"})";
}
std::string rows(const std::string& ranges) {
    return R"({"selectedRows":[)" + ranges + R"(],"type":"SelectedRowsChanged"})";
}

} // namespace

TEST(WSViewModelSelection, RangesBecomeNamesAndOnlyTheFirstIsHandedToTheHost) {
    SelectionRig rig;
    LogCapture log(kLogger);

    EXPECT_EQ(rig.select({}).first, variables({}));
    const auto [selected, table] = rig.select({{2, 4}, {7, 7}});
    EXPECT_EQ(selected, variables({"v000002", "v000003", "v000004", "v000007"}));
    EXPECT_EQ(table, R"({"eventType":3,"metaDataType":"TableModelProperties","properties":)"
                     R"([{"SelectedFields":"v000002,v000003,v000004,v000007","class":"char"}],)"
                     R"("source":"server"})");
    // Past the end, reversed, and reaching back before the first row.
    EXPECT_EQ(rig.select({{8, 20}, {5, 3}, {10, 12}, {-3, 0}}).first,
              variables({"v000008", "v000009", "v000000"}));
    EXPECT_EQ(rig.select({{5, 3}}).second,
              R"({"eventType":3,"metaDataType":"TableModelProperties","properties":)"
              R"([{"class":"char"}],"source":"server"})");

    rig.vm->onPreShutdown();
    ASSERT_EQ(rig.host.selections.size(), 1U);
    EXPECT_EQ(rig.host.selections[0].names, (Names{"v000002", "v000003", "v000004", "v000007"}));
    EXPECT_EQ(rig.host.selections[0].rows, "2, 3, 4, 7");
    EXPECT_TRUE(log.contains("handleSelectionChanged: 8, 9, 0"));
    EXPECT_TRUE(
        log.contains("mHandleStartupServices after first selection is made, rows: 2, 3, 4, 7"));
}

TEST(WSViewModelSelection, SelectedRowsAreRunsInSelectionOrderAndFollowSorting) {
    SelectionRig rig;
    rig.host.recordFor = [](const std::string& name) { // v000000 is 10×1, ... v000009 is 1×1
        return WSVariable{.name = name,
                          .size =
                              std::to_string(10 - std::stoi(name.substr(1))) + "\xC3\x97" + "1"};
    };
    rig.select({{5, 7}, {2, 2}, {9, 9}});
    EXPECT_EQ(rig.rowsAfter([] {}),
              rows(R"({"end":7,"start":5},{"end":2,"start":2},{"end":9,"start":9})"));

    rig.select({{0, 1}, {5, 5}});
    const std::string reversed =
        rows(R"({"end":9,"start":9},{"end":8,"start":8},{"end":4,"start":4})");
    EXPECT_EQ(rig.rowsAfter([&] { rig.grid.sort(0, false); }), reversed);
    EXPECT_EQ(rig.rowsAfter([&] { rig.grid.sort(2, true); }), reversed); // smallest size first
    EXPECT_EQ(rig.rowsAfter([&] { rig.grid.sort(0, true); }),
              rows(R"({"end":1,"start":0},{"end":5,"start":5})"));

    // The host asking for the selection gets the rows as they are now.
    rig.grid.sort(2, true);
    rig.grid.flush();
    rig.service->publishFromClient("/DesktopWSB", R"({"type":"StartupServices"})");
    rig.vm->onPreShutdown();
    ASSERT_EQ(rig.host.selections.size(), 2U);
    EXPECT_EQ(rig.host.selections[1].names, (Names{"v000000", "v000001", "v000005"}));
    EXPECT_EQ(rig.host.selections[1].rows, "9, 8, 4");
}

TEST(WSViewModelSelection, SelectionFollowsRenamesAndWorkspaceChanges) {
    SelectionRig rig;
    LogCapture log(kLogger);
    rig.select({{3, 4}});
    auto fire = [&](std::vector<EventInfo> events) { rig.host.fire(std::move(events)); };

    // Added above the selection: the rows move down once the grid has resized.
    EXPECT_EQ(rig.rowsAfter([&] { fire(batch(EventType::VARIABLE_CHANGED, {"a"})); }),
              rows(R"({"end":5,"start":4})"));
    // A selected variable deleted while another arrives: the rows of the rest, at once.
    const auto sent = rig.grid.during(
        [&] {
            fire(
                {{EventType::VARIABLE_DELETED, {"v000003"}}, {EventType::VARIABLE_CHANGED, {"b"}}});
        },
        GridClient::isType("SelectedRowsChanged"));
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].text, rows(R"({"end":5,"start":5})"));

    // A rename selects the new name, which has no row until the host's batch lists it.
    rig.grid.setData(6, 1, "c"); // row 6 (from 1) is v000004
    EXPECT_EQ(
        rig.grid.waitFor(GridClient::isType("SelectedVariablesChanged"), rig.grid.count() - 1).text,
        variables({"c"}));
    EXPECT_EQ(rig.rowsAfter([] {}), rows(""));
    EXPECT_EQ(rig.rowsAfter([&] {
        fire({{EventType::VARIABLE_DELETED, {"v000004"}}, {EventType::VARIABLE_CHANGED, {"c"}}});
    }),
              rows(R"({"end":2,"start":2})"));

    // A deleted variable leaves the selection for good.
    EXPECT_EQ(rig.rowsAfter([&] {
        fire(batch(EventType::VARIABLE_DELETED, {"c"}));
        fire(batch(EventType::VARIABLE_CHANGED, {"c"}));
    }),
              rows(""));
    // Fewer than two variables left: the selection is cleared.
    rig.select({{0, 1}});
    Names all = rig.model->getVariableNames();
    all.pop_back();
    const auto cleared = rig.grid.during([&] { fire(batch(EventType::VARIABLE_DELETED, all)); },
                                         GridClient::isType("SelectedVariablesChanged"));
    ASSERT_EQ(cleared.size(), 1U);
    EXPECT_EQ(cleared[0].text, variables({}));

    rig.vm->onPreShutdown();
    EXPECT_TRUE(log.contains("Selected variables not found, clearing selection"));
    EXPECT_TRUE(log.contains("Updating selected variables"));
}
