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
        const auto x = static_cast<signed char>(a[i]);
        const auto y = static_cast<signed char>(b[i]);
        if (lower(x) != lower(y)) {
            return lower(x) < lower(y);
        }
        if (x != y) {
            return x >= 'a' && x <= 'z';
        }
    }
    return a.size() < b.size();
}

} // namespace

TEST(TextAlphabeticalSortComparator, FirstCaseDifferenceDecidesLowerCaseFirst) {
    EXPECT_THAT(sorted({"b", "B", "a", "A", "ab"}, kUp), ElementsAre("a", "ab", "A", "b", "B"));
    EXPECT_THAT(sorted({"b", "B", "a", "A", "ab"}, kDown), ElementsAre("B", "b", "A", "ab", "a"));
    EXPECT_THAT(sorted({"ABC", "abd", "abc", "Az", "aZ"}, kUp),
                ElementsAre("abc", "abd", "aZ", "ABC", "Az"));
    // The tie-break holds even when a later letter says otherwise, and beyond eight bytes.
    EXPECT_TRUE(kUp("variable_nameZ", "variable_Namea"));
    EXPECT_TRUE(kDown("variable_Namea", "variable_nameZ"));
    EXPECT_TRUE(kUp("aaaaaaaaaaaaaaaaxZZ", "aaaaaaaaaaaaaaaaX"));
}

TEST(TextAlphabeticalSortComparator, PrefixesEmptyAndEqualStrings) {
    EXPECT_TRUE(kUp("a", "ab"));
    EXPECT_FALSE(kUp("ab", "a"));
    EXPECT_TRUE(kDown("ab", "a"));
    EXPECT_TRUE(kUp("", "a"));
    EXPECT_TRUE(kDown("a", ""));
    for (const char* s : {"", "x", "Same_Name_Longer_Than_8"}) {
        EXPECT_FALSE(kUp(s, s));
        EXPECT_FALSE(kDown(s, s));
    }
}

TEST(TextAlphabeticalSortComparator, PunctuationAndNonAsciiCompareByLoweredSignedBytes) {
    // '_' and '[' lie between 'Z' and 'a' in ASCII; against lowered letters they come first.
    EXPECT_TRUE(kUp("_x", "Ax"));
    EXPECT_TRUE(kUp("[", "A"));
    EXPECT_TRUE(kUp("a_b", "aab"));
    EXPECT_TRUE(kUp("aab", "A_b")); // the case difference at position 0 wins
    EXPECT_TRUE(kUp("{", "~"));
    // UTF-8 lead and continuation bytes are negative: before every ASCII byte, NUL included.
    EXPECT_TRUE(kUp("\xC3\xA9t\xC3\xA9", "\x01"));
    EXPECT_TRUE(kUp("caf\xC3\xA9", "cafe"));
    EXPECT_TRUE(kUp("\xC3\x84", "\xC3\xA4")); // no case folding outside ASCII: byte order
    EXPECT_TRUE(kUp("\xC3\xBF", "\xE2\x82\xAC"));
    EXPECT_TRUE(kDown("\x7F", "\x80"));
}

TEST(TextAlphabeticalSortComparator, MatchesTheByteByByteRuleOnRandomStrings) {
    std::mt19937 rng(7);
    const std::string alphabet = "aAbBzZ_09[`{\x7F\x80\xC3\xFF";
    std::vector<std::string> names;
    for (int n = 0; n < 600; ++n) {
        // A shared prefix of varying length puts the first difference in every byte lane.
        std::string s(rng() % 20, 'q');
        for (std::size_t k = rng() % 6; k > 0; --k) {
            s += alphabet[rng() % alphabet.size()];
        }
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
    const auto up = sorted(names, kUp);
    const auto down = sorted(names, kDown);
    EXPECT_TRUE(std::is_sorted(up.begin(), up.end(), kUp));
    EXPECT_TRUE(std::is_sorted(down.begin(), down.end(), kDown));
    EXPECT_TRUE(std::equal(up.begin(), up.end(), down.rbegin()));
    // Distinct names never tie: neighbours are strictly ordered, and so only equal names collapse
    // in an ordered set keyed by the comparator.
    EXPECT_EQ(std::adjacent_find(up.begin(), up.end(), [](auto& a, auto& b) { return !kUp(a, b); }),
              up.end());
    const std::set<std::string, TextAlphabeticalSortComparator> set(names.begin(), names.end());
    EXPECT_EQ(set.size(), names.size());
}
