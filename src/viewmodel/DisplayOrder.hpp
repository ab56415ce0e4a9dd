#pragma once

#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// The workspace view model's rows: the set of names it lists, always in ascending name order,
// and the list in display order, row i being the i-th name. Every change of either goes through
// here, with two counters: the rebuild number, taken by each rebuild of the list, so that a sort
// answer for an older rebuild is dropped; and the order number, bumped whenever the list
// changes, so that a page cut from an older list is fetched again.
// Not thread-safe: the view model guards it with its state lock.
class DisplayOrder {
public:
    using NameSet = std::set<std::string, TextAlphabeticalSortComparator>;

    // What a batch of workspace events did to the names.
    struct Effect {
        bool namesChanged = false;        // names came or went
        bool cleared = false;             // the workspace was cleared
        std::vector<std::string> deleted; // names the batch deleted
    };

    const NameSet& nameSet() const { return mSet; }
    const std::vector<std::string>& names() const { return mNames; }
    std::uint64_t order() const { return mOrder; }

    // Replaces every name (the first load, a refresh) and lists them by name: a rebuild.
    void replace(std::vector<std::string> names, bool ascending);
    // Applies a batch to the set; the list is rebuilt by the caller's sort, except that an
    // emptied set empties the list at once.
    Effect apply(const WSListenersSubscriptionCallbackArg& events);

    // Starts a rebuild of the list from the set and returns its number.
    std::uint64_t beginRebuild() { return ++mRebuild; }
    // The set's names in name order: a copy, reversed for descending (the order is strict and
    // total, so its descending form is its exact reverse).
    std::vector<std::string> byName(bool ascending) const;
    // Takes `names` as the list if `rebuild` is still the latest rebuild; false otherwise.
    bool finishRebuild(std::uint64_t rebuild, std::vector<std::string> names);
    // Takes `names` as the list now, whatever rebuild is under way.
    void setNames(std::vector<std::string> names);

    // Lists only names that contain `text`, ignoring ASCII case (empty: every name). The set
    // keeps every name; the list, its row count and everything cut from it follow the filter.
    // Takes effect at the next rebuild.
    void setFilter(const std::string& text);
    bool filtered() const { return !mFilter.empty(); }
    bool matches(const std::string& name) const;

private:
    NameSet mSet{TextAlphabeticalSortComparator{true}};
    std::vector<std::string> mNames;
    std::uint64_t mRebuild = 0;
    std::uint64_t mOrder = 0;
    std::string mFilter; // lower case
};

} // namespace workspace_browser_startup
