#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <workspace_browser/viewmodel/DisplayedNumber.hpp>
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <algorithm>
#include <string_view>

namespace workspace_browser_startup {

namespace {

enum class Kind { unsorted, text, numeric };

// What a column key stands for: how its texts compare and which field holds them.
struct Column {
    Kind kind = Kind::unsorted;
    std::string WSVariable::*field = nullptr;
};

struct NumericColumn {
    std::string_view key;
    std::string WSVariable::*field;
};

constexpr NumericColumn kNumericColumns[] = {
    {"Size", &WSVariable::size},   {"Min", &WSVariable::min},   {"Max", &WSVariable::max},
    {"Range", &WSVariable::range}, {"Mean", &WSVariable::mean}, {"Median", &WSVariable::median},
    {"Mode", &WSVariable::mode},   {"Std", &WSVariable::std},   {"Var", &WSVariable::var},
    {"Bytes", &WSVariable::bytes},
};

Column lookUp(std::string_view key) noexcept {
    if (key == "Class")
        return {Kind::text, &WSVariable::className};
    for (const auto& column : kNumericColumns) {
        if (key == column.key)
            return {Kind::numeric, column.field};
    }
    // Name, Value and unknown keys: no field takes part, so every pair compares equal.
    return {};
}

bool before(const Column& column, bool ascending, const WSVariable& a,
            const WSVariable& b) noexcept {
    switch (column.kind) {
    case Kind::unsorted:
        return false;
    case Kind::text:
        return TextAlphabeticalSortComparator{ascending}(a.*column.field, b.*column.field);
    case Kind::numeric:
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
    if (column.kind == Kind::numeric)
        std::stable_sort(records.begin(), records.end(), less);
    else
        std::sort(records.begin(), records.end(), less);
}

} // namespace workspace_browser_startup
