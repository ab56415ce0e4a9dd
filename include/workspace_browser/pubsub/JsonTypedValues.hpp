#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/json/Value.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

namespace workspace_browser_startup {

// The JSON reader shared by the client channels, and the rules by which a JSON value becomes
// an int, a bool or a string.
//
// Beyond plain JSON, an object holding "vxtype" (one of int64, uint64, int32, uint32, int16,
// uint16, int8, uint8) carries its "vxdata" as an array of exact 64-bit integers (long or
// unsigned long values) rather than doubles; "vxtype" may come before or after "vxdata".
//
// Choices where plain JSON leaves room:
// - Raw control characters (below 0x20) inside a string are kept as they stand. Plain JSON
//   forbids them, but failing a whole client message over one would gain nothing.
// - A lone low surrogate escape (\uDC00 to \uDFFF) is encoded as it stands (three bytes). A high
//   surrogate (\uD800 to \uDBFF) must be followed at once by a second \u escape, and the two
//   always make one four-byte character, U+10000 plus the low ten bits of the first unit times
//   0x400 plus the low ten bits of the second: a true pair gives its character, and any other
//   second escape gives a character all the same (\uD83D\u0041 gives U+1F441, the bytes
//   F0 9F 91 81).
// - Bytes outside ASCII pass through unchecked.
// - Only white space may follow the top-level object or array.
// - A duplicate key keeps its last value.
// - A non-string "vxtype" names no type; a negative element under an unsigned type name is an
//   integer overflow.
// - A top-level array that does not start with '[' fails as an invalid value.
// - A number too large for a double fails; one too small to represent reads as zero.
//
// Stateless; thread-safe.
class WSB_EXPORT JsonTypedValues {
public:
    // Objects and arrays nested deeper than this fail with their own result code, so hostile
    // input cannot exhaust the stack. The top-level object or array is at depth 1.
    static constexpr std::size_t kMaxDepth = 512;

    // Parses one JSON object from [begin, end) into `out` (members parsed before a failure
    // stay); returns 0 on success or a parse result code of the platform JSON layer.
    // Never throws for malformed text.
    static int parseObject(const char* begin, const char* end, foundation::json::Object& out);
    // Same rules, but the top level must be an array (used for the "selectedRows" text that the
    // client sends inside a string); returns 0 or a result code.
    static int parseArray(const char* begin, const char* end, foundation::json::Array& out);

    // undefined and null give 0, a boolean 0 or 1, a double is truncated toward zero (outside
    // the int range: boost::numeric::negative_overflow / positive_overflow; NaN gives 0), a
    // string is read the way `std::istream >> int` reads it. Any other kind throws
    // std::runtime_error "invalid conversion: <kind name> to int".
    static std::int32_t toInt32(const foundation::json::Value&);
    // Only a boolean converts; anything else throws the invalid-conversion error.
    static bool toBool(const foundation::json::Value&);
    // Only a string converts; anything else throws the invalid-conversion error.
    static std::string toString(const foundation::json::Value&);

    // As above, and `failurePosition` receives the byte offset of the failure (0 on success),
    // for building a foundation::json::ParserException.
    static int parseObject(const char* begin, const char* end, foundation::json::Object& out,
                           std::size_t& failurePosition);
    static int parseArray(const char* begin, const char* end, foundation::json::Array& out,
                          std::size_t& failurePosition);
};

} // namespace workspace_browser_startup
