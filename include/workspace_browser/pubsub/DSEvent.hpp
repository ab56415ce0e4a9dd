#pragma once

#include <workspace_browser/platform/json/Value.hpp>

#include <cstdint>
#include <string>
#include <vector>

// One request from, or one reply to, the client's grid on the paging channel. Ranges are
// inclusive and 0-based; -1 means "not set". Copies are value copies, so a view model can take
// a request along to its work queue. A plain value: no synchronisation of its own.
struct DSEvent {
    std::int32_t eventType = -1;
    std::int32_t startRow = -1;
    std::int32_t endRow = -1;
    std::int32_t startColumn = -1;
    std::int32_t endColumn = -1;
    std::int32_t fullStartRow = -1;
    std::int32_t fullEndRow = -1;
    std::int32_t fullStartColumn = -1;
    std::int32_t fullEndColumn = -1;
    // Cell values of an edit request or of a page reply.
    std::vector<foundation::json::Value> data;
    // Set in a page reply when the grid's size changed.
    bool sizeChanged = false;
    // "client" for requests decoded from the channel, otherwise empty until set.
    std::string source;
    // Spare list for owners; the paging channel neither fills nor reads it.
    std::vector<foundation::json::Value> secondaryData;
};
