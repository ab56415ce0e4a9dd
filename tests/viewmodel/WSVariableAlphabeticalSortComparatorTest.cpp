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
    for (const auto& text : texts) {
        records.emplace_back().*field = text;
    }
    std::sort(records.begin(), records.end(),
              WSVariableAlphabeticalSortComparator{ascending, column});
    std::vector<std::string> out;
    for (const auto& r : records) {
        out.push_back(r.*field);
    }
    return out;
}

} // namespace

TEST(DisplayedNumber, SpecialTextsAndProductsOfSizes) {
    EXPECT_EQ(DisplayedNumber::toInt(""), INT_MIN);
    EXPECT_EQ(DisplayedNumber::toInt("NaN"), INT_MIN);
    EXPECT_EQ(DisplayedNumber::toInt("-Inf"), INT_MIN);
    EXPECT_EQ(DisplayedNumber::toInt("Inf"), INT_MAX);
    EXPECT_EQ(DisplayedNumber::toInt("3×4"), 12);
    EXPECT_EQ(DisplayedNumber::toInt("1×1×5"), 5);
    EXPECT_EQ(DisplayedNumber::toInt(" 2 × 0 "), 0);
    EXPECT_EQ(DisplayedNumber::toInt("65536×65536"), 0); // wraps like 32-bit arithmetic
    EXPECT_EQ(DisplayedNumber::toInt("50000×50000"), -1794967296);
    EXPECT_EQ(DisplayedNumber::toInt("3\xC3"), 3); // half a sign is just a stop character
}

TEST(DisplayedNumber, PiecesReadLikeTheStandardDecimalConversion) {
    EXPECT_EQ(DisplayedNumber::toInt("1.5"), 1);
    EXPECT_EQ(DisplayedNumber::toInt("2.0e3"), 2);
    EXPECT_EQ(DisplayedNumber::toInt(" \t\n-42abc"), -42);
    EXPECT_EQ(DisplayedNumber::toInt("+7"), 7);
    EXPECT_EQ(DisplayedNumber::toInt("0x1F"), 0);
    EXPECT_EQ(DisplayedNumber::toInt("2147483647"), INT_MAX);
    EXPECT_EQ(DisplayedNumber::toInt("-2147483648"), INT_MIN);
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
    const auto size = &WSVariable::size;
    EXPECT_THAT(sortedBy(size, "Size", true, {"10×10", "1×1", "3×4"}),
                ElementsAre("1×1", "3×4", "10×10"));
    EXPECT_THAT(sortedBy(size, "Size", false, {"1×1", "10×10", "3×4"}),
                ElementsAre("10×10", "3×4", "1×1"));
    const auto mean = &WSVariable::mean;
    EXPECT_THAT(sortedBy(mean, "Mean", true, {"5", "NaN", "Inf", "-3", "40"}),
                ElementsAre("NaN", "-3", "5", "40", "Inf"));
    EXPECT_THAT(sortedBy(mean, "Mean", false, {"5", "NaN", "Inf", "-3", "40"}),
                ElementsAre("Inf", "40", "5", "-3", "NaN"));
    // Statistics compare by their integer part only.
    const WSVariableAlphabeticalSortComparator byMean{true, "Mean"};
    EXPECT_FALSE(byMean(WSVariable{.mean = "1.2"}, WSVariable{.mean = "1.9"}));
    EXPECT_FALSE(byMean(WSVariable{.mean = "1.9"}, WSVariable{.mean = "1.2"}));
    EXPECT_FALSE(byMean(WSVariable{.mean = "NaN"}, WSVariable{.mean = "-Inf"}));
}

TEST(WSVariableAlphabeticalSortComparator, EachKeyReadsItsOwnField) {
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
        EXPECT_EQ(up.sortColumn(), key);
        EXPECT_TRUE(up.ascending() && !down.ascending());
    }
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

TEST(WSVariableAlphabeticalSortComparator, OtherColumnsLeaveEveryPairEqual) {
    const WSVariable a{.name = "a", .className = "a", .value = "1", .mean = "1"};
    const WSVariable b{.name = "B", .className = "b", .value = "2", .mean = "2"};
    for (const char* key : {"Name", "Value", "", "size", "mean"}) {
        EXPECT_FALSE(WSVariableAlphabeticalSortComparator(true, key)(a, b)) << key;
        EXPECT_FALSE(WSVariableAlphabeticalSortComparator(false, key)(b, a)) << key;
    }
}

TEST(WSVariableAlphabeticalSortComparator, SortsMixedTextsSafelyAndReadableOnesConsistently) {
    // NaN < 5 < "abc" < NaN: the text fallback makes mixed columns cyclic. Sorting must still
    // stay in bounds and keep every record; comparisons stay irreflexive and asymmetric.
    std::vector<std::string> texts;
    std::mt19937 rng(11);
    const char* pool[] = {"NaN", "Inf", "-Inf", "abc", "+x", " 7", "3×", "", "10", "-2", "0.5"};
    for (int i = 0; i < 3000; ++i) {
        texts.push_back(rng() % 3 ? std::to_string(int(rng() % 200) - 100) : pool[rng() % 11]);
    }
    const WSVariableAlphabeticalSortComparator up{true, "Max"};
    for (std::size_t i = 0; i < 200; ++i) {
        for (std::size_t j = 0; j < 200; ++j) {
            const WSVariable x{.max = texts[i]}, y{.max = texts[j]};
            ASSERT_FALSE(up(x, y) && up(y, x)) << texts[i] << " vs " << texts[j];
        }
    }
    EXPECT_THAT(sortedBy(&WSVariable::max, "Max", true, texts), UnorderedElementsAreArray(texts));
    // Without unreadable texts the order is a strict weak one and the result is sorted.
    std::vector<WSVariable> numbers;
    for (int i = 0; i < 3000; ++i) {
        numbers.push_back(WSVariable{.max = std::to_string(int(rng() % 500) - 250) + ".5"});
    }
    numbers.push_back(WSVariable{.max = "NaN"});
    numbers.push_back(WSVariable{.max = "Inf"});
    std::shuffle(numbers.begin(), numbers.end(), rng);
    for (bool ascending : {true, false}) {
        const WSVariableAlphabeticalSortComparator cmp{ascending, "Max"};
        std::sort(numbers.begin(), numbers.end(), cmp);
        EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end(), cmp));
        EXPECT_EQ(numbers.front().max, ascending ? "NaN" : "Inf");
    }
}
