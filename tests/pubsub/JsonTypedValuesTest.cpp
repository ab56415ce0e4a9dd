#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <boost/numeric/conversion/converter.hpp>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

namespace {

using workspace_browser_startup::JsonTypedValues;
namespace json = foundation::json;
namespace pr = foundation::json::parse_result;
using V = json::Value;
using A = json::Array;

struct Parsed {
    int code = -1;
    std::size_t position = 0;
    json::Object object;
};

Parsed parse(std::string_view text) {
    Parsed r;
    r.code =
        JsonTypedValues::parseObject(text.data(), text.data() + text.size(), r.object, r.position);
    return r;
}

int parseArray(std::string_view text, A& out) {
    return JsonTypedValues::parseArray(text.data(), text.data() + text.size(), out);
}

struct Failure {
    std::string text;
    int code;
    std::size_t position;
};

void expectFailures(const std::vector<Failure>& cases) {
    for (const Failure& c : cases) {
        const Parsed p = parse(c.text);
        EXPECT_EQ(p.code, c.code) << c.text;
        EXPECT_EQ(p.position, c.position) << c.text;
    }
}

TEST(JsonTypedValuesTest, TypedIntegersStayExactWhateverTheMemberOrder) {
    // 2^53 + 1 is the first integer a double cannot hold.
    Parsed p = parse(R"({"vxtype": "int64", "vxdata": [9007199254740993, -5]})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["vxdata"], V(A{V(9007199254740993L), V(-5L)}));
    EXPECT_EQ(p.object["vxtype"], V("int64"));

    p = parse(R"({"vxdata": [1, 2], "vxtype": "uint8"})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["vxdata"], V(A{V(1UL), V(2UL)}));

    // The width in the name does not narrow the parse; a later type reads the data again.
    p = parse(R"({"vxtype":"int8","vxdata":[1000, -0],"vxtype":"uint16"})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["vxdata"], V(A{V(1000UL), V(0UL)}));

    p = parse(R"({"vxtype":"int64","vxdata":[-9223372036854775808,9223372036854775807,)"
              R"(-0000000000000000000012]})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["vxdata"], V(A{V(LONG_MIN), V(LONG_MAX), V(-12L)}));
    p = parse(R"({"vxtype":"uint64","vxdata":[18446744073709551615]})");
    EXPECT_EQ(p.object["vxdata"], V(A{V(ULONG_MAX)}));

    // Without a recognised type name (and per object: nesting does not inherit it) the data
    // are ordinary doubles.
    for (const char* text : {R"({"vxtype": "int128", "vxdata": [1]})", R"({"vxdata": [1]})",
                             R"({"vxtype": 64, "vxdata": [1]})",
                             R"({"vxtype":"int64","o":{"vxdata":[1]},"vxdata":[]})"}) {
        p = parse(text);
        ASSERT_EQ(p.code, 0) << text;
        const V& data = p.object.count("o") ? p.object["o"]["vxdata"] : p.object["vxdata"];
        EXPECT_EQ(data, V(A{V(1.0)})) << text;
    }
}

TEST(JsonTypedValuesTest, TypedIntegerFailures) {
    const std::string typed = R"({"vxtype":"int32","vxdata":)"; // the data start at 27
    expectFailures({
        {typed + "[1.5]}", pr::kTypedIntegerNotInteger, 29},
        {typed + R"([1,"2"]})", pr::kTypedIntegerNotInteger, 30},
        {typed + "1}", pr::kTypedArrayExpected, 27},
        {typed + "[1;2]}", pr::kTypedCommaOrBracketExpected, 29},
        {typed + "[1,", pr::kUnexpectedEnd, 30},
        {typed + "[-])}", pr::kTypedIntegerInvalid, 28},
        {R"({"vxtype":"int64","vxdata":[9223372036854775808]})", pr::kTypedIntegerOverflow, 28},
        {R"({"vxtype":"int64","vxdata":[-9223372036854775809]})", pr::kTypedIntegerOverflow, 28},
        {R"({"vxtype":"uint8","vxdata":[18446744073709551616]})", pr::kTypedIntegerOverflow, 28},
        {R"({"vxtype":"uint8","vxdata":[-1]})", pr::kTypedIntegerOverflow, 28},
        // Read again when the type comes second: the failure points into the earlier text.
        {R"({"vxdata":[1.5],"vxtype":"int32"})", pr::kTypedIntegerNotInteger, 12},
        {R"({"vxdata":{"a":1},"vxtype":"uint8"})", pr::kTypedArrayExpected, 10},
    });
    // A failed second reading keeps the data as first read.
    EXPECT_EQ(parse(R"({"vxdata":[1.5],"vxtype":"int32"})").object["vxdata"], V(A{V(1.5)}));
}

TEST(JsonTypedValuesTest, StructuralFailuresKeepEarlierMembers) {
    expectFailures({
        {"", pr::kObjectExpected, 0},
        {R"( {"a":1})", pr::kObjectExpected, 0},
        {R"({"a" 1})", pr::kColonExpected, 5},
        {R"({"a":1 "b":2})", pr::kObjectCommaOrBraceExpected, 7},
        {R"({"a":[1 2]})", pr::kArrayCommaOrBracketExpected, 8},
        {R"({a:1})", pr::kStringExpected, 1},
        {R"({"a":1,})", pr::kStringExpected, 7},
        {R"({"a":tru})", pr::kInvalidValue, 5},
        {R"({"a":1}x)", pr::kTrailingCharacters, 7},
        {R"({"a":1)", pr::kUnexpectedEnd, 6},
        {R"({"a":-})", pr::kInvalidNumber, 6},
        {R"({"a":1e400})", pr::kInvalidNumber, 5},
        {R"({"a":01})", pr::kObjectCommaOrBraceExpected, 6},
    });
    EXPECT_EQ(parse("{ \"a\" :\t1 ,\r\n \"b\" : [ ] } \n").code, 0);

    Parsed p = parse(R"({"eventType":11,"startRow":3,"endRow":[1,2,)");
    EXPECT_EQ(p.code, pr::kUnexpectedEnd);
    EXPECT_EQ(p.object["eventType"], V(11.0));
    EXPECT_EQ(p.object["startRow"], V(3.0));
    EXPECT_EQ(p.object["endRow"], V(A{V(1.0), V(2.0)}));
}

TEST(JsonTypedValuesTest, OrdinaryValues) {
    Parsed p = parse(R"({"t":true,"f":false,"n":null,"o":{"k":[]},"a":[1,"2",{}],)"
                     R"("d":"first","d":"last"})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["t"], V(true));
    EXPECT_EQ(p.object["f"], V(false));
    EXPECT_EQ(p.object["n"], V(json::Null()));
    EXPECT_EQ(p.object["o"], V(json::Object{{"k", V(A())}}));
    EXPECT_EQ(p.object["a"], V(A{V(1.0), V("2"), V(json::Object())}));
    EXPECT_EQ(p.object["d"], V("last"));

    const std::vector<std::pair<const char*, double>> numbers = {
        {"-12", -12.0},    {"999999999999999", 999999999999999.0},
        {"0.1", 0.1},      {"12345678901234567", 12345678901234568.0},
        {"1.5E3", 1500.0}, {"-2e-2", -0.02},
        {"1e-400", 0.0},   {"0.000001e-400", 0.0}};
    for (const auto& [text, value] : numbers) {
        p = parse(std::string(R"({"n":)") + text + "}");
        ASSERT_EQ(p.code, 0) << text;
        EXPECT_EQ(p.object["n"], V(value)) << text;
    }
    EXPECT_TRUE(std::signbit(parse(R"({"n":-0})").object["n"].get<double>()));
}

TEST(JsonTypedValuesTest, StringEscapesAndSurrogates) {
    Parsed p = parse(R"({"e":"q\"b\\s\/\b\f\n\r\t.","u":"\u0041\u00e9\u20AC",)"
                     R"("pair":"\ud83d\ude00","low":"\uDC00","nul":"a\u0000b","k\u0065y":1})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["e"], V("q\"b\\s/\b\f\n\r\t."));
    EXPECT_EQ(p.object["u"], V("A\xC3\xA9\xE2\x82\xAC"));
    EXPECT_EQ(p.object["pair"], V("\xF0\x9F\x98\x80"));
    EXPECT_EQ(p.object["low"], V("\xED\xB0\x80")); // a lone low surrogate is kept as it is
    EXPECT_EQ(p.object["nul"], V(std::string("a\0b", 3)));
    EXPECT_EQ(p.object.count("key"), 1u);

    expectFailures({
        {R"({"a":"\x"})", pr::kInvalidEscape, 7},
        {R"({"a":"\ud83d"})", pr::kMissingLowSurrogate, 12},
        {R"({"a":"\ud83d\u0041"})", pr::kInvalidLowSurrogate, 12},
        {R"({"a":"\u12G4"})", pr::kInvalidUnicodeEscape, 10},
        {R"({"a":"\ud83d\)", pr::kUnexpectedEnd, 13},
        {"{\"a\":\"tab\there\"}", pr::kControlCharacterInString, 9},
    });

    // Strings are scanned many bytes at a time: put the closing quote, an escape and a control
    // character at every offset of the scan.
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string s(length, 'x');
        p = parse("{\"s\":\"" + s + "\",\"t\":\"\xC3\xA9" + s + "\\n" + s + "\"}");
        ASSERT_EQ(p.code, 0) << length;
        EXPECT_EQ(p.object["s"], V(s));
        EXPECT_EQ(p.object["t"], V("\xC3\xA9" + s + "\n" + s));
        p = parse("{\"s\":\"" + s + "\x1f\"}");
        EXPECT_EQ(p.code, pr::kControlCharacterInString) << length;
        EXPECT_EQ(p.position, 6 + length);
    }
}

std::string nestedArrays(std::size_t arrayDepth) {
    return "{\"a\":" + std::string(arrayDepth, '[') + std::string(arrayDepth, ']') + "}";
}

TEST(JsonTypedValuesTest, NestingUpToTheLimitWorksAndBeyondFails) {
    const std::size_t limit = JsonTypedValues::kMaxDepth;
    // The top-level object is depth 1, so limit - 1 arrays inside it reach the limit.
    Parsed deepest = parse(nestedArrays(limit - 1));
    ASSERT_EQ(deepest.code, 0);
    // Copying, serialising and destroying a value this deep must be safe too.
    const V copy(deepest.object);
    EXPECT_EQ(json::serialize(copy), nestedArrays(limit - 1));

    Parsed tooDeep = parse(nestedArrays(limit));
    EXPECT_EQ(tooDeep.code, pr::kNestingTooDeep);
    EXPECT_EQ(tooDeep.position, 5 + limit - 1);

    std::string objects;
    for (std::size_t i = 0; i < limit; ++i)
        objects += "{\"o\":";
    objects += "1" + std::string(limit, '}');
    EXPECT_EQ(parse(objects).code, 0);
    EXPECT_EQ(parse("{\"o\":" + objects + "}").code, pr::kNestingTooDeep);
    // Hostile depth fails the same way instead of exhausting the stack.
    EXPECT_EQ(parse("{\"a\":" + std::string(1000000, '[')).code, pr::kNestingTooDeep);
}

TEST(JsonTypedValuesTest, ParseArrayReadsTheSelectionText) {
    A rows;
    ASSERT_EQ(parseArray(R"([{"start":2,"end":4},{"start":7,"end":7}])", rows), 0);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1]["start"], V(7.0));
    A other;
    EXPECT_EQ(parseArray("[]", other), 0);
    EXPECT_EQ(parseArray("", other), pr::kUnexpectedEnd);
    EXPECT_EQ(parseArray(R"({"start":1})", other), pr::kInvalidValue);
    EXPECT_EQ(parseArray("[1] 2", other), pr::kTrailingCharacters);
}

TEST(JsonTypedValuesTest, MalformedInputNeverCrashes) {
    const std::vector<std::string> messages = {
        R"({"eventType":11,"startRow":0,"endRow":49,"startColumn":0,"endColumn":12})",
        R"({"eventType":12,"row":3,"data":"x = [1 2\t3];\n\"q\" \u00e9\ud83d\ude00"})",
        R"({"propertyValue":{"selectedRows":"[{\"start\":2,\"end\":4}]"},"type":"propertySet"})",
        R"({"vxdata":[1,-2,9223372036854775807],"vxtype":"int64","o":{"vxtype":"uint8","vxdata":[255]}})",
        R"({"a":[true,false,null,-1.5e-3,{"b":[[]]}],"c":"\/\b\f\n\r\t"})",
    };
    const char bytes[] = {'{', '}', '[', ']', '"', '\\', ',',    ':',    '0', '-',
                          '.', 'e', 'u', 'd', ' ', '\0', '\x1f', '\x80', 'n', 't'};
    std::uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
    for (const std::string& message : messages) {
        ASSERT_EQ(parse(message).code, 0) << message;
        // No strict prefix of an object is a complete object.
        for (std::size_t cut = 0; cut < message.size(); ++cut)
            EXPECT_NE(parse(std::string_view(message).substr(0, cut)).code, 0) << cut;
        for (std::size_t at = 0; at < message.size(); ++at) {
            for (char b : bytes) {
                std::string mutated = message;
                mutated[at] = b;
                parse(mutated);
            }
        }
        for (int round = 0; round < 2000; ++round) {
            std::string mutated = message;
            for (std::uint32_t edits = 1 + next() % 4; edits > 0 && !mutated.empty(); --edits) {
                const std::size_t at = next() % mutated.size();
                if (next() % 2)
                    mutated.erase(at, 1 + next() % 3);
                else
                    mutated.insert(at, 1, bytes[next() % sizeof bytes]);
            }
            A array;
            parse(mutated);
            parseArray(mutated, array);
        }
    }
}

TEST(JsonTypedValuesTest, ParserExceptionLinesUpTheCaretUnderTabs) {
    const std::string text = "{\n\t\"a\"\t1}";
    const Parsed p = parse(text);
    ASSERT_EQ(p.code, pr::kColonExpected);
    const json::ParserException error(p.code, text, p.position);
    EXPECT_EQ(error.line(), 2u);
    EXPECT_EQ(error.column(), 6u);
    EXPECT_EQ(std::string(error.what()),
              "JSON ParserException (E18): " + json::get_parse_result_description(18) +
                  " (Line 2, Column 6)\n\t\"a\"\t1}\n\t   \t^");
}

template <class F> std::string failureText(F convert) {
    try {
        convert();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

TEST(JsonTypedValuesTest, ToInt32ByKindWithOverflowBounds) {
    // clang-format off
    const std::vector<std::pair<V, int>> converted = {
        {V(), 0}, {V(json::Null()), 0}, {V(true), 1}, {V(false), 0}, {V(11.9), 11}, {V(-3.5), -3},
        {V(std::nan("")), 0}, {V(2147483647.9), INT_MAX}, {V(-2147483648.9), INT_MIN}};
    // clang-format on
    for (const auto& [value, expected] : converted)
        EXPECT_EQ(JsonTypedValues::toInt32(value), expected) << json::serialize(value);

    try {
        JsonTypedValues::toInt32(V(2147483648.0));
        ADD_FAILURE() << "no positive overflow";
    } catch (const boost::numeric::positive_overflow& e) {
        EXPECT_STREQ(e.what(), "bad numeric conversion: positive overflow");
        EXPECT_NE(dynamic_cast<const std::bad_cast*>(&e), nullptr);
    }
    EXPECT_THROW(JsonTypedValues::toInt32(V(-2147483649.0)), boost::numeric::negative_overflow);
    EXPECT_STREQ(boost::numeric::negative_overflow().what(),
                 "bad numeric conversion: negative overflow");
    EXPECT_THROW(JsonTypedValues::toInt32(V(-HUGE_VAL)), boost::numeric::negative_overflow);

    const std::vector<std::pair<V, const char*>> rejected = {
        {V(5L), "long"},
        {V(5UL), "unsigned long"},
        {V(1.5f), "float"},
        {V(A()), "std::vector<foundation::json::Value>"},
        {V(json::Object()), "std::map<std::string, foundation::json::Value>"}};
    for (const auto& [value, name] : rejected) {
        EXPECT_EQ(failureText([&] { JsonTypedValues::toInt32(value); }),
                  std::string("invalid conversion: ") + name + " to int");
    }
}

TEST(JsonTypedValuesTest, ToBoolAndToStringAcceptOnlyTheirOwnKind) {
    EXPECT_TRUE(JsonTypedValues::toBool(V(true)));
    EXPECT_FALSE(JsonTypedValues::toBool(V(false)));
    EXPECT_EQ(JsonTypedValues::toString(V("text")), "text");
    EXPECT_EQ(failureText([] { JsonTypedValues::toBool(V(json::Null())); }),
              "invalid conversion: foundation::json::Null to bool");
    EXPECT_EQ(failureText([] { JsonTypedValues::toBool(V()); }),
              "invalid conversion: foundation::json::Undefined to bool");
    EXPECT_EQ(failureText([] { JsonTypedValues::toBool(V("true")); }),
              "invalid conversion: std::string to bool");
    EXPECT_EQ(failureText([] { JsonTypedValues::toString(V(3.0)); }),
              "invalid conversion: double to std::string");
}

TEST(JsonTypedValuesTest, StringToInt32ReadsLikeAnInputStream) {
    for (const std::string text : {"12abc",
                                   "abc",
                                   "",
                                   "  42",
                                   "\t\n\v\f\r-17x",
                                   "+5",
                                   "-",
                                   "+-5",
                                   "- 5",
                                   "007",
                                   "3.9",
                                   "0x1F",
                                   "2147483647",
                                   "2147483648",
                                   "-2147483648",
                                   "-2147483649",
                                   "99999999999999999999999",
                                   "-99999999999999999999999",
                                   "  ",
                                   "-0"}) {
        std::istringstream in(text);
        in.imbue(std::locale::classic());
        int expected = 0; // text without a number leaves it untouched; the conversion gives 0
        in >> expected;
        EXPECT_EQ(JsonTypedValues::toInt32(V(text)), expected) << '"' << text << '"';
    }
    EXPECT_EQ(JsonTypedValues::toInt32(V("12abc")), 12);
}

} // namespace
