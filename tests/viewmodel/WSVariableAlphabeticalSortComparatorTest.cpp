#include <workspace_browser/viewmodel/DisplayedNumber.hpp>
#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAreArray;
using workspace_browser_startup::DisplayedNumber;
using workspace_browser_startup::WSVariable;
using workspace_browser_startup::WSVariableAlphabeticalSortComparator;

namespace {

// Sorts records whose `field` holds the given texts and returns those texts in the new order.
std::vector<std::string> sortedBy(std::string WSVariable::*field, const char* column,
                                  bool ascending, const std::vector<std::string>& texts) {
    std::vector<WSVariable> records;
    for (const auto& text : texts)
        records.emplace_back().*field = text;
    WSVariableAlphabeticalSortComparator{ascending, column}.sort(records);
    std::vector<std::string> out;
    for (const auto& r : records)
        out.push_back(r.*field);
    return out;
}

} // namespace

TEST(DisplayedNumber, ReadsSpecialTextsProductsAndLeadingNumbers) {
    // Products wrap like 32-bit arithmetic; half a multiplication sign just ends the number.
    std::vector<int> read;
    for (const char* text :
         {"", "NaN", "-Inf", "Inf", "3×4", "1×1×5", " 2 × 0 ", "1.5", "3\xC3", " \t\n-42abc", "+7",
          "0x1F", "65536×65536", "50000×50000", "2147483647", "-2147483648"})
        read.push_back(DisplayedNumber::toInt(text));
    EXPECT_THAT(read, ElementsAre(INT_MIN, INT_MIN, INT_MIN, INT_MAX, 12, 5, 0, 1, 3, -42, 7, 0, 0,
                                  -1794967296, INT_MAX, INT_MIN));
    // Special texts match exactly, so other spellings fail like any other word.
    for (const char* bad :
         {"abc", "3×", "×3", "3××4", "-", "+", "+-5", "- 5", ".5", "nan", "inf", " NaN", "Inf "}) {
        EXPECT_THROW(DisplayedNumber::toInt(bad), std::invalid_argument) << bad;
        EXPECT_EQ(DisplayedNumber::parse(bad).status, DisplayedNumber::Status::invalidArgument);
    }
    for (const char* big : {"2147483648", "-2147483649", "99999999999999999999", "2×4294967296"}) {
        EXPECT_THROW(DisplayedNumber::toInt(big), std::out_of_range) << big;
        EXPECT_EQ(DisplayedNumber::parse(big).status, DisplayedNumber::Status::outOfRange);
    }
}

TEST(WSVariableAlphabeticalSortComparator, NumericColumnsSortByValueInBothDirections) {
    EXPECT_THAT(sortedBy(&WSVariable::size, "Size", true, {"10×10", "1×1", "3×4"}),
                ElementsAre("1×1", "3×4", "10×10"));
    EXPECT_THAT(sortedBy(&WSVariable::size, "Size", false, {"1×1", "10×10", "3×4"}),
                ElementsAre("10×10", "3×4", "1×1"));
    EXPECT_THAT(sortedBy(&WSVariable::mean, "Mean", true, {"5", "NaN", "Inf", "-3", "40"}),
                ElementsAre("NaN", "-3", "5", "40", "Inf"));
    EXPECT_THAT(sortedBy(&WSVariable::mean, "Mean", false, {"5", "NaN", "Inf", "-3", "40"}),
                ElementsAre("Inf", "40", "5", "-3", "NaN"));
    // Statistics compare by their integer part only.
    EXPECT_FALSE(WSVariableAlphabeticalSortComparator(true, "Mean")(WSVariable{.mean = "1.9"},
                                                                    WSVariable{.mean = "1.2"}));
}

TEST(WSVariableAlphabeticalSortComparator, EachKeyReadsItsOwnFieldAndOtherKeysTie) {
    const std::pair<const char*, std::string WSVariable::*> columns[] = {
        {"Size", &WSVariable::size},      {"Min", &WSVariable::min},
        {"Max", &WSVariable::max},        {"Range", &WSVariable::range},
        {"Mean", &WSVariable::mean},      {"Median", &WSVariable::median},
        {"Mode", &WSVariable::mode},      {"Std", &WSVariable::std},
        {"Var", &WSVariable::var},        {"Bytes", &WSVariable::bytes},
        {"Class", &WSVariable::className}};
    for (const auto& [key, field] : columns) {
        // Every other column says the opposite, so reading the wrong field shows.
        WSVariable low, high;
        for (const auto& [other, otherField] : columns) {
            low.*otherField = "9";
            high.*otherField = "1";
        }
        low.*field = "2";
        high.*field = "3";
        const WSVariableAlphabeticalSortComparator up{true, key}, down{false, key};
        EXPECT_TRUE(up(low, high) && !up(high, low)) << key;
        EXPECT_TRUE(down(high, low) && !down(low, high)) << key;
    }
    const WSVariable a{.name = "a", .className = "a", .value = "1", .mean = "1"};
    const WSVariable b{.name = "B", .className = "b", .value = "2", .mean = "2"};
    for (const char* key : {"Name", "Value", "", "size", "mean"}) {
        EXPECT_FALSE(WSVariableAlphabeticalSortComparator(true, key)(a, b)) << key;
        EXPECT_FALSE(WSVariableAlphabeticalSortComparator(false, key)(b, a)) << key;
    }
}

TEST(WSVariableAlphabeticalSortComparator, FollowsItsFieldsWhenTheyChangeAfterConstruction) {
    // Sizes and class names disagree, so the column in use shows in every answer.
    const WSVariable small{.name = "s", .size = "1×1", .className = "b"};
    const WSVariable large{.name = "l", .size = "3×4", .className = "a"};
    WSVariableAlphabeticalSortComparator order{true, "Size"};
    EXPECT_TRUE(order(small, large) && !order(large, small));
    order.ascending = false;
    EXPECT_TRUE(order(large, small) && !order(small, large));
    order.sortColumn = "Class"; // descending: "b" first
    EXPECT_TRUE(order(small, large) && !order(large, small));
    order.sortColumn = "Name";
    EXPECT_FALSE(order(small, large) || order(large, small));

    std::vector<WSVariable> records{small, large};
    order = {true, "Class"};
    order.sort(records);
    EXPECT_EQ(records.front().name, "l");
    order.sortColumn = "Size";
    order.sort(records);
    EXPECT_EQ(records.front().name, "s");
}

TEST(WSVariableAlphabeticalSortComparator, ClassAndUnreadableNumbersUseTheTextOrder) {
    EXPECT_THAT(sortedBy(&WSVariable::className, "Class", true, {"double", "Double", "cell"}),
                ElementsAre("cell", "double", "Double"));
    EXPECT_THAT(sortedBy(&WSVariable::className, "Class", false, {"double", "Double", "cell"}),
                ElementsAre("Double", "double", "cell"));
    // Numerically 3 < 10, but "3×" cannot be read, so that pair compares as text.
    const WSVariableAlphabeticalSortComparator up{true, "Size"}, down{false, "Size"};
    const WSVariable ten{.size = "10"}, broken{.size = "3×"}, word{.size = "abc"};
    EXPECT_TRUE(up(ten, broken) && !up(broken, ten));
    EXPECT_TRUE(down(broken, ten) && !down(ten, broken));
    EXPECT_TRUE(up(WSVariable{.size = "99999999999"}, word)); // out of range falls back too
    EXPECT_FALSE(up(word, word));
}

TEST(WSVariableAlphabeticalSortComparator, SortsMixedTextsSafely) {
    // NaN < 5 < "abc" < NaN: the text fallback makes mixed columns cyclic. Sorting must still
    // stay in bounds and keep every record, and no pair may compare both ways.
    std::mt19937 rng(11);
    const char* pool[] = {"NaN", "Inf", "-Inf", "abc", "+x", " 7", "3×", "", "10", "-2", "0.5"};
    std::vector<std::string> texts;
    for (int i = 0; i < 3000; ++i)
        texts.push_back(rng() % 3 ? std::to_string(int(rng() % 200) - 100) : pool[rng() % 11]);
    const WSVariableAlphabeticalSortComparator up{true, "Max"};
    for (std::size_t i = 0; i < 200; ++i)
        for (std::size_t j = 0; j < 200; ++j)
            ASSERT_FALSE(up(WSVariable{.max = texts[i]}, WSVariable{.max = texts[j]}) &&
                         up(WSVariable{.max = texts[j]}, WSVariable{.max = texts[i]}));
    EXPECT_THAT(sortedBy(&WSVariable::max, "Max", true, texts), UnorderedElementsAreArray(texts));
}
