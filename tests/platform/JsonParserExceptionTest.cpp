#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>

using namespace foundation::json;

TEST(JsonParserException, MessageNamesCodeDescriptionLocationAndCaret) {
    const ParserException e(parse_result::kColonExpected, R"({"a" 1})", 5);
    EXPECT_EQ(e.code(), 18);
    EXPECT_EQ(std::string(e.what()), "JSON ParserException (E18): ':' expected after an object key "
                                     "(Line 1, Column 6)\n{\"a\" 1}\n     ^");

    const struct {
        std::string text;
        std::size_t position, line, column;
        std::string tail; // what follows the first line of the message
    } cases[] = {
        // Tabs are repeated and a multi-byte character counts as one column.
        {"{\"k\":\n\t\"\xC3\xA9\"\tx,\n\"next\"}", 12, 2, 6, "\t\"\xC3\xA9\"\tx,\n\t   \t^"},
        {"{\"a\":", 1000, 1, 6, "{\"a\":\n     ^"},       // past the end
        {"{\r\n\"a\":?\r\n}", 7, 2, 5, "\"a\":?\n    ^"}, // no carriage return printed
        {"", 0, 1, 1, "\n^"},
    };
    for (const auto& c : cases) {
        const ParserException error(parse_result::kInvalidValue, c.text, c.position);
        const std::string what = error.what();
        EXPECT_EQ(error.line(), c.line) << c.text;
        EXPECT_EQ(error.column(), c.column) << c.text;
        EXPECT_EQ(what.substr(what.find('\n') + 1), c.tail) << c.text;
    }
}

TEST(JsonParserException, EveryResultCodeHasItsOwnDescription) {
    // A log reader must be able to tell each code from its text.
    std::set<std::string> descriptions;
    for (int code = parse_result::kSuccess; code <= parse_result::kTypedIntegerNotInteger; ++code)
        descriptions.insert(get_parse_result_description(code));
    EXPECT_EQ(descriptions.size(), 21u);
    EXPECT_EQ(descriptions.count("Unknown error"), 0u);
    EXPECT_EQ(get_parse_result_description(-1), "Unknown error");
    EXPECT_EQ(get_parse_result_description(21), "Unknown error");
}
