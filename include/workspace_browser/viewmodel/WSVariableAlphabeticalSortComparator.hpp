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
// Thread-safe: immutable after construction.
struct WSB_EXPORT WSVariableAlphabeticalSortComparator {
    WSVariableAlphabeticalSortComparator(bool ascending, std::string sortColumn);

    bool ascending() const noexcept { return mAscending; }
    const std::string& sortColumn() const noexcept { return mSortColumn; }

    // True when record a comes before record b.
    bool operator()(const WSVariable& a, const WSVariable& b) const noexcept;

    // Sorts records by this comparator. A numeric column whose texts mix readable numbers and
    // unreadable text can order three records in a cycle, and std::sort may then walk past the
    // ends of the range; such columns go through a merge sort, which stays in bounds for any
    // comparator. Every other column keeps the faster unstable sort.
    void sort(std::vector<WSVariable>& records) const;

private:
    // The column key is looked up once here rather than on every comparison.
    enum class Kind { unsorted, text, numeric };

    bool mAscending;
    std::string mSortColumn;
    Kind mKind = Kind::unsorted;
    std::string WSVariable::*mField = nullptr;
};

} // namespace workspace_browser_startup
