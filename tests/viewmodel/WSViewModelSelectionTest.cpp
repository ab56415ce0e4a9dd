// The workspace view model's selection: row ranges from the client become names, and the names
// become rows again wherever the variables have moved.

#include "support/ScriptedHost.hpp"

#include <gtest/gtest.h>

using namespace wsb_test;

namespace {

const auto kVariables = GridClient::is("type", "SelectedVariablesChanged");
const auto kTable = GridClient::is("metaDataType", "TableModelProperties");

std::string variables(const std::string& names) {
    return R"({"Variables":[)" + names + R"(],"type":"SelectedVariablesChanged"})";
}
std::string rows(const std::string& ranges) {
    return R"({"selectedRows":[)" + ranges + R"(],"type":"SelectedRowsChanged"})";
}

// Ten variables v000000 .. v000009 behind a started view model.
struct SelectionRig : ViewModelRig {
    GridClient& grid;
    SelectionRig()
        : grid((host.fire(batch(EventType::VARIABLE_CHANGED, numberedNames(10))), start())) {}

    // Selects; returns the texts of the selected names and of the table properties sent.
    std::pair<std::string, std::string> select(const std::vector<std::pair<int, int>>& ranges) {
        const auto sent = grid.during([&] { grid.select(ranges); },
                                      [](const auto& m) { return kVariables(m) || kTable(m); });
        EXPECT_EQ(sent.size(), 2U);
        if (sent.size() != 2)
            return {};
        return {sent[0].text, sent[1].text};
    }
    // The selected rows sent once `events` are applied, at once or when the grid resizes.
    std::string rowsAfter(std::vector<EventInfo> events = {}, int sortColumn = -1,
                          bool ascending = true) {
        const auto sent = grid.during(
            [&] {
                if (!events.empty())
                    host.fire(std::move(events));
                if (sortColumn >= 0)
                    grid.sort(sortColumn, ascending);
                grid.flush();
                grid.viewModel(R"({"type":"propertySet","propertyName":"GridSize"})");
            },
            GridClient::is("type", "SelectedRowsChanged"));
        return sent.empty() ? std::string() : sent.back().text;
    }
};

} // namespace

TEST(WSViewModelSelection, RangesAreClippedToNamesAndOnlyTheFirstSelectionReachesTheHost) {
    SelectionRig rig;
    EXPECT_EQ(rig.select({}).first, variables(""));
    const auto [selected, table] = rig.select({{2, 4}, {7, 7}});
    EXPECT_EQ(selected, variables(R"("v000002","v000003","v000004","v000007")"));
    EXPECT_EQ(table, R"({"eventType":3,"metaDataType":"TableModelProperties","properties":)"
                     R"([{"SelectedFields":"v000002,v000003,v000004,v000007","class":"char"}],)"
                     R"("source":"server"})");
    EXPECT_EQ(rig.select({{5, 3}}).second,
              R"({"eventType":3,"metaDataType":"TableModelProperties","properties":)"
              R"([{"class":"char"}],"source":"server"})");
    rig.vm->onPreShutdown();
    EXPECT_EQ(rig.host.calls(), Names{"select v000002,v000003,v000004,v000007|2, 3, 4, 7"});
}

TEST(WSViewModelSelection, SelectedRowsAreRunsInSelectionOrderAndFollowSorting) {
    SelectionRig rig;
    rig.host.recordFor = [](const std::string& name) { // v000000 is 10×1, ... v000009 is 1×1
        return WSVariable{.name = name,
                          .size = std::to_string(10 - std::stoi(name.substr(1))) + "\u00D71"};
    };
    rig.select({{5, 7}, {9, 9}, {2, 2}, {3, 3}});
    EXPECT_EQ(rig.rowsAfter(),
              rows(R"({"end":7,"start":5},{"end":9,"start":9},{"end":3,"start":2})"));

    rig.select({{0, 1}, {5, 5}});
    const std::string reversed =
        rows(R"({"end":9,"start":9},{"end":8,"start":8},{"end":4,"start":4})");
    EXPECT_EQ(rig.rowsAfter({}, 0, false), reversed);
    EXPECT_EQ(rig.rowsAfter({}, 2, true), reversed); // smallest size first
    EXPECT_EQ(rig.rowsAfter({}, 0, true), rows(R"({"end":1,"start":0},{"end":5,"start":5})"));

    // The host asking for the selection gets the rows as they are now.
    rig.rowsAfter({}, 2, true);
    rig.service->publishFromClient("/DesktopWSB", R"({"type":"StartupServices"})");
    rig.vm->onPreShutdown();
    EXPECT_EQ(rig.host.calls().back(), "select v000000,v000001,v000005|9, 8, 4");
}

TEST(WSViewModelSelection, SelectionFollowsRenamesAndWorkspaceChanges) {
    SelectionRig rig;
    rig.select({{3, 4}});
    constexpr auto kChanged = EventType::VARIABLE_CHANGED;
    constexpr auto kDeleted = EventType::VARIABLE_DELETED;

    // Added above the selection: the rows move down once the grid has resized.
    EXPECT_EQ(rig.rowsAfter({{kChanged, {"a"}}}), rows(R"({"end":5,"start":4})"));
    // A selected variable deleted while another arrives: the rows of the rest, at once.
    const auto sent = rig.grid.during(
        [&] {
            rig.host.fire({{kDeleted, {"v000003"}}, {kChanged, {"b"}}});
        },
        GridClient::is("type", "SelectedRowsChanged"));
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].text, rows(R"({"end":5,"start":5})"));

    // A rename selects the new name, which has no row until the host's batch lists it.
    const auto renamed = rig.grid.during(
        [&] { rig.grid.paging(R"({"eventType":12,"row":6,"column":1,"data":"c"})"); }, kVariables);
    ASSERT_EQ(renamed.size(), 1U); // row 6, counted from 1, is v000004
    EXPECT_EQ(renamed[0].text, variables(R"("c")"));
    EXPECT_EQ(rig.rowsAfter(), rows(""));
    EXPECT_EQ(rig.rowsAfter({{kDeleted, {"v000004"}}, {kChanged, {"c"}}}),
              rows(R"({"end":2,"start":2})"));
    // A deleted variable leaves the selection for good.
    EXPECT_EQ(rig.rowsAfter({{kDeleted, {"c"}}, {kChanged, {"c"}}}), rows(""));

    // Fewer than two variables left: the selection is cleared.
    rig.select({{0, 1}});
    Names all = rig.model->getVariableNames();
    all.pop_back();
    const auto cleared = rig.grid.during([&] { rig.host.fire(batch(kDeleted, all)); }, kVariables);
    ASSERT_EQ(cleared.size(), 1U);
    EXPECT_EQ(cleared[0].text, variables(""));
}
