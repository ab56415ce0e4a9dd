#pragma once

#include <workspace_browser/Export.hpp>

#include <string>

namespace foundation::json {

// Result codes of the JSON parsers. Zero is success; every failure has its own code so that a
// logged code alone tells what went wrong. Codes never change meaning once shipped.
namespace parse_result {
inline constexpr int kSuccess = 0;
// A character that cannot start a value, or a misspelt true, false or null.
inline constexpr int kInvalidValue = 1;
// A number that does not follow the JSON number grammar.
inline constexpr int kInvalidNumber = 2;
// A \u escape without four hexadecimal digits.
inline constexpr int kInvalidUnicodeEscape = 3;
// A high surrogate followed by a \u escape that is not a low surrogate.
inline constexpr int kInvalidLowSurrogate = 4;
// A \u escape in the high-surrogate range not followed at once by a second \u escape.
inline constexpr int kMissingLowSurrogate = 5;
// A backslash followed by a character that is not a JSON escape.
inline constexpr int kInvalidEscape = 6;
// An unescaped control character (below U+0020) inside a string.
inline constexpr int kControlCharacterInString = 7;
// A string was expected but there is no opening double quote.
inline constexpr int kStringExpected = 8;
// An object member followed by something other than ',' or '}'.
inline constexpr int kObjectCommaOrBraceExpected = 9;
// An array element followed by something other than ',' or ']'.
inline constexpr int kArrayCommaOrBracketExpected = 10;
// Arrays and objects nested deeper than the parser's limit.
inline constexpr int kNestingTooDeep = 11;
// A typed integer outside the 64-bit range of its type.
inline constexpr int kTypedIntegerOverflow = 12;
// Text left over after the complete value.
inline constexpr int kTrailingCharacters = 13;
// Typed-integer data does not start with '['.
inline constexpr int kTypedArrayExpected = 14;
// A typed-integer element followed by something other than ',' or ']'.
inline constexpr int kTypedCommaOrBracketExpected = 15;
// The text does not start with '{'.
inline constexpr int kObjectExpected = 16;
// A typed-integer element that is empty or is not a decimal integer (for example a lone '-').
inline constexpr int kTypedIntegerInvalid = 17;
// An object key not followed by ':'.
inline constexpr int kColonExpected = 18;
// The text ends where more was expected.
inline constexpr int kUnexpectedEnd = 19;
// A typed-integer element with a decimal point, an exponent or quotes.
inline constexpr int kTypedIntegerNotInteger = 20;
} // namespace parse_result

// A clear English description of a parse result code; "Unknown error" for codes not listed
// above. Thread-safe.
WSB_EXPORT std::string get_parse_result_description(int code);

} // namespace foundation::json
