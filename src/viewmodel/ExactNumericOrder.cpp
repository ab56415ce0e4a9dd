#include "ExactNumericOrder.hpp"

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/viewmodel/DisplayedNumber.hpp>
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <numeric>

namespace workspace_browser_startup {

namespace {

constexpr std::string_view kTimes = DisplayedNumber::kTimes;

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

std::optional<double> number(std::string_view text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || std::isnan(value))
        return std::nullopt;
    return value;
}

// Where a text without a value goes among the others: NaN, then other texts, then blanks.
int rankOf(std::string_view text) {
    const std::string_view t = trimmed(text);
    if (t.empty())
        return 3;
    return t == "NaN" || t == "nan" ? 1 : 2;
}

} // namespace

std::optional<double> ExactNumericOrder::valueOf(std::string_view text) noexcept {
    const std::string_view t = trimmed(text);
    if (t.empty())
        return std::nullopt;
    if (t.find(kTimes) == std::string_view::npos)
        return number(t);
    double product = 1;
    for (std::size_t start = 0;;) {
        const std::size_t at = t.find(kTimes, start);
        const std::string_view piece =
            t.substr(start, at == std::string_view::npos ? t.npos : at - start);
        std::uint64_t count = 0;
        const auto [stop, error] =
            std::from_chars(piece.data(), piece.data() + piece.size(), count);
        if (piece.empty() || error != std::errc() || stop != piece.data() + piece.size())
            return std::nullopt;
        product *= static_cast<double>(count);
        if (at == std::string_view::npos)
            return product;
        start = at + kTimes.size();
    }
}

bool ExactNumericOrder::sort(std::vector<WSVariable>& records, std::string_view column,
                             bool ascending) {
    const WSColumn* found = WSColumn::find(column);
    if (!found || found->order != WSColumn::Order::numeric)
        return false;
    // Each text is read once, not once per comparison.
    struct Key {
        std::optional<double> value;
        int rank = 0;
    };
    std::vector<Key> keys(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::string& text = records[i].*found->field;
        keys[i].value = valueOf(text);
        keys[i].rank = keys[i].value ? 0 : rankOf(text);
    }
    std::vector<std::size_t> order(records.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    const TextAlphabeticalSortComparator textOrder{true};
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        const Key& x = keys[a];
        const Key& y = keys[b];
        if (x.rank != y.rank)
            return x.rank < y.rank;
        if (x.value)
            return ascending ? *x.value < *y.value : *x.value > *y.value;
        if (x.rank == 2)
            return textOrder(records[a].*found->field, records[b].*found->field);
        return false;
    });
    std::vector<WSVariable> sorted;
    sorted.reserve(records.size());
    for (std::size_t index : order)
        sorted.push_back(std::move(records[index]));
    records = std::move(sorted);
    return true;
}

} // namespace workspace_browser_startup
