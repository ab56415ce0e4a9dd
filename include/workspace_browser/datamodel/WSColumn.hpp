#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>

#include <span>
#include <string>
#include <string_view>

namespace workspace_browser_startup {

// One column of the workspace grid. The table of all of them, `WSColumn::all()`, is the one
// place that lists the columns: the data model maps keys to record fields through it, the sort
// orders rows by a column's kind, the view model builds cells and headers from it, the host lays
// out its pages and fills records by key, and the page learns the keys from the host. Adding a
// column means adding a row here, a statistic to the host's describe and a header translation.
// Thread-safety: the table is immutable and may be read from any thread.
struct WSB_EXPORT WSColumn {
    // How rows compare by this column when the grid sorts by it. Name and Value are `none`:
    // the view model sorts names itself, and a value's text has no useful order.
    enum class Order { none, text, numeric };

    std::string_view key;             // column key, also the record's field key
    std::string WSVariable::*field;   // the record field that holds the column's text
    Order order;                      // how a sort by this column compares two records
    bool editable;                    // whether the grid may edit a cell of this column
    bool statistic;                   // computed by the host only when statistics are on
    double defaultWidth;              // in pixels, until the user resizes the column
    std::string_view headerMessageId; // message catalog id of the localised header

    // Every column, in the order a new page shows them.
    static std::span<const WSColumn> all() noexcept;

    // The column with exactly this key (case-sensitive), or null.
    static const WSColumn* find(std::string_view key) noexcept;
};

} // namespace workspace_browser_startup
