#include <workspace_browser/platform/json/ParseResult.hpp>

namespace foundation::json {

std::string get_parse_result_description(int code) {
    namespace pr = parse_result;
    switch (code) {
    case pr::kSuccess:
        return "Success";
    case pr::kInvalidValue:
        return "Invalid value: expected an object, array, string, number, true, false or null";
    case pr::kInvalidNumber:
        return "Invalid number";
    case pr::kInvalidUnicodeEscape:
        return "Invalid \\u escape: four hexadecimal digits expected";
    case pr::kInvalidLowSurrogate:
        return "Invalid low surrogate: a \\u escape in the range DC00 to DFFF must follow a "
               "high surrogate";
    case pr::kMissingLowSurrogate:
        return "Missing low surrogate: a high surrogate \\u escape must be followed at once by "
               "a second \\u escape";
    case pr::kInvalidEscape:
        return "Invalid escape character after a backslash";
    case pr::kControlCharacterInString:
        return "Unescaped control character in a string";
    case pr::kStringExpected:
        return "String expected: missing opening double quote";
    case pr::kObjectCommaOrBraceExpected:
        return "',' or '}' expected after an object member";
    case pr::kArrayCommaOrBracketExpected:
        return "',' or ']' expected after an array element";
    case pr::kNestingTooDeep:
        return "Arrays and objects are nested too deeply";
    case pr::kTypedIntegerOverflow:
        return "Typed integer does not fit in 64 bits";
    case pr::kTrailingCharacters:
        return "Unexpected text after the end of the value";
    case pr::kTypedArrayExpected:
        return "Typed integer data must be an array: '[' expected";
    case pr::kTypedCommaOrBracketExpected:
        return "',' or ']' expected after a typed integer element";
    case pr::kObjectExpected:
        return "Object expected: the text must start with '{'";
    case pr::kTypedIntegerInvalid:
        return "Typed integer element is not a decimal integer";
    case pr::kColonExpected:
        return "':' expected after an object key";
    case pr::kUnexpectedEnd:
        return "Unexpected end of text";
    case pr::kTypedIntegerNotInteger:
        return "Typed integer element must not have a decimal point, an exponent or quotes";
    default:
        return "Unknown error";
    }
}

} // namespace foundation::json
