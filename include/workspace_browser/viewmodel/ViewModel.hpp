#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/viewmodel/DSObserver.hpp>
#include <workspace_browser/viewmodel/VMObserver.hpp>

namespace workspace_browser_startup {

// The one interface a view model implements: it answers both channel endpoints. The paging
// observer is the first base, so a ViewModel pointer converts to a DSObserver pointer unchanged.
// Thread-safety: as its bases; onPreShutdown comes from the host's thread.
class WSB_EXPORT ViewModel : public DSObserver, public VMObserver {
public:
    ~ViewModel() override = default;

    // Called by the host before the view model is destroyed: stop taking work, wait for the
    // work in progress and stop the work queue.
    virtual void onPreShutdown() = 0;
};

} // namespace workspace_browser_startup
