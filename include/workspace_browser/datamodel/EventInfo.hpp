#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// What happened to the variables of one workspace change.
enum class EventType : std::int32_t {
    VARIABLE_ADDED = 0,
    VARIABLE_CHANGED = 1, // new names may appear here as well
    VARIABLE_DELETED = 2,
    WORKSPACE_CLEARED = 3,
};

// One workspace change: its kind and the variables concerned (none for a cleared workspace).
// Not thread-safe: a plain value, copied between threads, never shared.
struct EventInfo {
    EventType type = EventType::VARIABLE_ADDED;
    std::vector<std::string> variableNames;

    friend bool operator==(const EventInfo&, const EventInfo&) = default;
};

// One batch of workspace changes; always passed by value.
using WSListenersSubscriptionCallbackArg = std::vector<EventInfo>;

} // namespace workspace_browser_startup
