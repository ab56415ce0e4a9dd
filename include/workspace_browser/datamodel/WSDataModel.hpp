#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/datamodel/CallbackManager.hpp>
#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>
#include <workspace_browser/datamodel/WorkspaceFunctions.hpp>

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// The library's cache of the interpreter's workspace: one record per known variable with an
// is-dirty mark, filled by the host's workspace events and refreshed from the host only for the
// variables a view model asks for. Event batches are forwarded to the subscribers.
// Thread-safe: events, fetches, host answers and queries may arrive on different threads; the
// caches have their own lock, never held while a subscriber, the host's fetch or trigger
// function or a result callback runs. Calls are not ordered against each other: a caller that
// needs a consistent sequence serialises its own calls.
// The host must stop delivering events and answers before destroying the model.
class WSB_EXPORT WSDataModel : private CallbackManager<WSListenersSubscriptionCallbackArg> {
public:
    // Subscribes to the host's workspace events at once through `subscribeFcn`.
    WSDataModel(const WSListenersSubscribeFunction& subscribeFcn,
                WorkspaceDisplayCallback displayCallback,
                TriggerWorkspaceEventFunction triggerWorkspaceEvent);
    virtual ~WSDataModel();
    WSDataModel(const WSDataModel&) = delete;
    WSDataModel& operator=(const WSDataModel&) = delete;

    // Registers a subscriber for every event batch; it stays registered while the returned
    // Connection lives.
    Connection subscribe(WSListenersSubscriptionCallback callback);

    // Calls `callback` at once with the cached records of the named variables, then, if some of
    // them are out of date (all of them when the field list changed or `forceAll` is set),
    // fetches those from the host and calls `callback` a second time with the refreshed
    // records. Names the cache does not know are skipped unless `forceAll` adds them.
    void getVariables(std::vector<std::string> variableNames, std::vector<std::string> fields,
                      bool computeStats, double statsLimit, WSVariablesCallback callback,
                      bool forceAll);

    // Asks the host for fresh records of the named variables, stores them and calls `done`
    // when they have arrived; two or more records the host could not supply make it ask the
    // host for a fresh workspace event.
    void updateWSVariables(std::vector<std::string> variableNames, std::vector<std::string> fields,
                           bool computeStats, double statsLimit, std::function<void()> done);

    // Calls `callback` (when not empty) with copies of the cached records of the named
    // variables, skipping unknown names.
    virtual void processCallbackForVariables(const std::vector<std::string>& variableNames,
                                             const WSVariablesCallback& callback);

    // Applies one batch of workspace events to the cache and forwards it to the subscribers.
    void handleWSEvent(WSListenersSubscriptionCallbackArg events);

    // The field of `variable` named by a column key ("Name", "Size", ..., "Bytes"); the empty
    // string, with a warning, for any other key.
    static std::string getVariableValue(WSVariable variable, std::string field);

    // The known names in byte-wise ascending order.
    std::vector<std::string> getVariableNames() const;
    // A copy of the cached records.
    std::map<std::string, WSVariable> getVariableMap() const;
    // The number of known variables (the workspace size shown to view models).
    std::size_t getSize() const;

private:
    void storeHostRecords(const std::vector<WSVariable>& records,
                          const std::function<void()>& done);

    mutable std::mutex mCacheMutex; // guards mVariableMap, mNameSet and mLastFields
    std::map<std::string, WSVariable> mVariableMap;
    std::set<std::string> mNameSet;
    std::vector<std::string> mLastFields;
    WorkspaceDisplayCallback mDisplayCallback;
    TriggerWorkspaceEventFunction mTriggerWorkspaceEvent;
    Connection mConnection; // declared last: destroyed first, so events stop before the caches go
};

} // namespace workspace_browser_startup
