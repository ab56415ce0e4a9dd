#include <workspace_browser/platform/json/Serialize.hpp>

#include <array>
#include <charconv>
#include <cmath>

namespace foundation::json {

namespace {

// For each byte: 0 when it is written as is, otherwise the letter that follows the backslash,
// 'u' meaning the \u00XX form.
constexpr std::array<char, 256> makeEscapeTable() {
    std::array<char, 256> table{};
    for (int c = 0; c < 0x20; ++c)
        table[c] = 'u';
    table['\b'] = 'b';
    table['\f'] = 'f';
    table['\n'] = 'n';
    table['\r'] = 'r';
    table['\t'] = 't';
    table['"'] = '"';
    table['\\'] = '\\';
    return table;
}
constexpr std::array<char, 256> kEscape = makeEscapeTable();

void appendString(const std::string& s, std::string& out) {
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    const char* p = s.data();
    const char* const end = p + s.size();
    // Copy runs of plain bytes in one append; most strings have nothing to escape at all.
    const char* run = p;
    for (; p != end; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        const char e = kEscape[c];
        if (e == 0)
            continue;
        out.append(run, p);
        if (e == 'u') {
            const char seq[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
            out.append(seq, sizeof seq);
        } else {
            const char seq[2] = {'\\', e};
            out.append(seq, sizeof seq);
        }
        run = p + 1;
    }
    out.append(run, end);
    out.push_back('"');
}

// Integral values print as integers so that counts and indices read naturally (100000, not
// 1e+05); the range check keeps the conversion to long exact. Negative zero keeps its sign.
bool printsAsInteger(double d) {
    return d == std::trunc(d) && d >= -9223372036854775808.0 && d < 9223372036854775808.0 &&
           !(d == 0 && std::signbit(d));
}

template <class Number> void appendNumber(Number n, std::string& out) {
    char buf[40];
    const auto result = std::to_chars(buf, buf + sizeof buf, n);
    out.append(buf, result.ptr);
}

template <class Floating> void appendFloating(Floating f, std::string& out) {
    if (!std::isfinite(f))
        out.append("null", 4);
    else if (printsAsInteger(static_cast<double>(f)))
        appendNumber(static_cast<long>(f), out);
    else
        appendNumber(f, out); // shortest text that round-trips at this width
}

void write(const Value& value, std::string& out) {
    switch (value.kind()) {
    case Value::Kind::Undefined:
    case Value::Kind::Null:
        out.append("null", 4);
        break;
    case Value::Kind::Boolean:
        if (value.get<bool>())
            out.append("true", 4);
        else
            out.append("false", 5);
        break;
    case Value::Kind::Double:
        appendFloating(value.get<double>(), out);
        break;
    case Value::Kind::Float:
        appendFloating(value.get<float>(), out);
        break;
    case Value::Kind::Long:
        appendNumber(value.get<long>(), out);
        break;
    case Value::Kind::UnsignedLong:
        appendNumber(value.get<unsigned long>(), out);
        break;
    case Value::Kind::String:
        appendString(value.get<std::string>(), out);
        break;
    case Value::Kind::Array: {
        out.push_back('[');
        bool first = true;
        for (const Value& element : value.get<Array>()) {
            if (!first)
                out.push_back(',');
            first = false;
            write(element, out);
        }
        out.push_back(']');
        break;
    }
    case Value::Kind::Object: {
        out.push_back('{');
        bool first = true;
        for (const auto& [key, member] : value.get<Object>()) {
            if (!first)
                out.push_back(',');
            first = false;
            appendString(key, out);
            out.push_back(':');
            write(member, out);
        }
        out.push_back('}');
        break;
    }
    }
}

} // namespace

void serialize(const Value& value, std::string& out) {
    write(value, out);
}

std::string serialize(const Value& value) {
    std::string out;
    write(value, out);
    return out;
}

} // namespace foundation::json
