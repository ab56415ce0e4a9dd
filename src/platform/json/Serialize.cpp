#include <workspace_browser/platform/json/Serialize.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

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

// Whether any of the eight bytes of `word` needs escaping: below 0x20, '"' or '\\'. Each test
// is exact for "some byte matches", so a clean word can be copied without looking further.
bool wordNeedsEscape(std::uint64_t word) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    constexpr std::uint64_t highs = 0x8080808080808080ULL;
    const std::uint64_t quotes = word ^ (ones * '"');
    const std::uint64_t backslashes = word ^ (ones * '\\');
    const std::uint64_t below = (word - ones * 0x20) & ~word;
    const std::uint64_t quote = (quotes - ones) & ~quotes;
    const std::uint64_t backslash = (backslashes - ones) & ~backslashes;
    return ((below | quote | backslash) & highs) != 0;
}

// First byte in [p, end) that needs escaping, or end. Plain text, the common case, is skipped
// eight bytes at a time.
const char* findEscape(const char* p, const char* end) {
    while (end - p >= 8) {
        std::uint64_t word;
        std::memcpy(&word, p, sizeof word);
        if (wordNeedsEscape(word))
            break;
        p += 8;
    }
    while (p != end && kEscape[static_cast<unsigned char>(*p)] == 0)
        ++p;
    return p;
}

// Integral values print as integers so that counts and indices read naturally (100000, not
// 1e+05); the range check keeps the conversion to long exact. Negative zero keeps its sign.
bool printsAsInteger(double d) {
    return d == std::trunc(d) && d >= -9223372036854775808.0 && d < 9223372036854775808.0 &&
           !(d == 0 && std::signbit(d));
}

// Appends to a std::string through a raw pointer: the string is grown ahead (doubling) and cut
// back to the written length at the end, so that each small piece costs a compare and a copy
// rather than a call into std::string. The destructor cuts the spare bytes off again, also when
// growing throws part way.
class Writer {
public:
    explicit Writer(std::string& out) : mOut(out), mUsed(out.size()) { grow(256); }
    ~Writer() { mOut.resize(used()); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void write(const Value& root);

private:
    std::size_t used() const { return static_cast<std::size_t>(mPos - mOut.data()); }

    void grow(std::size_t need) {
        const std::size_t written = mPos == nullptr ? mUsed : used();
        mOut.resize(std::max(written + need, mOut.size() * 2));
        mPos = mOut.data() + written;
        mEnd = mOut.data() + mOut.size();
    }
    void ensure(std::size_t need) {
        if (static_cast<std::size_t>(mEnd - mPos) < need)
            grow(need);
    }
    void put(char c) {
        ensure(1);
        *mPos++ = c;
    }
    void put(const char* text, std::size_t size) {
        ensure(size);
        std::memcpy(mPos, text, size);
        mPos += size;
    }

    template <class Number> void number(Number n) {
        ensure(32); // longest output: a negative double in exponent form, 24 characters
        mPos = std::to_chars(mPos, mEnd, n).ptr;
    }
    template <class Floating> void floating(Floating f) {
        if (!std::isfinite(f))
            put("null", 4);
        else if (printsAsInteger(static_cast<double>(f)))
            number(static_cast<long>(f));
        else
            number(f); // shortest text that reads back to the same value at this width
    }
    void string(const std::string& s);
    void scalar(const Value& value);

    std::string& mOut;
    std::size_t mUsed; // length before the writer started, until the first grow
    char* mPos = nullptr;
    char* mEnd = nullptr;
};

void Writer::string(const std::string& s) {
    static constexpr char kHex[] = "0123456789abcdef";
    const char* p = s.data();
    const char* const end = p + s.size();
    // Room for the quotes and the text as is; each escape makes room for its own extra bytes.
    // Invariant in the loop: at least (end - p) + 1 bytes are free.
    ensure(s.size() + 2);
    *mPos++ = '"';
    for (;;) {
        const char* const stop = findEscape(p, end);
        std::memcpy(mPos, p, static_cast<std::size_t>(stop - p));
        mPos += stop - p;
        if (stop == end)
            break;
        ensure(static_cast<std::size_t>(end - stop) + 6 + 1);
        const auto c = static_cast<unsigned char>(*stop);
        const char e = kEscape[c];
        *mPos++ = '\\';
        *mPos++ = e;
        if (e == 'u') {
            *mPos++ = '0';
            *mPos++ = '0';
            *mPos++ = kHex[c >> 4];
            *mPos++ = kHex[c & 0xF];
        }
        p = stop + 1;
    }
    *mPos++ = '"';
}

void Writer::scalar(const Value& value) {
    switch (value.kind()) {
    case Value::Kind::Boolean:
        if (value.get<bool>())
            put("true", 4);
        else
            put("false", 5);
        break;
    case Value::Kind::Double:
        floating(value.get<double>());
        break;
    case Value::Kind::Float:
        floating(value.get<float>());
        break;
    case Value::Kind::Long:
        number(value.get<long>());
        break;
    case Value::Kind::UnsignedLong:
        number(value.get<unsigned long>());
        break;
    case Value::Kind::String:
        string(value.get<std::string>());
        break;
    default: // Undefined and Null; containers never come here
        put("null", 4);
        break;
    }
}

// An array or object whose elements are being written.
struct OpenContainer {
    const Array* array;   // null for an object
    const Object* object; // null for an array
    std::size_t nextIndex;
    Object::const_iterator nextMember;
};

// Containers are walked with an explicit stack instead of recursion, so that no nesting depth
// can exhaust the thread's stack (sanitizer builds make every recursive frame large).
void Writer::write(const Value& root) {
    std::vector<OpenContainer> open;
    const Value* current = &root;
    while (current != nullptr) {
        if (current->is<Array>()) {
            put('[');
            open.push_back({&current->get<Array>(), nullptr, 0, {}});
        } else if (current->is<Object>()) {
            put('{');
            const Object& object = current->get<Object>();
            open.push_back({nullptr, &object, 0, object.begin()});
        } else {
            scalar(*current);
        }
        // Find the next value to write, closing the containers that are complete.
        current = nullptr;
        while (current == nullptr && !open.empty()) {
            OpenContainer& top = open.back();
            if (top.array != nullptr) {
                if (top.nextIndex < top.array->size()) {
                    if (top.nextIndex != 0)
                        put(',');
                    current = &(*top.array)[top.nextIndex++];
                } else {
                    put(']');
                    open.pop_back();
                }
            } else if (top.nextMember != top.object->end()) {
                if (top.nextMember != top.object->begin())
                    put(',');
                string(top.nextMember->first);
                put(':');
                current = &top.nextMember->second;
                ++top.nextMember;
            } else {
                put('}');
                open.pop_back();
            }
        }
    }
}

} // namespace

void serialize(const Value& value, std::string& out) {
    Writer(out).write(value);
}

std::string serialize(const Value& value) {
    std::string out;
    Writer(out).write(value);
    return out;
}

} // namespace foundation::json
