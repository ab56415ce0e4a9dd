#pragma once

#include <workspace_browser/platform/json/Value.hpp>

#include <cstdint>

// The metadata of one column, row or cell of the grid. Indices are 0-based here; the client is
// told 1-based numbers. A plain value: no synchronisation of its own.
struct DSModelEventData {
    std::int32_t row = 0;
    std::int32_t column = 0;
    foundation::json::Object properties;
};
