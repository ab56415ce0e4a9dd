#include <workspace_browser/datamodel/WSColumn.hpp>

#include <array>

namespace workspace_browser_startup {

namespace {

using Order = WSColumn::Order;

// Var comes before Std here, as the grid shows them, although the record declares std first.
constexpr std::array<WSColumn, 13> kColumns = {{
    {"Name", &WSVariable::name, Order::none, true, false, 160,
     "ZENTRA:codetools:variableeditor:Name"},
    {"Value", &WSVariable::value, Order::none, true, false, 200,
     "ZENTRA:codetools:variableeditor:Value"},
    {"Size", &WSVariable::size, Order::numeric, false, false, 90,
     "ZENTRA:codetools:variableeditor:Size"},
    {"Class", &WSVariable::className, Order::text, false, false, 130,
     "ZENTRA:codetools:variableeditor:Class"},
    {"Min", &WSVariable::min, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Min"},
    {"Max", &WSVariable::max, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Max"},
    {"Range", &WSVariable::range, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Range"},
    {"Mean", &WSVariable::mean, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Mean"},
    {"Median", &WSVariable::median, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Median"},
    {"Mode", &WSVariable::mode, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Mode"},
    {"Var", &WSVariable::var, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Var"},
    {"Std", &WSVariable::std, Order::numeric, false, true, 80,
     "ZENTRA:codetools:variableeditor:Std"},
    {"Bytes", &WSVariable::bytes, Order::numeric, false, false, 80,
     "ZENTRA:codetools:variableeditor:Bytes"},
}};

} // namespace

std::span<const WSColumn> WSColumn::all() noexcept {
    return kColumns;
}

const WSColumn* WSColumn::find(std::string_view key) noexcept {
    for (const WSColumn& column : kColumns) {
        if (column.key == key)
            return &column;
    }
    return nullptr;
}

} // namespace workspace_browser_startup
