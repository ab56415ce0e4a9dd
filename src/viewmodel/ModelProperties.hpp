#pragma once

#include <workspace_browser/pubsub/DSEvent.hpp>
#include <workspace_browser/pubsub/DSModelEvent.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// The metadata replies of the paging channel, built from a request and a snapshot of the view
// state: table properties (the selected names), one property map per visible column, and the
// empty row and cell entries the grid expects. Rows and cells cover only the rows the grid has.
// Thread-safety: pure functions, safe from any thread.
class ModelProperties {
public:
    // Above this many rows only the name column stays sortable.
    static constexpr std::size_t kMaxSortableRows = 10000;

    static DSModelEvent table(const DSEvent& request, const std::vector<std::string>& selected);
    // One map per column of `columns` (visible keys in display order), with the width at the
    // same index: fewer widths than columns throws std::out_of_range.
    static DSModelEvent columns(const DSEvent& range, const std::vector<std::string>& columns,
                                const std::vector<double>& widths, std::size_t rowCount);
    static DSModelEvent rows(const DSEvent& request, std::size_t rowCount, std::size_t columnCount);
    static DSModelEvent cells(const DSEvent& request, std::size_t columnCount,
                              std::size_t rowCount);
};

} // namespace workspace_browser_startup
