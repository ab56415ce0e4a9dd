#pragma once

#include <workspace_browser/Export.hpp>

#include <string>

namespace workspace_browser_startup {

// One variable of the workspace as the grid shows it: display texts exactly as the host
// formatted them (UTF-8), never parsed back into numbers. The two flags sit between `value` and
// `iconClass`, and `std` comes before `var`; hosts fill the record by position, so keep the
// order. Not thread-safe: a plain value, copied between threads, never shared.
struct WSB_EXPORT WSVariable {
    // Every member has an initializer so that designated initializers may name only a few.
    std::string name{};
    std::string size{};
    std::string className{};
    std::string value{};
    bool isSummary = false; // `value` summarises the variable instead of showing it
    bool isDirty = false;   // the texts are out of date and must be fetched from the host again
    std::string iconClass{};
    std::string min{};
    std::string max{};
    std::string range{};
    std::string mean{};
    std::string median{};
    std::string mode{};
    std::string std{};
    std::string var{};
    std::string bytes{};

    friend bool operator==(const WSVariable&, const WSVariable&) = default;
};

} // namespace workspace_browser_startup
