#pragma once

#include <workspace_browser/pubsub/DSModelEventData.hpp>

#include <cstdint>
#include <variant>
#include <vector>

// One metadata reply on the paging channel. Table, column and row metadata use a flat list;
// cell metadata uses one inner list per row. Publishing with the wrong alternative for the
// event type fails with std::bad_variant_access. A plain value: no synchronisation of its own.
struct DSModelEvent {
    using List = std::vector<DSModelEventData>;
    using Grid = std::vector<std::vector<DSModelEventData>>;

    std::int32_t eventType = -1;
    std::int32_t startRow = -1;
    std::int32_t endRow = -1;
    std::int32_t startColumn = -1;
    std::int32_t endColumn = -1;
    std::int32_t fullStartRow = -1;
    std::int32_t fullEndRow = -1;
    std::int32_t fullStartColumn = -1;
    std::int32_t fullEndColumn = -1;
    std::variant<List, Grid> data;
};
