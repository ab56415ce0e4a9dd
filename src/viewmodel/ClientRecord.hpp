#pragma once

#include <workspace_browser/datamodel/WSVariable.hpp>
#include <workspace_browser/platform/json/Value.hpp>

#include <string>
#include <unordered_set>
#include <vector>

namespace workspace_browser_startup {

// The cells the client is sent: each field of a record becomes a small JSON object with the
// text to show and what the client's editor needs ("value", "editable", "editorValue",
// "class", "isMetaData"). Which fields are cells, and which are editable, comes from the column
// table. Thread-safety: pure functions, safe from any thread; they log each cell at the view
// model's level when that is on.
class ClientRecord {
public:
    // A record whose fields hold cell texts instead of display texts: the name always, the
    // other fields only when their column is in `visible`; the flags and icon class copied.
    static WSVariable make(const WSVariable& variable,
                           const std::unordered_set<std::string>& visible);
    // The row of a variable whose texts are not fetched yet, over the columns in `ordered`: its
    // name with the waiting icon, every other cell blank.
    static foundation::json::Array standBy(const std::string& name,
                                           const std::vector<std::string>& ordered);
    static std::string cellText(foundation::json::Object cell);
};

} // namespace workspace_browser_startup
