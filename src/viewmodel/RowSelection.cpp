#include "RowSelection.hpp"

#include "ViewportMath.hpp"

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>
#include <unordered_map>

namespace workspace_browser_startup {

namespace {

// Up to this many names are looked up one by one; more get an index of the rows.
constexpr std::size_t kLinearLookupLimit = 16;

} // namespace

RowSelection::Picked RowSelection::namesIn(const std::vector<std::string>& list,
                                           const std::vector<RowRange>& ranges) {
    Picked picked;
    const auto listed = static_cast<std::int64_t>(list.size());
    // Rows already taken, as disjoint ranges by first row.
    std::map<std::int64_t, std::int64_t> taken;
    for (const RowRange& range : ranges) {
        if (range.start >= listed || range.start > range.end)
            continue;
        // Rows before the first one do not exist; a range reaching back there is cut.
        const std::int64_t first = std::max<std::int64_t>(range.start, 0);
        const std::int64_t last = std::min<std::int64_t>(range.end, listed - 1);
        if (first > last)
            continue;
        std::int64_t r = first;
        auto next = taken.upper_bound(r);
        if (next != taken.begin() && std::prev(next)->second >= r)
            r = std::prev(next)->second + 1;
        while (r <= last) {
            next = taken.lower_bound(r);
            const std::int64_t pieceEnd =
                next == taken.end() ? last : std::min(last, next->first - 1);
            for (; r <= pieceEnd; ++r) {
                picked.names.push_back(list[static_cast<std::size_t>(r)]);
                picked.rows.push_back(r);
            }
            if (next != taken.end() && next->first <= last)
                r = next->second + 1;
        }
        // Take [first, last], merged with the ranges it overlaps or touches.
        std::int64_t mergedFirst = first;
        std::int64_t mergedLast = last;
        auto it = taken.upper_bound(first);
        if (it != taken.begin() && std::prev(it)->second >= first - 1)
            --it;
        while (it != taken.end() && it->first <= last + 1) {
            mergedFirst = std::min(mergedFirst, it->first);
            mergedLast = std::max(mergedLast, it->second);
            it = taken.erase(it);
        }
        taken.emplace(mergedFirst, mergedLast);
    }
    return picked;
}

std::vector<std::int32_t> RowSelection::rowsOf(const std::vector<std::string>& list,
                                               const std::vector<std::string>& names) {
    std::vector<std::int32_t> rows;
    rows.reserve(names.size());
    if (names.size() <= kLinearLookupLimit) {
        for (const std::string& name : names) {
            const auto found = std::find(list.begin(), list.end(), name);
            if (found != list.end())
                rows.push_back(ViewportMath::toInt32(found - list.begin()));
        }
        return rows;
    }
    // The first row of each name wins, as a search from the top would find it.
    std::unordered_map<std::string_view, std::int32_t> index;
    index.reserve(list.size());
    for (std::size_t i = 0; i < list.size(); ++i)
        index.try_emplace(list[i], ViewportMath::toInt32(static_cast<std::int64_t>(i)));
    for (const std::string& name : names) {
        const auto found = index.find(name);
        if (found != index.end())
            rows.push_back(found->second);
    }
    return rows;
}

std::vector<RowRange> RowSelection::runs(const std::vector<std::int32_t>& rows) {
    std::vector<RowRange> ranges;
    for (const std::int32_t row : rows) {
        if (ranges.empty() || std::int64_t{row} != std::int64_t{ranges.back().end} + 1)
            ranges.push_back(RowRange{row, row});
        else
            ranges.back().end = row;
    }
    return ranges;
}

} // namespace workspace_browser_startup
