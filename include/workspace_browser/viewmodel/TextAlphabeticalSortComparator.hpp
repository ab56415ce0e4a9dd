#pragma once

#include <workspace_browser/Export.hpp>

#include <string_view>

namespace workspace_browser_startup {

// Orders names the way the grid lists them: letters compare without regard to case, but at the
// first position where two names hold the same letter in different case the lower-case name
// comes first (ascending), whatever follows; a name comes before the longer names it begins.
// Bytes of 0x80 and above (UTF-8 beyond ASCII) sort before all ASCII characters. Descending is
// exactly the reverse. A strict total order on byte strings, so it also keys ordered sets.
// Thread-safe: a stateless value apart from its direction.
struct WSB_EXPORT TextAlphabeticalSortComparator {
    bool ascending = true;

    // True when a comes before b.
    bool operator()(std::string_view a, std::string_view b) const noexcept;
};

} // namespace workspace_browser_startup
