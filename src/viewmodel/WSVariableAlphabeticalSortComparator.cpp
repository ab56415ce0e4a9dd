#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <workspace_browser/viewmodel/DisplayedNumber.hpp>
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <algorithm>
#include <string_view>
#include <utility>

namespace workspace_browser_startup {

namespace {

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

} // namespace

WSVariableAlphabeticalSortComparator::WSVariableAlphabeticalSortComparator(bool ascending,
                                                                           std::string sortColumn)
    : mAscending(ascending), mSortColumn(std::move(sortColumn)) {
    if (mSortColumn == "Class") {
        mKind = Kind::text;
        mField = &WSVariable::className;
        return;
    }
    for (const auto& column : kNumericColumns) {
        if (mSortColumn == column.key) {
            mKind = Kind::numeric;
            mField = column.field;
            return;
        }
    }
    // Name, Value and unknown keys: no field takes part, so every pair compares equal.
}

bool WSVariableAlphabeticalSortComparator::operator()(const WSVariable& a,
                                                      const WSVariable& b) const noexcept {
    switch (mKind) {
    case Kind::unsorted:
        return false;
    case Kind::text:
        return TextAlphabeticalSortComparator{mAscending}(a.*mField, b.*mField);
    case Kind::numeric:
        break;
    }
    const std::string& textA = a.*mField;
    const std::string& textB = b.*mField;
    const DisplayedNumber::Result x = DisplayedNumber::parse(textA);
    const DisplayedNumber::Result y = DisplayedNumber::parse(textB);
    if (x.status != DisplayedNumber::Status::ok || y.status != DisplayedNumber::Status::ok) {
        // A text that does not read as a number (a class-specific display, say) still gets a
        // place: that pair is compared as text.
        return TextAlphabeticalSortComparator{mAscending}(textA, textB);
    }
    return mAscending ? x.value < y.value : x.value > y.value;
}

void WSVariableAlphabeticalSortComparator::sort(std::vector<WSVariable>& records) const {
    if (mKind == Kind::numeric)
        std::stable_sort(records.begin(), records.end(), *this);
    else
        std::sort(records.begin(), records.end(), *this);
}

} // namespace workspace_browser_startup
