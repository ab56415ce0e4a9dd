#pragma once

#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>

#include <functional>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// The function types through which the host and the library call each other.

// Receives one batch of workspace events.
using WSListenersSubscriptionCallback = std::function<void(WSListenersSubscriptionCallbackArg)>;

// Supplied by the host: registers a listener for workspace events and returns the handle that
// keeps it registered.
using WSListenersSubscribeFunction = std::function<Connection(WSListenersSubscriptionCallback)>;

// Receives the records the host fetched.
using WorkspaceDisplayResultCallback = std::function<void(const std::vector<WSVariable>&)>;

// Supplied by the host: fetches the named variables filling the given fields (statistics only
// when asked, up to the limit) and calls the result callback with the records, possibly later
// and on another thread.
using WorkspaceDisplayCallback = std::function<void(
    const std::vector<std::string>& variableNames, std::vector<std::string> fields,
    bool computeStats, double statsLimit, WorkspaceDisplayResultCallback onResult)>;

// Supplied by the host: asks it to raise a fresh workspace event.
using TriggerWorkspaceEventFunction = std::function<void()>;

// Receives the records of the variables a view model asked for.
using WSVariablesCallback = std::function<void(std::vector<WSVariable>)>;

} // namespace workspace_browser_startup
