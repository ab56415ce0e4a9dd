// Selections between the client's row ranges and the view model's names: whatever ranges a
// client sends, each listed row is taken once and nothing outside the list is touched.

#include "viewmodel/RowSelection.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace workspace_browser_startup;
using ::testing::ElementsAre;

namespace {

std::vector<std::string> names(int count) {
    std::vector<std::string> list;
    for (int i = 0; i < count; ++i)
        list.push_back("v" + std::to_string(i));
    return list;
}

} // namespace

TEST(RowSelection, RangesAreCutToTheListAndEachRowIsTakenOnceWhereARangeFirstReachesIt) {
    const auto list = names(10);
    // Past the end, reversed, wholly beyond, and reaching back before the first row.
    EXPECT_THAT(RowSelection::namesIn(list, {{8, 20}, {5, 3}, {10, 12}, {-3, 0}}).names,
                ElementsAre("v8", "v9", "v0"));
    std::vector<RowRange> ranges = {{5, 7}, {2, 6}, {6, 6}};
    // Thousands of repeats of a range far beyond the list cost no more than one.
    ranges.resize(3000, RowRange{0, 199});
    const auto picked = RowSelection::namesIn(list, ranges);
    EXPECT_THAT(picked.names,
                ElementsAre("v5", "v6", "v7", "v2", "v3", "v4", "v0", "v1", "v8", "v9"));
    EXPECT_THAT(picked.rows, ElementsAre(5, 6, 7, 2, 3, 4, 0, 1, 8, 9));
    EXPECT_TRUE(RowSelection::namesIn({}, {{0, 5}}).names.empty());
}

TEST(RowSelection, NamesFindTheirFirstRowsWhetherLookedUpOneByOneOrThroughAnIndex) {
    auto list = names(40);
    list[30] = "v3"; // a name listed twice: its first row wins
    const std::vector<std::string> few = {"v7", "gone", "v3"};
    EXPECT_THAT(RowSelection::rowsOf(list, few), ElementsAre(7, 3));
    std::vector<std::string> many = names(20); // enough to take the indexed path
    many.push_back("gone");
    const auto rows = RowSelection::rowsOf(list, many);
    ASSERT_EQ(rows.size(), 20U);
    EXPECT_EQ(rows[3], 3);
    EXPECT_EQ(rows[19], 19);
}

TEST(RowSelection, RowsBecomeRunsInTheOrderGiven) {
    EXPECT_EQ(RowSelection::runs({4, 5, 6, 1, 2, 9}),
              (std::vector<RowRange>{{4, 6}, {1, 2}, {9, 9}}));
    EXPECT_EQ(RowSelection::runs({3, 2}), (std::vector<RowRange>{{3, 3}, {2, 2}}));
    EXPECT_TRUE(RowSelection::runs({}).empty());
}
