#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/viewmodel/RowRange.hpp>

#include <string>
#include <vector>

namespace workspace_browser_startup {

// What the view-model endpoint calls when the user does something in the grid. The endpoint
// holds plain, non-owning pointers and calls every registered observer in registration order.
// Thread-safety: called on the message service's delivery thread; implementations must return
// promptly and move lengthy work elsewhere.
class WSB_EXPORT VMObserver {
public:
    virtual ~VMObserver() = default;

    virtual void handleSelectionChanged(std::vector<RowRange> rows) = 0;
    virtual void handleFocusChanged(bool hasFocus) = 0;
    virtual void handleDoubleClick(std::string variableName) = 0;
    virtual void handleDrop(std::string data, std::string workspace) = 0;
    virtual void handleRefresh(std::vector<std::string> variables, bool immediateUpdate) = 0;
    virtual void gridSizeChanged() = 0;
};

} // namespace workspace_browser_startup
