#include "DisplayOrder.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <utility>

namespace workspace_browser_startup {

namespace {

constexpr int kLogLevel = foundation::log::kOrdinary;

// The batch is logged under the view model's name: these are its steps.
const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatools::WSViewModel");
    return instance;
}

} // namespace

void DisplayOrder::replace(std::vector<std::string> names, bool ascending) {
    // Names usually arrive sorted (the data model keeps them so): checking costs one pass, the
    // sort many more.
    const TextAlphabeticalSortComparator byNameUp{true};
    if (!std::is_sorted(names.begin(), names.end(), byNameUp))
        std::sort(names.begin(), names.end(), byNameUp);
    mSet.clear();
    for (const std::string& name : names)
        mSet.insert(mSet.end(), name);
    if (filtered())
        std::erase_if(names, [this](const std::string& name) { return !matches(name); });
    if (!ascending)
        std::reverse(names.begin(), names.end());
    ++mRebuild;
    setNames(std::move(names));
}

DisplayOrder::Effect DisplayOrder::apply(const WSListenersSubscriptionCallbackArg& events) {
    Effect effect;
    for (const EventInfo& event : events) {
        switch (event.type) {
        case EventType::VARIABLE_DELETED:
            for (const std::string& name : event.variableNames) {
                mSet.erase(name);
                effect.deleted.push_back(name);
            }
            effect.namesChanged = true;
            break;
        case EventType::VARIABLE_CHANGED: {
            WSB_LOG(logger(), kLogLevel) << "WSViewModel Handling VARIABLE_CHANGED or ADDED";
            const std::size_t before = mSet.size();
            for (const std::string& name : event.variableNames)
                mSet.insert(name);
            if (mSet.size() > before)
                effect.namesChanged = true;
            break;
        }
        case EventType::WORKSPACE_CLEARED:
            WSB_LOG(logger(), kLogLevel) << "WSViewModel Handling WORKSPACE_CLEARED";
            mSet.clear();
            effect.namesChanged = true;
            effect.cleared = true;
            break;
        default:
            // New names arrive as changed variables; the data model sends added ones that way.
            break;
        }
    }
    // An empty set needs no sort: its list is empty at once.
    if (effect.namesChanged && mSet.empty()) {
        setNames({});
        ++mRebuild;
    }
    return effect;
}

std::vector<std::string> DisplayOrder::byName(bool ascending) const {
    if (filtered()) {
        std::vector<std::string> names;
        const auto keep = [this](const std::string& name) { return matches(name); };
        if (ascending)
            std::copy_if(mSet.begin(), mSet.end(), std::back_inserter(names), keep);
        else
            std::copy_if(mSet.rbegin(), mSet.rend(), std::back_inserter(names), keep);
        return names;
    }
    if (ascending)
        return {mSet.begin(), mSet.end()};
    return {mSet.rbegin(), mSet.rend()};
}

bool DisplayOrder::finishRebuild(std::uint64_t rebuild, std::vector<std::string> names) {
    if (rebuild != mRebuild)
        return false;
    setNames(std::move(names));
    return true;
}

void DisplayOrder::setNames(std::vector<std::string> names) {
    if (names == mNames)
        return;
    mNames = std::move(names);
    ++mOrder;
}

void DisplayOrder::setFilter(const std::string& text) {
    mFilter = text;
    std::transform(mFilter.begin(), mFilter.end(), mFilter.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
}

bool DisplayOrder::matches(const std::string& name) const {
    if (mFilter.empty())
        return true;
    const auto lowerEqual = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == static_cast<unsigned char>(b);
    };
    return std::search(name.begin(), name.end(), mFilter.begin(), mFilter.end(), lowerEqual) !=
           name.end();
}

} // namespace workspace_browser_startup
