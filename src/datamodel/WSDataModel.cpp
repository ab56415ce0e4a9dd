#include <workspace_browser/datamodel/WSDataModel.hpp>

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <algorithm>
#include <cstddef>
#include <ostream>
#include <string_view>
#include <utility>

namespace workspace_browser_startup {

namespace {

// Every record of this class is written at the ordinary level, except the one about names the
// cache does not know: view models ask for rows from name lists that lag a little behind
// deletions, so that message can come once per visible row on every page and is only useful
// when hunting a mismatch. It gets the detail level, so it can be switched on by itself.
constexpr int kLogLevel = foundation::log::kOrdinary;
constexpr int kUnknownVariableLogLevel = foundation::log::kDetail;

// Number of names logged per changed-variables event; large assignments would flood the log.
constexpr std::size_t kMaxLoggedNamesPerEvent = 25;
// Characters of a name shown in the line logged per fetched record.
constexpr std::size_t kMaxLoggedNameChars = 50;
// Records the host could not supply in one answer before the model asks for a fresh event.
constexpr int kMissingCountForTrigger = 2;

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatools::WSDataModel");
    return instance;
}

const foundation::log::basic_diagnostic_logger& perfLogger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatoolsperf::WSDataModel");
    return instance;
}

void logUnknownVariable(const std::string& name) {
    WSB_LOG(logger(), kUnknownVariableLogLevel)
        << "We were asked for a variable that we don't have in our map. variableName=" << name;
}

// Streams at most the first `maxChars` characters of a UTF-8 name, then "..." if it was longer;
// cuts only between characters so that the log stays valid UTF-8.
struct ShortName {
    std::string_view text;
    std::size_t maxChars;
};

std::ostream& operator<<(std::ostream& out, const ShortName& shortName) {
    std::size_t chars = 0;
    for (std::size_t i = 0; i < shortName.text.size(); ++i) {
        const bool continuation = (static_cast<unsigned char>(shortName.text[i]) & 0xC0U) == 0x80U;
        if (!continuation && chars++ == shortName.maxChars)
            return out << shortName.text.substr(0, i) << "...";
    }
    return out << shortName.text;
}

} // namespace

WSDataModel::WSDataModel(const WSListenersSubscribeFunction& subscribeFcn,
                         WorkspaceDisplayCallback displayCallback,
                         TriggerWorkspaceEventFunction triggerWorkspaceEvent)
    : mDisplayCallback(std::move(displayCallback)),
      mTriggerWorkspaceEvent(std::move(triggerWorkspaceEvent)) {
    WSB_TRACE_SCOPE(perfLogger(), "WSDataModel");
    mConnection = subscribeFcn(
        [this](WSListenersSubscriptionCallbackArg events) { handleWSEvent(std::move(events)); });
    WSB_LOG(logger(), kLogLevel) << "Registered callback with WSListeners";
}

WSDataModel::~WSDataModel() = default;

Connection WSDataModel::subscribe(WSListenersSubscriptionCallback callback) {
    WSB_LOG(logger(), kLogLevel) << "Added callback";
    return registerCallback(std::move(callback));
}

void WSDataModel::handleWSEvent(WSListenersSubscriptionCallbackArg events) {
    WSB_TRACE_SCOPE(perfLogger(), "WSDataModel");
    WSB_LOG(logger(), kLogLevel) << "Received callback. events.size()=" << events.size();
    {
        std::lock_guard<std::mutex> lock(mCacheMutex);
        for (const EventInfo& event : events) {
            switch (event.type) {
            case EventType::VARIABLE_DELETED:
                for (const std::string& name : event.variableNames) {
                    mVariableMap.erase(name);
                    mNameSet.erase(name);
                }
                break;
            case EventType::WORKSPACE_CLEARED:
                WSB_LOG(logger(), kLogLevel) << "WSDataModel Handling WORKSPACE_CLEARED";
                mVariableMap.clear();
                mNameSet.clear();
                break;
            case EventType::VARIABLE_CHANGED: {
                const std::size_t count = event.variableNames.size();
                const std::size_t logged = std::min(count, kMaxLoggedNamesPerEvent);
                for (std::size_t i = 0; i < count; ++i) {
                    const std::string& name = event.variableNames[i];
                    if (i < logged)
                        WSB_LOG(logger(), kLogLevel) << "PROCESSING " << name;
                    const auto found = mVariableMap.lower_bound(name);
                    if (found != mVariableMap.end() && found->first == name) {
                        found->second.isDirty = true;
                        continue;
                    }
                    if (i < logged)
                        WSB_LOG(logger(), kLogLevel) << "PROCESSING (NEW)" << name;
                    WSVariable fresh;
                    fresh.name = name;
                    fresh.isDirty = true;
                    mVariableMap.emplace_hint(found, name, std::move(fresh));
                    mNameSet.insert(name);
                }
                if (logged < count)
                    WSB_LOG(logger(), kLogLevel) << "PROCESSING: and " << count - logged << " more";
                break;
            }
            default:
                // Added variables reach the cache through changed-variable events and forced
                // fetches; the view models handle this kind themselves.
                WSB_LOG(logger(), kLogLevel) << "Event not handled";
                break;
            }
        }
    }

    const std::vector<WSListenersSubscriptionCallback> callbacks = copyCallbacks();
    WSB_LOG(logger(), kLogLevel) << "callbacks.size()=" << callbacks.size();
    for (const WSListenersSubscriptionCallback& callback : callbacks)
        callback(events);
}

void WSDataModel::getVariables(std::vector<std::string> variableNames,
                               std::vector<std::string> fields, bool computeStats,
                               double statsLimit, WSVariablesCallback callback, bool forceAll) {
    std::sort(fields.begin(), fields.end());
    bool allDirty = forceAll;
    std::vector<std::string> dirtyVariables;
    {
        std::lock_guard<std::mutex> lock(mCacheMutex);
        // A different set of columns means every cached record lacks some requested text.
        if (!forceAll)
            allDirty = fields != mLastFields;
        mLastFields = fields;

        for (const std::string& name : variableNames) {
            const auto found = mVariableMap.find(name);
            if (found != mVariableMap.end()) {
                if (found->second.isDirty || allDirty) {
                    found->second.isDirty = true;
                    dirtyVariables.push_back(name);
                }
            } else if (!forceAll) {
                logUnknownVariable(name);
            } else {
                WSVariable fresh;
                fresh.name = name;
                fresh.isDirty = true;
                mVariableMap.emplace(name, std::move(fresh));
                mNameSet.insert(name);
                dirtyVariables.push_back(name);
                WSB_LOG(logger(), kLogLevel) << "Adding unmapped variable " << name;
            }
        }
    }

    // The caller sees the names at once, before the slow statistics arrive.
    WSB_LOG(logger(), kLogLevel) << "Sending names only to callback, variableNames length = "
                                 << variableNames.size();
    processCallbackForVariables(variableNames, callback);

    WSB_LOG(logger(), kLogLevel) << "getVariables, dirtyVariables size = " << dirtyVariables.size()
                                 << ", allDirty = " << (allDirty ? "true" : "false");
    if (dirtyVariables.empty())
        return;

    auto completion = [this, names = std::move(variableNames), callback = std::move(callback)]() {
        WSB_LOG(logger(), kLogLevel) << "STEP 3, variableNames length = " << names.size();
        processCallbackForVariables(names, callback);
    };
    updateWSVariables(std::move(dirtyVariables), std::move(fields), computeStats, statsLimit,
                      std::move(completion));
}

void WSDataModel::updateWSVariables(std::vector<std::string> variableNames,
                                    std::vector<std::string> fields, bool computeStats,
                                    double statsLimit, std::function<void()> done) {
    WSB_TRACE_SCOPE(perfLogger(), "WSDataModel");
    WorkspaceDisplayResultCallback onResult =
        [this, done = std::move(done)](const std::vector<WSVariable>& records) {
            storeHostRecords(records, done);
        };
    mDisplayCallback(variableNames, std::move(fields), computeStats, statsLimit,
                     std::move(onResult));
}

void WSDataModel::storeHostRecords(const std::vector<WSVariable>& records,
                                   const std::function<void()>& done) {
    WSB_LOG(logger(), kLogLevel) << "STEP 2";
    int missing = 0;
    const bool logEachRecord = logger().enabled(kLogLevel);
    {
        std::lock_guard<std::mutex> lock(mCacheMutex);
        for (const WSVariable& record : records) {
            if (logEachRecord) {
                WSB_LOG(logger(), kLogLevel)
                    << "Workspace Display Name=" << ShortName{record.name, kMaxLoggedNameChars}
                    << " Value=" << record.value << " Class=" << record.className
                    << " Size=" << record.size << " IsSummary=" << int{record.isSummary}
                    << " IsDirty=" << int{record.isDirty};
            }
            // Records for names never requested land in the map only, so they do not change
            // the workspace size that view models see.
            mVariableMap[record.name] = record;
            // The host marks the records it could not supply as still dirty.
            if (record.isDirty)
                ++missing;
        }
    }

    done();

    WSB_LOG(logger(), kLogLevel) << "================ MISSING COUNT: " << missing
                                 << " ===============";
    // A single missing variable is usually one deleted while the request travelled; several
    // mean the cache has drifted from the workspace, so a fresh event resynchronises it.
    if (missing >= kMissingCountForTrigger) {
        WSB_LOG(logger(), kLogLevel)
            << "================ calling mTriggerWorkspaceEvent ===============";
        mTriggerWorkspaceEvent();
        WSB_LOG(logger(), kLogLevel)
            << "================ calling mTriggerWorkspaceEvent done ===============";
    }
}

void WSDataModel::processCallbackForVariables(const std::vector<std::string>& variableNames,
                                              const WSVariablesCallback& callback) {
    std::vector<WSVariable> result;
    result.reserve(variableNames.size());
    // Asking the log filters once per page rather than once per row keeps page requests cheap.
    const bool logEachName = logger().enabled(kLogLevel);
    {
        std::lock_guard<std::mutex> lock(mCacheMutex);
        for (const std::string& name : variableNames) {
            const auto found = mVariableMap.find(name);
            if (found == mVariableMap.end()) {
                logUnknownVariable(name);
                continue;
            }
            if (logEachName) {
                WSB_LOG(logger(), kLogLevel) << "Adding result for " << name;
            }
            result.push_back(found->second);
        }
    }
    if (callback)
        callback(std::move(result));
}

std::string WSDataModel::getVariableValue(WSVariable variable, std::string field) {
    if (const WSColumn* column = WSColumn::find(field))
        return std::move(variable.*column->field);
    WSB_LOG(logger(), kLogLevel) << "WARNING getVariableValue field not found in variable: "
                                 << field;
    return {};
}

std::vector<std::string> WSDataModel::getVariableNames() const {
    std::vector<std::string> names;
    std::lock_guard<std::mutex> lock(mCacheMutex);
    // One walk over the set: a range constructor would walk it once more just to count.
    names.reserve(mNameSet.size());
    for (const std::string& name : mNameSet)
        names.push_back(name);
    return names;
}

std::map<std::string, WSVariable> WSDataModel::getVariableMap() const {
    std::lock_guard<std::mutex> lock(mCacheMutex);
    return mVariableMap;
}

std::size_t WSDataModel::getSize() const {
    std::lock_guard<std::mutex> lock(mCacheMutex);
    return mNameSet.size();
}

} // namespace workspace_browser_startup
