#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using workspace_browser_startup::TextAlphabeticalSortComparator;

namespace {

const TextAlphabeticalSortComparator kUp{true};
const TextAlphabeticalSortComparator kDown{false};

std::vector<std::string> sorted(std::vector<std::string> names, TextAlphabeticalSortComparator c) {
    std::sort(names.begin(), names.end(), c);
    return names;
}

// The order written out byte by byte, with none of the word-at-a-time shortcuts.
bool oracleLess(const std::string& a, const std::string& b) {
    const auto lower = [](signed char c) { return c >= 'A' && c <= 'Z' ? c + 32 : int{c}; };
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        const auto x = static_cast<signed char>(a[i]), y = static_cast<signed char>(b[i]);
        if (lower(x) != lower(y))
            return lower(x) < lower(y);
        if (x != y)
            return x >= 'a' && x <= 'z';
    }
    return a.size() < b.size();
}

} // namespace

TEST(TextAlphabeticalSortComparator, FirstCaseDifferenceDecidesAndBytesCompareLoweredAndSigned) {
    EXPECT_THAT(sorted({"b", "B", "a", "A", "ab"}, kUp), ElementsAre("a", "ab", "A", "b", "B"));
    EXPECT_THAT(sorted({"b", "B", "a", "A", "ab"}, kDown), ElementsAre("B", "b", "A", "ab", "a"));
    // The tie-break holds even when a later letter says otherwise, and beyond eight bytes.
    EXPECT_TRUE(kUp("variable_nameZ", "variable_Namea"));
    EXPECT_TRUE(kDown("variable_Namea", "variable_nameZ"));
    EXPECT_TRUE(kUp("aaaaaaaaaaaaaaaaxZZ", "aaaaaaaaaaaaaaaaX"));
    // '_' lies between 'Z' and 'a'; against lowered letters it comes first.
    EXPECT_TRUE(kUp("_x", "Ax"));
    // UTF-8 bytes are negative: before every ASCII byte, and never case-folded.
    EXPECT_TRUE(kUp("caf\xC3\xA9", "cafe"));
    EXPECT_TRUE(kUp("\xC3\x84", "\xC3\xA4"));
}

TEST(TextAlphabeticalSortComparator, MatchesTheByteByByteRuleOnRandomStrings) {
    std::mt19937 rng(7);
    const std::string alphabet = "aAbBzZ_09[`{\x01\x7F\x80\xC3\xFF";
    std::vector<std::string> names{""};
    for (int n = 0; n < 600; ++n) {
        // A shared prefix of varying length puts the first difference in every byte lane.
        std::string s(rng() % 20, 'q');
        for (std::size_t k = rng() % 6; k > 0; --k)
            s += alphabet[rng() % alphabet.size()];
        names.push_back(s);
    }
    for (const auto& a : names) {
        for (const auto& b : names) {
            ASSERT_EQ(kUp(a, b), oracleLess(a, b)) << a << " vs " << b;
            ASSERT_EQ(kDown(a, b), oracleLess(b, a)) << a << " vs " << b;
        }
    }
}

TEST(TextAlphabeticalSortComparator, IsAStrictTotalOrderInBothDirections) {
    std::vector<std::string> names = {"x",   "X",    "x1",   "X1",   "x_",       "abc",   "ABC",
                                      "aBc", "AbC",  "abcd", "",     "\xC3\xA9", "Z9",    "z10",
                                      "_a",  "data", "Data", "DATA", "data_2",   "data10"};
    std::shuffle(names.begin(), names.end(), std::mt19937(3));
    const auto up = sorted(names, kUp), down = sorted(names, kDown);
    EXPECT_TRUE(std::equal(up.begin(), up.end(), down.rbegin()));
    // Neighbours are strictly ordered, so only equal names collapse in a set keyed by it.
    EXPECT_EQ(std::adjacent_find(up.begin(), up.end(), [](auto& a, auto& b) { return !kUp(a, b); }),
              up.end());
    EXPECT_EQ(
        (std::set<std::string, TextAlphabeticalSortComparator>(names.begin(), names.end()).size()),
        names.size());
}
