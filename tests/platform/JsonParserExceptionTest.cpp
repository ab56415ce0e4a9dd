#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>

using namespace foundation::json;

TEST(JsonParserException, MessageNamesCodeDescriptionAndLocation) {
    const std::string text = R"({"a" 1})";
    const ParserException e(parse_result::kColonExpected, text, 5);
    EXPECT_EQ(e.code(), 18);
    EXPECT_EQ(e.line(), 1u);
    EXPECT_EQ(e.column(), 6u);
    EXPECT_EQ(std::string(e.what()), "JSON ParserException (E18): ':' expected after an object key "
                                     "(Line 1, Column 6)\n"
                                     "{\"a\" 1}\n"
                                     "     ^");
}

TEST(JsonParserException, CaretLinesUpUnderTabsAndMultiByteCharacters) {
    // Second line: tab, two-byte character, tab, then the failure at the 'x'.
    const std::string text = "{\"k\":\n\t\"\xC3\xA9\"\tx,\n\"next\"}";
    const std::size_t position = text.find('x');
    const ParserException e(parse_result::kInvalidValue, text, position);
    EXPECT_EQ(e.line(), 2u);
    EXPECT_EQ(e.column(), 6u);
    const std::string what = e.what();
    const std::string tail = what.substr(what.find('\n'));
    EXPECT_EQ(tail, "\n\t\"\xC3\xA9\"\tx,\n\t   \t^");
}

TEST(JsonParserException, PositionPastTheEndAndLineBreaksAreHandled) {
    const ParserException atEnd(parse_result::kUnexpectedEnd, "{\"a\":", 1000);
    EXPECT_EQ(atEnd.line(), 1u);
    EXPECT_EQ(atEnd.column(), 6u);
    EXPECT_NE(std::string(atEnd.what()).find("(Line 1, Column 6)\n{\"a\":\n     ^"),
              std::string::npos);

    // The carriage return of a CRLF break is not printed as part of the line.
    const ParserException crlf(parse_result::kInvalidValue, "{\r\n\"a\":?\r\n}", 7);
    EXPECT_EQ(crlf.line(), 2u);
    EXPECT_EQ(crlf.column(), 5u);
    const std::string what = crlf.what();
    EXPECT_EQ(what.substr(what.find('\n')), "\n\"a\":?\n    ^");

    const ParserException empty(parse_result::kObjectExpected, "", 0);
    EXPECT_EQ(empty.line(), 1u);
    EXPECT_EQ(empty.column(), 1u);
    EXPECT_EQ(empty.code(), 16);
}

TEST(JsonParserException, EveryResultCodeHasItsOwnDescription) {
    // Codes 0 to 20 are all in use; a log reader must be able to tell each from its text.
    std::set<std::string> descriptions;
    for (int code = parse_result::kSuccess; code <= parse_result::kTypedIntegerNotInteger; ++code) {
        const std::string description = get_parse_result_description(code);
        EXPECT_NE(description, "Unknown error") << code;
        descriptions.insert(description);
    }
    EXPECT_EQ(descriptions.size(), 21u);
    EXPECT_EQ(get_parse_result_description(-1), "Unknown error");
    EXPECT_EQ(get_parse_result_description(21), "Unknown error");
}
