#pragma once

#include <workspace_browser/viewmodel/RowRange.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// Selection between row ranges, as the client sends and receives them, and names, as the view
// model keeps them. Thread-safety: pure functions, safe from any thread.
class RowSelection {
public:
    struct Picked {
        std::vector<std::string> names; // in the order the ranges first reach each row
        std::vector<std::int64_t> rows; // the same rows, as indices into the list
    };

    // The names on the rows of `ranges` in `list`. Rows outside the list are left out, and
    // overlapping or repeated ranges select each row once, so the work stays within the list's
    // size whatever the client sends.
    static Picked namesIn(const std::vector<std::string>& list,
                          const std::vector<RowRange>& ranges);
    // The first row of each of `names` in `list`, in the order of `names`; names not listed are
    // left out.
    static std::vector<std::int32_t> rowsOf(const std::vector<std::string>& list,
                                            const std::vector<std::string>& names);
    // Rows in the given order, each run of consecutive rows as one range.
    static std::vector<RowRange> runs(const std::vector<std::int32_t>& rows);
};

} // namespace workspace_browser_startup
