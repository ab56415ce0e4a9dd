#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>

#include <string>
#include <vector>

namespace workspace_browser_startup {

// Orders variable records by one grid column: "Class" by the text order of class names, the
// numeric columns ("Size", "Min", "Max", "Range", "Mean", "Median", "Mode", "Std", "Var",
// "Bytes") by the integer each displayed text reads as, falling back to the text order for a
// pair when either text cannot be read; every other column leaves all records equal.
// A plain value built as {ascending, sortColumn}; an embedder may change either field between
// uses, and the comparator follows.
// Thread-safe: concurrent comparisons and sorts are safe while nobody changes the fields.
struct WSB_EXPORT WSVariableAlphabeticalSortComparator {
    bool ascending = true;
    std::string sortColumn; // a column key such as "Size"

    // True when record a comes before record b.
    bool operator()(const WSVariable& a, const WSVariable& b) const noexcept;

    // Sorts records by this comparator, looking the column up once rather than on every
    // comparison. A numeric column whose texts mix readable numbers and unreadable text can
    // order three records in a cycle, and std::sort may then walk past the ends of the range;
    // such columns go through a merge sort, which stays in bounds for any comparator. Every
    // other column keeps the faster unstable sort.
    void sort(std::vector<WSVariable>& records) const;
};

} // namespace workspace_browser_startup
