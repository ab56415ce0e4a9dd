#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/viewmodel/DisplayedNumber.hpp>
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <algorithm>
#include <string_view>

namespace workspace_browser_startup {

namespace {

using Order = WSColumn::Order;

// What a sort key stands for: how its texts compare and which field holds them. Unknown keys
// compare no field, like Name and Value.
struct Column {
    Order order = Order::none;
    std::string WSVariable::*field = nullptr;
};

Column lookUp(std::string_view key) noexcept {
    if (const WSColumn* column = WSColumn::find(key))
        return {column->order, column->field};
    return {};
}

bool before(const Column& column, bool ascending, const WSVariable& a,
            const WSVariable& b) noexcept {
    switch (column.order) {
    case Order::none:
        return false;
    case Order::text:
        return TextAlphabeticalSortComparator{ascending}(a.*column.field, b.*column.field);
    case Order::numeric:
        break;
    }
    const std::string& textA = a.*column.field;
    const std::string& textB = b.*column.field;
    const DisplayedNumber::Result x = DisplayedNumber::parse(textA);
    const DisplayedNumber::Result y = DisplayedNumber::parse(textB);
    if (x.status != DisplayedNumber::Status::ok || y.status != DisplayedNumber::Status::ok) {
        // A text that does not read as a number (a class-specific display, say) still gets a
        // place: that pair is compared as text.
        return TextAlphabeticalSortComparator{ascending}(textA, textB);
    }
    return ascending ? x.value < y.value : x.value > y.value;
}

} // namespace

bool WSVariableAlphabeticalSortComparator::operator()(const WSVariable& a,
                                                      const WSVariable& b) const noexcept {
    // The fields are public and may change between calls, so the key is read every time.
    return before(lookUp(sortColumn), ascending, a, b);
}

void WSVariableAlphabeticalSortComparator::sort(std::vector<WSVariable>& records) const {
    const Column column = lookUp(sortColumn);
    const bool up = ascending;
    const auto less = [&column, up](const WSVariable& a, const WSVariable& b) {
        return before(column, up, a, b);
    };
    if (column.order == Order::numeric)
        std::stable_sort(records.begin(), records.end(), less);
    else
        std::sort(records.begin(), records.end(), less);
}

} // namespace workspace_browser_startup
