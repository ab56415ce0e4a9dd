#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <boost/numeric/conversion/converter.hpp>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>

namespace workspace_browser_startup {

namespace {

namespace json = foundation::json;
namespace pr = foundation::json::parse_result;

// How "vxdata" is read in the object being parsed: as ordinary JSON, or as an array of exact
// signed or unsigned 64-bit integers. The width in the type name does not matter.
enum class IntegerRule { None, Signed, Unsigned };

IntegerRule ruleForTypeName(std::string_view name) {
    if (name == "int64" || name == "int32" || name == "int16" || name == "int8")
        return IntegerRule::Signed;
    if (name == "uint64" || name == "uint32" || name == "uint16" || name == "uint8")
        return IntegerRule::Unsigned;
    return IntegerRule::None;
}

bool isKey(std::string_view key, const char (&literal)[7]) {
    return key.size() == 6 && std::memcmp(key.data(), literal, 6) == 0;
}

inline bool isDigit(char c) {
    return static_cast<unsigned char>(c - '0') < 10;
}

inline bool isJsonSpace(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Returns the first '"' or '\\' in [p, end), or end. Strings without escapes are the common
// case, so this looks at sixteen bytes per step where SSE2 is available, then at eight: each
// mask below has its lowest set bit in the first byte that matches (borrows only ever run
// towards higher bytes). Control characters are ordinary content here.
inline const char* findStringSpecial(const char* p, const char* end) {
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    while (end - p >= 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i hits =
            _mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, backslash));
        if (const int mask = _mm_movemask_epi8(hits))
            return p + std::countr_zero(static_cast<unsigned>(mask));
        p += 16;
    }
#endif
    if constexpr (std::endian::native == std::endian::little) {
        constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
        constexpr std::uint64_t kHighs = 0x8080808080808080ULL;
        while (end - p >= 8) {
            std::uint64_t word;
            std::memcpy(&word, p, sizeof word);
            const std::uint64_t quote = word ^ (kOnes * '"');
            const std::uint64_t backslash = word ^ (kOnes * '\\');
            const std::uint64_t hits =
                ((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash);
            if (const std::uint64_t found = hits & kHighs)
                return p + (std::countr_zero(found) >> 3);
            p += 8;
        }
    }
    for (; p < end; ++p) {
        if (*p == '"' || *p == '\\')
            return p;
    }
    return end;
}

inline int hexValue(char c) {
    if (isDigit(c))
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    if (lower >= 'a' && lower <= 'f')
        return lower - 'a' + 10;
    return -1;
}

void appendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        const char bytes[] = {static_cast<char>(0xC0 | (cp >> 6)),
                              static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 2);
    } else if (cp < 0x10000) {
        const char bytes[] = {static_cast<char>(0xE0 | (cp >> 12)),
                              static_cast<char>(0x80 | ((cp >> 6) & 0x3F)),
                              static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 3);
    } else {
        const char bytes[] = {
            static_cast<char>(0xF0 | (cp >> 18)), static_cast<char>(0x80 | ((cp >> 12) & 0x3F)),
            static_cast<char>(0x80 | ((cp >> 6) & 0x3F)), static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 4);
    }
}

// Where a parsed value goes. Constructing the value in its final place (a new map node or
// vector slot) saves a temporary and a move for every member and element.
struct MemberSink {
    json::Object& object;
    std::string_view key;
    json::Value* placed = nullptr;

    template <class T> json::Value& operator()(T&& payload) {
        auto [it, inserted] = object.emplace(std::piecewise_construct, std::forward_as_tuple(key),
                                             std::forward_as_tuple());
        if constexpr (std::is_nothrow_constructible_v<json::Value, T&&>) {
            if (inserted) {
                // The new member is Undefined, which owns nothing, so the payload is built over
                // it directly instead of through a temporary and a move. Only constructors that
                // cannot throw are used this way, so the member is never left half-built.
                ::new (static_cast<void*>(&it->second)) json::Value(std::forward<T>(payload));
                placed = &it->second;
                return it->second;
            }
        }
        // A repeated key keeps its last value.
        it->second = json::Value(std::forward<T>(payload));
        placed = &it->second;
        return it->second;
    }
};

struct ElementSink {
    json::Array& array;

    template <class T> json::Value& operator()(T&& payload) {
        return array.emplace_back(std::forward<T>(payload));
    }
};

struct ValueSink {
    json::Value& target;

    template <class T> json::Value& operator()(T&& payload) {
        target = json::Value(std::forward<T>(payload));
        return target;
    }
};

// One parse of one text. Every parse function returns false after recording the first failure
// (code and position); the caller then unwinds without touching the text again.
class Parser {
public:
    Parser(const char* begin, const char* end) : mBegin(begin), mP(begin), mEnd(end) {}

    int parseTopObject(json::Object& out) {
        if (mP == mEnd || *mP != '{')
            return failCode(pr::kObjectExpected, mP);
        if (parseObjectBody(out, 1))
            finishTopLevel();
        return mCode;
    }

    int parseTopArray(json::Array& out) {
        if (mP == mEnd)
            return failCode(pr::kUnexpectedEnd, mP);
        if (*mP != '[')
            return failCode(pr::kInvalidValue, mP);
        if (parseArrayBody(out, 1))
            finishTopLevel();
        return mCode;
    }

    std::size_t failurePosition() const {
        return mCode == 0 ? 0 : static_cast<std::size_t>(mFailAt - mBegin);
    }

private:
    bool fail(int code, const char* at) {
        mCode = code;
        mFailAt = at;
        return false;
    }
    int failCode(int code, const char* at) {
        fail(code, at);
        return code;
    }
    bool failEnd() { return fail(pr::kUnexpectedEnd, mEnd); }

    void skipSpace() {
        // Compact messages have no white space at all, so rule that out with one comparison.
        if (mP != mEnd && static_cast<unsigned char>(*mP) > ' ')
            return;
        while (mP != mEnd && isJsonSpace(*mP))
            ++mP;
    }

    void finishTopLevel() {
        skipSpace();
        if (mP != mEnd)
            fail(pr::kTrailingCharacters, mP);
    }

    // mP is at '{'. `depth` is the depth of this object (the top level is 1).
    bool parseObjectBody(json::Object& object, std::size_t depth) {
        if (depth > JsonTypedValues::kMaxDepth)
            return fail(pr::kNestingTooDeep, mP);
        ++mP;
        skipSpace();
        if (mP == mEnd)
            return failEnd();
        if (*mP == '}') {
            ++mP;
            return true;
        }

        IntegerRule rule = IntegerRule::None;
        // Where the text of the last "vxdata" value lies, so that a "vxtype" arriving later can
        // read it again under the typed rules.
        const char* dataBegin = nullptr;
        const char* dataEnd = nullptr;

        for (;;) {
            std::string_view key;
            std::string decodedKey;
            if (!parseString(key, decodedKey))
                return false;
            skipSpace();
            if (mP == mEnd)
                return failEnd();
            if (*mP != ':')
                return fail(pr::kColonExpected, mP);
            ++mP;
            skipSpace();
            if (mP == mEnd)
                return failEnd();

            const bool isData = isKey(key, "vxdata");
            const bool isType = !isData && isKey(key, "vxtype");
            MemberSink sink{object, key};
            if (isData) {
                const char* valueBegin = mP;
                const bool ok = rule == IntegerRule::None ? parseValue(sink, depth + 1)
                                                          : parseTypedIntegers(sink, rule);
                if (!ok)
                    return false;
                dataBegin = valueBegin;
                dataEnd = mP;
            } else {
                if (!parseValue(sink, depth + 1))
                    return false;
                if (isType && sink.placed->is<std::string>()) {
                    const IntegerRule named = ruleForTypeName(sink.placed->get<std::string>());
                    if (named != IntegerRule::None) {
                        rule = named;
                        if (dataBegin != nullptr && !reparseData(object, rule, dataBegin, dataEnd))
                            return false;
                    }
                }
            }

            skipSpace();
            if (mP == mEnd)
                return failEnd();
            if (*mP == ',') {
                ++mP;
                skipSpace();
                continue;
            }
            if (*mP == '}') {
                ++mP;
                return true;
            }
            return fail(pr::kObjectCommaOrBraceExpected, mP);
        }
    }

    // Reads the text of an earlier "vxdata" value again under `rule`; the stored member is
    // replaced only when that succeeds, so a failure leaves the ordinary value in place.
    bool reparseData(json::Object& object, IntegerRule rule, const char* begin, const char* end) {
        const char* resume = mP;
        Parser again(mBegin, end);
        again.mP = begin;
        json::Value typed;
        if (!again.parseTypedIntegers(ValueSink{typed}, rule))
            return fail(again.mCode, again.mFailAt);
        object["vxdata"] = std::move(typed);
        mP = resume;
        return true;
    }

    // mP is at '['.
    bool parseArrayBody(json::Array& array, std::size_t depth) {
        if (depth > JsonTypedValues::kMaxDepth)
            return fail(pr::kNestingTooDeep, mP);
        ++mP;
        skipSpace();
        if (mP == mEnd)
            return failEnd();
        if (*mP == ']') {
            ++mP;
            return true;
        }
        array.reserve(4);
        for (;;) {
            if (!parseValue(ElementSink{array}, depth + 1))
                return false;
            skipSpace();
            if (mP == mEnd)
                return failEnd();
            if (*mP == ',') {
                ++mP;
                skipSpace();
                continue;
            }
            if (*mP == ']') {
                ++mP;
                return true;
            }
            return fail(pr::kArrayCommaOrBracketExpected, mP);
        }
    }

    // `depth` is the depth a nested array or object starting here would have.
    template <class Sink> bool parseValue(Sink&& sink, std::size_t depth) {
        if (mP == mEnd)
            return failEnd();
        switch (*mP) {
        case '"': {
            std::string_view text;
            std::string decoded;
            if (!parseString(text, decoded))
                return false;
            if (text.data() == decoded.data())
                sink(std::move(decoded));
            else
                sink(std::string(text));
            return true;
        }
        case '{':
            return parseObjectBody(sink(json::Object()).template get<json::Object>(), depth);
        case '[':
            return parseArrayBody(sink(json::Array()).template get<json::Array>(), depth);
        case 't':
            return parseLiteral("true", 4) && (sink(true), true);
        case 'f':
            return parseLiteral("false", 5) && (sink(false), true);
        case 'n':
            return parseLiteral("null", 4) && (sink(json::Null()), true);
        default:
            if (*mP == '-' || isDigit(*mP))
                return parseNumber(sink);
            return fail(pr::kInvalidValue, mP);
        }
    }

    bool parseLiteral(const char* word, std::size_t length) {
        const auto left = static_cast<std::size_t>(mEnd - mP);
        const std::size_t compared = std::min(left, length);
        if (std::memcmp(mP, word, compared) != 0)
            return fail(pr::kInvalidValue, mP);
        if (compared < length)
            return failEnd();
        mP += length;
        return true;
    }

    // An ordinary number, as a double. mP is at '-' or a digit.
    template <class Sink> bool parseNumber(Sink& sink) {
        const char* start = mP;
        if (*mP == '-')
            ++mP;
        if (mP == mEnd)
            return failEnd();
        const char* digits = mP;
        std::uint64_t mantissa = 0;
        if (*mP == '0') {
            ++mP;
        } else if (isDigit(*mP)) {
            // Wraps for long inputs; only used below when there are at most 15 digits.
            for (; mP != mEnd && isDigit(*mP); ++mP)
                mantissa = mantissa * 10 + static_cast<unsigned>(*mP - '0');
        } else {
            return fail(pr::kInvalidNumber, mP);
        }
        const auto integerDigits = static_cast<std::size_t>(mP - digits);

        bool plainInteger = true;
        long exponent = 0;
        bool exponentNegative = false;
        if (mP != mEnd && *mP == '.') {
            plainInteger = false;
            ++mP;
            if (mP == mEnd)
                return failEnd();
            if (!isDigit(*mP))
                return fail(pr::kInvalidNumber, mP);
            while (mP != mEnd && isDigit(*mP))
                ++mP;
        }
        if (mP != mEnd && (*mP == 'e' || *mP == 'E')) {
            plainInteger = false;
            ++mP;
            if (mP != mEnd && (*mP == '+' || *mP == '-'))
                exponentNegative = *mP++ == '-';
            if (mP == mEnd)
                return failEnd();
            if (!isDigit(*mP))
                return fail(pr::kInvalidNumber, mP);
            for (; mP != mEnd && isDigit(*mP); ++mP)
                exponent = std::min(exponent * 10 + (*mP - '0'), 1000000L);
        }

        // Up to 15 digits an integer is exact in a double, so no conversion routine is needed.
        if (plainInteger && integerDigits <= 15) {
            const auto magnitude = static_cast<double>(mantissa);
            sink(*start == '-' ? -magnitude : magnitude);
            return true;
        }
        double value = 0;
        const auto [end, error] = std::from_chars(start, mP, value);
        if (error == std::errc::result_out_of_range) {
            // Too small to represent reads as zero; too large fails. The decimal exponent of
            // the leading digit tells the two apart.
            const char* first = digits;
            long scale = exponentNegative ? -exponent : exponent;
            if (*first == '0') {
                const char* q = first + 1;
                if (q != mP && *q == '.') {
                    ++q;
                    while (q != mP && *q == '0') {
                        ++q;
                        --scale;
                    }
                }
                --scale;
            } else {
                scale += static_cast<long>(integerDigits) - 1;
            }
            if (scale > 0)
                return fail(pr::kInvalidNumber, start);
            sink(*start == '-' ? -0.0 : 0.0);
            return true;
        }
        if (error != std::errc() || end != mP)
            return fail(pr::kInvalidNumber, start);
        sink(value);
        return true;
    }

    // mP is at the opening quote (or whatever stands in its place).
    // On success `text` is the string's content: a view of the input when it has no escapes
    // (the common case, copied once by the caller straight into its final place), otherwise a
    // view of `decoded`.
    bool parseString(std::string_view& text, std::string& decoded) {
        if (mP == mEnd)
            return failEnd();
        if (*mP != '"')
            return fail(pr::kStringExpected, mP);
        ++mP;
        const char* run = mP;
        const char* special = findStringSpecial(run, mEnd);
        if (special != mEnd && *special == '"') {
            text = std::string_view(run, static_cast<std::size_t>(special - run));
            mP = special + 1;
            return true;
        }
        // Escapes (or an error): copy the plain runs in between as whole spans.
        std::string& out = decoded;
        out.reserve(static_cast<std::size_t>(special - run) + 16);
        for (;;) {
            out.append(run, special);
            mP = special;
            if (mP == mEnd)
                return failEnd();
            const char c = *mP;
            if (c == '"') {
                ++mP;
                text = out;
                return true;
            }
            // The scan stops only at quotes and backslashes.
            if (!parseEscape(out))
                return false;
            run = mP;
            special = findStringSpecial(run, mEnd);
        }
    }

    // mP is at a backslash.
    bool parseEscape(std::string& out) {
        ++mP;
        if (mP == mEnd)
            return failEnd();
        char decoded;
        switch (*mP) {
        case '"':
            decoded = '"';
            break;
        case '\\':
            decoded = '\\';
            break;
        case '/':
            decoded = '/';
            break;
        case 'b':
            decoded = '\b';
            break;
        case 'f':
            decoded = '\f';
            break;
        case 'n':
            decoded = '\n';
            break;
        case 'r':
            decoded = '\r';
            break;
        case 't':
            decoded = '\t';
            break;
        case 'u':
            return parseUnicodeEscape(out);
        default:
            return fail(pr::kInvalidEscape, mP);
        }
        out += decoded;
        ++mP;
        return true;
    }

    // Reads the four hexadecimal digits after "\u"; mP is at the 'u'.
    bool readHex4(std::uint32_t& value) {
        ++mP;
        value = 0;
        for (int i = 0; i < 4; ++i, ++mP) {
            if (mP == mEnd)
                return failEnd();
            const int digit = hexValue(*mP);
            if (digit < 0)
                return fail(pr::kInvalidUnicodeEscape, mP);
            value = value << 4 | static_cast<std::uint32_t>(digit);
        }
        return true;
    }

    // mP is at the 'u' of "\u". A lone low surrogate is encoded as it stands. A high surrogate
    // takes the \u escape that must follow it as its partner, whatever its range, and the pair
    // always becomes one four-byte character: the low ten bits of each unit are combined as for
    // a true surrogate pair, so \uD83D\u0041 gives U+1F441 (F0 9F 91 81). Every pair thus reads
    // as some character rather than failing the whole message.
    bool parseUnicodeEscape(std::string& out) {
        std::uint32_t unit;
        if (!readHex4(unit))
            return false;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (mEnd - mP < 2 && (mP == mEnd || *mP == '\\'))
                return failEnd();
            if (mP[0] != '\\' || mP[1] != 'u')
                return fail(pr::kMissingLowSurrogate, mP);
            ++mP;
            std::uint32_t second;
            if (!readHex4(second))
                return false;
            unit = 0x10000 + ((unit & 0x3FF) << 10) + (second & 0x3FF);
        }
        appendUtf8(out, unit);
        return true;
    }

    // "vxdata" under a recognised type name: an array of decimal integers kept exact.
    template <class Sink> bool parseTypedIntegers(Sink&& sink, IntegerRule rule) {
        if (mP == mEnd)
            return failEnd();
        if (*mP != '[')
            return fail(pr::kTypedArrayExpected, mP);
        ++mP;
        json::Array& array = sink(json::Array()).template get<json::Array>();
        // One cheap scan counts the elements that will actually parse, which saves every
        // reallocation of a large array; counting commas alone would let a frame of commas
        // reserve far more than it holds.
        try {
            array.reserve(countTypedIntegers());
        } catch (const std::bad_alloc&) {
            // The reservation is only a speed-up; the elements are appended one by one anyway.
        }
        skipSpace();
        if (mP == mEnd)
            return failEnd();
        if (*mP == ']') {
            ++mP;
            return true;
        }
        for (;;) {
            if (!parseTypedInteger(array, rule))
                return false;
            skipSpace();
            if (mP == mEnd)
                return failEnd();
            if (*mP == ',') {
                ++mP;
                skipSpace();
                continue;
            }
            if (*mP == ']') {
                ++mP;
                return true;
            }
            return fail(pr::kTypedCommaOrBracketExpected, mP);
        }
    }

    // The number of leading elements of a typed array that have the shape of an integer: each
    // needs at least one digit, so the count never exceeds half the remaining text.
    std::size_t countTypedIntegers() const {
        std::size_t count = 0;
        const char* p = mP;
        const auto skip = [&] {
            while (p != mEnd && isJsonSpace(*p))
                ++p;
        };
        for (;;) {
            skip();
            if (p != mEnd && *p == '-')
                ++p;
            const char* digits = p;
            while (p != mEnd && isDigit(*p))
                ++p;
            if (p == digits)
                return count;
            ++count;
            skip();
            if (p == mEnd || *p != ',')
                return count;
            ++p;
        }
    }

    bool parseTypedInteger(json::Array& array, IntegerRule rule) {
        if (mP == mEnd)
            return failEnd();
        const char* start = mP;
        if (*mP == '"')
            return fail(pr::kTypedIntegerNotInteger, mP);
        const bool negative = *mP == '-';
        if (negative)
            ++mP;
        const char* digits = mP;
        std::uint64_t magnitude = 0;
        for (; mP != mEnd && isDigit(*mP); ++mP)
            magnitude = magnitude * 10 + static_cast<unsigned>(*mP - '0');
        const auto count = static_cast<std::size_t>(mP - digits);
        if (mP != mEnd && (*mP == '.' || *mP == 'e' || *mP == 'E'))
            return fail(pr::kTypedIntegerNotInteger, mP);
        if (count == 0)
            return mP == mEnd ? failEnd() : fail(pr::kTypedIntegerInvalid, start);

        if (count > 18) {
            // Beyond 18 digits the running value may have wrapped; convert again with overflow
            // detection.
            if (rule == IntegerRule::Signed) {
                long value = 0;
                const auto result = std::from_chars(start, mP, value);
                if (result.ec != std::errc())
                    return fail(pr::kTypedIntegerOverflow, start);
                array.emplace_back(value);
                return true;
            }
            const auto result = std::from_chars(digits, mP, magnitude);
            if (result.ec != std::errc())
                return fail(pr::kTypedIntegerOverflow, start);
        }
        if (rule == IntegerRule::Signed) {
            const auto value = static_cast<long>(magnitude);
            array.emplace_back(negative ? -value : value);
        } else {
            if (negative && magnitude != 0)
                return fail(pr::kTypedIntegerOverflow, start);
            array.emplace_back(static_cast<unsigned long>(magnitude));
        }
        return true;
    }

    const char* mBegin;
    const char* mP;
    const char* mEnd;
    int mCode = 0;
    const char* mFailAt = nullptr;
};

[[noreturn]] void throwInvalidConversion(const json::Value& value, const char* target) {
    std::string text = "invalid conversion: ";
    text += value.kindName();
    text += " to ";
    text += target;
    throw std::runtime_error(text);
}

bool isStreamSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Reads an int the way `std::istream >> int` does in the classic locale: leading white space
// skipped, an optional sign, decimal digits up to the first other character; no digits gives
// 0 and a value out of range the nearest int limit.
std::int32_t readIntLikeStream(const std::string& text) {
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p != end && isStreamSpace(*p))
        ++p;
    bool negative = false;
    if (p != end && (*p == '-' || *p == '+'))
        negative = *p++ == '-';
    // A 64-bit magnitude holds every int of either sign; once it is past the int range further
    // digits cannot bring it back, so it stops growing (the result is clamped anyway).
    constexpr std::int64_t kLimit = std::int64_t{INT_MAX} + 2;
    std::int64_t magnitude = 0;
    for (; p != end && isDigit(*p); ++p) {
        if (magnitude < kLimit)
            magnitude = magnitude * 10 + (*p - '0');
    }
    const std::int64_t value = negative ? -magnitude : magnitude;
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<std::int32_t>(value);
}

} // namespace

int JsonTypedValues::parseObject(const char* begin, const char* end, json::Object& out) {
    std::size_t ignored = 0;
    return parseObject(begin, end, out, ignored);
}

int JsonTypedValues::parseObject(const char* begin, const char* end, json::Object& out,
                                 std::size_t& failurePosition) {
    Parser parser(begin, end);
    const int code = parser.parseTopObject(out);
    failurePosition = parser.failurePosition();
    return code;
}

int JsonTypedValues::parseArray(const char* begin, const char* end, json::Array& out) {
    std::size_t ignored = 0;
    return parseArray(begin, end, out, ignored);
}

int JsonTypedValues::parseArray(const char* begin, const char* end, json::Array& out,
                                std::size_t& failurePosition) {
    Parser parser(begin, end);
    const int code = parser.parseTopArray(out);
    failurePosition = parser.failurePosition();
    return code;
}

std::int32_t JsonTypedValues::toInt32(const json::Value& value) {
    switch (value.kind()) {
    case json::Value::Kind::Undefined:
    case json::Value::Kind::Null:
        return 0;
    case json::Value::Kind::Boolean:
        return value.get<bool>() ? 1 : 0;
    case json::Value::Kind::Double: {
        const double d = value.get<double>();
        if (d <= -2147483649.0)
            throw boost::numeric::negative_overflow();
        if (d >= 2147483648.0)
            throw boost::numeric::positive_overflow();
        // NaN passes both bounds; casting it would be undefined.
        if (std::isnan(d))
            return 0;
        return static_cast<std::int32_t>(d);
    }
    case json::Value::Kind::String:
        return readIntLikeStream(value.get<std::string>());
    default:
        throwInvalidConversion(value, json::traits<int>::name);
    }
}

bool JsonTypedValues::toBool(const json::Value& value) {
    if (!value.is<bool>())
        throwInvalidConversion(value, json::traits<bool>::name);
    return value.get<bool>();
}

std::string JsonTypedValues::toString(const json::Value& value) {
    if (!value.is<std::string>())
        throwInvalidConversion(value, json::traits<std::string>::name);
    return value.get<std::string>();
}

} // namespace workspace_browser_startup
