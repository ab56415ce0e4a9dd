// The exact numeric order: full values, sizes in 64 bits, and NaN, text and blanks last.

#include "viewmodel/ExactNumericOrder.hpp"

#include <gtest/gtest.h>

using namespace workspace_browser_startup;

namespace {

std::vector<std::string> sortedMeans(const std::vector<std::string>& means, bool ascending) {
    std::vector<WSVariable> records;
    for (const std::string& mean : means)
        records.push_back(WSVariable{.name = "v" + std::to_string(records.size()), .mean = mean});
    EXPECT_TRUE(ExactNumericOrder::sort(records, "Mean", ascending));
    std::vector<std::string> out;
    for (const WSVariable& record : records)
        out.push_back(record.mean);
    return out;
}

} // namespace

TEST(ExactNumericOrder, SortsByFullValuesWithNaNTextAndBlanksLastBothWays) {
    const std::vector<std::string> means = {"3",   "",    "1099511627776", "NaN",  "1.5", "1e+40",
                                            "0.5", "abc", "0.9",           "-Inf", "0"};
    EXPECT_EQ(sortedMeans(means, true),
              (std::vector<std::string>{"-Inf", "0", "0.5", "0.9", "1.5", "3", "1099511627776",
                                        "1e+40", "NaN", "abc", ""}));
    EXPECT_EQ(sortedMeans(means, false),
              (std::vector<std::string>{"1e+40", "1099511627776", "3", "1.5", "0.9", "0.5", "0",
                                        "-Inf", "NaN", "abc", ""}));
}

TEST(ExactNumericOrder, ReadsSizesInSixtyFourBitsAndLeavesOtherColumnsAlone) {
    EXPECT_EQ(ExactNumericOrder::valueOf("1099511627776\xC3\x97"
                                         "2"),
              2199023255552.0);
    EXPECT_EQ(ExactNumericOrder::valueOf(" 7 "), 7.0);
    for (const char* unreadable : {"3\xC3\x97",
                                   "\xC3\x97"
                                   "3",
                                   "1.5\xC3\x97"
                                   "2",
                                   "NaN", "", "x"})
        EXPECT_FALSE(ExactNumericOrder::valueOf(unreadable)) << unreadable;
    std::vector<WSVariable> records(2);
    EXPECT_FALSE(ExactNumericOrder::sort(records, "Class", true));
    EXPECT_FALSE(ExactNumericOrder::sort(records, "Value", true));
}
