#pragma once

#include <workspace_browser/datamodel/WSVariable.hpp>

#include <optional>
#include <string_view>
#include <vector>

namespace workspace_browser_startup {

// The numeric order users expect of a column of displayed numbers, for a view model that asks
// for it instead of the default integer-part order: each text by the full value it shows
// (exponents and fractions, "Inf" and "-Inf"; a size such as "3×4" by its element count, in
// 64 bits), and the texts that show no value (NaN, blanks, anything else) after every number in
// both directions, NaN first, then other texts in text order, then blanks.
// Thread-safe: static functions only.
class ExactNumericOrder {
public:
    // The value a displayed text stands for; nullopt for NaN, blanks and other texts.
    static std::optional<double> valueOf(std::string_view text) noexcept;

    // Sorts records by a numeric column's key in this order, stably; false (and nothing done)
    // when `column` is not a numeric column.
    static bool sort(std::vector<WSVariable>& records, std::string_view column, bool ascending);
};

} // namespace workspace_browser_startup
