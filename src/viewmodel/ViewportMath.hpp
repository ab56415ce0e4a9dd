#pragma once

#include <workspace_browser/pubsub/DSEvent.hpp>
#include <workspace_browser/pubsub/DSModelEvent.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace workspace_browser_startup {

// The arithmetic of rows and columns the view model does over and over: indices are 32-bit on
// the wire and 64-bit in containers, and every range it answers must lie inside the table.
// Thread-safety: pure functions, safe from any thread.
class ViewportMath {
public:
    // `value` clamped into the 32-bit range.
    static std::int32_t toInt32(std::int64_t value);
    // The index of the last of `count` items, 0 when there are none.
    static std::int32_t lastIndex(std::size_t count);

    // A paging event over a table of `rowCount` rows and `columnCount` columns: the given rows
    // and start column clamped into the table's rows (the start column too, as the grid
    // expects), the end column the last one, the full range the whole table.
    static std::shared_ptr<DSEvent> tableEvent(std::size_t rowCount, std::size_t columnCount,
                                               std::int32_t startRow, std::int32_t endRow,
                                               std::int32_t startColumn, bool sizeChanged);
    // The whole table as a range: rows and columns from 0 to their last index.
    static DSEvent wholeTable(std::size_t rowCount, std::size_t columnCount);

    // The rows of `event` that a grid of `rowCount` rows has, first and last inclusive; first
    // is above last when there are none.
    static std::pair<std::int64_t, std::int64_t> rowsInGrid(const DSEvent& event,
                                                            std::size_t rowCount);

    // Copies the requested and the full range of `event` into `model`.
    static void copyRange(const DSEvent& event, DSModelEvent& model);
};

} // namespace workspace_browser_startup
