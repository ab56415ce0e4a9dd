#pragma once

#include <cstdint>

namespace workspace_browser_startup {

// One contiguous range of selected rows, start then end; it travels on the view-model channel
// under the keys "start" and "end". A plain value: no synchronisation of its own.
struct RowRange {
    std::int32_t start = 0;
    std::int32_t end = 0;

    friend bool operator==(const RowRange&, const RowRange&) = default;
};

} // namespace workspace_browser_startup
