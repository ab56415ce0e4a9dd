#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <boost/numeric/conversion/converter.hpp>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
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

struct Parsed {
    int code = -1;
    std::size_t position = 0;
    json::Object object;
};

Parsed parse(std::string_view text) {
    Parsed result;
    result.code = JsonTypedValues::parseObject(text.data(), text.data() + text.size(),
                                               result.object, result.position);
    return result;
}

int parseArray(std::string_view text, json::Array& out) {
    return JsonTypedValues::parseArray(text.data(), text.data() + text.size(), out);
}

json::Array longs(std::initializer_list<long> values) {
    json::Array out;
    for (long v : values)
        out.emplace_back(v);
    return out;
}

TEST(JsonTypedValuesTest, TypedIntegersKeepFullPrecisionInEitherOrder) {
    // 2^53 + 1 is the first integer a double cannot hold.
    Parsed first = parse(R"({"vxtype": "int64", "vxdata": [9007199254740993, -5, 0]})");
    ASSERT_EQ(first.code, 0);
    EXPECT_EQ(first.object["vxdata"], json::Value(longs({9007199254740993L, -5L, 0L})));
    EXPECT_EQ(first.object["vxtype"], json::Value("int64"));

    Parsed after = parse(R"({"vxdata": [1, 2], "vxtype": "uint8"})");
    ASSERT_EQ(after.code, 0);
    EXPECT_EQ(after.object["vxdata"], json::Value(json::Array{json::Value(1UL), json::Value(2UL)}));

    // The width in the name does not narrow the parse.
    Parsed wide = parse(R"({"vxtype":"int8","vxdata":[1000]})");
    ASSERT_EQ(wide.code, 0);
    EXPECT_EQ(wide.object["vxdata"], json::Value(longs({1000L})));

    Parsed empty = parse(R"({"vxtype":"uint32","vxdata":[ ]})");
    ASSERT_EQ(empty.code, 0);
    EXPECT_EQ(empty.object["vxdata"], json::Value(json::Array()));

    // A later recognised type reads the data again, signed to unsigned.
    Parsed retyped = parse(R"({"vxtype":"int16","vxdata":[7],"vxtype":"uint16"})");
    ASSERT_EQ(retyped.code, 0);
    EXPECT_EQ(retyped.object["vxdata"], json::Value(json::Array{json::Value(7UL)}));
}

TEST(JsonTypedValuesTest, TypedIntegerLimitsAndOverflow) {
    Parsed limits = parse(
        R"({"vxtype":"int64","vxdata":[-9223372036854775808,9223372036854775807,-000000000000000000012]})");
    ASSERT_EQ(limits.code, 0);
    EXPECT_EQ(limits.object["vxdata"], json::Value(longs({LONG_MIN, LONG_MAX, -12L})));

    Parsed unsignedMax = parse(R"({"vxtype":"uint64","vxdata":[18446744073709551615,-0]})");
    ASSERT_EQ(unsignedMax.code, 0);
    EXPECT_EQ(unsignedMax.object["vxdata"],
              json::Value(json::Array{json::Value(ULONG_MAX), json::Value(0UL)}));

    for (const char* text : {R"({"vxtype":"int64","vxdata":[9223372036854775808]})",
                             R"({"vxtype":"int64","vxdata":[-9223372036854775809]})",
                             R"({"vxtype":"uint64","vxdata":[18446744073709551616]})",
                             R"({"vxtype":"uint64","vxdata":[-1]})",
                             R"({"vxtype":"int64","vxdata":[123456789012345678901234567890]})"}) {
        EXPECT_EQ(parse(text).code, pr::kTypedIntegerOverflow) << text;
    }
}

TEST(JsonTypedValuesTest, DataStaysOrdinaryWithoutARecognisedType) {
    for (const char* text :
         {R"({"vxtype": "int128", "vxdata": [1]})", R"({"vxdata": [1]})",
          R"({"vxtype": 64, "vxdata": [1]})", R"({"vxdata": [1], "vxtype": "Int64"})"}) {
        Parsed p = parse(text);
        ASSERT_EQ(p.code, 0) << text;
        EXPECT_EQ(p.object["vxdata"], json::Value(json::Array{json::Value(1.0)})) << text;
    }
    // The type name belongs to one object: a nested object does not inherit it.
    Parsed nested = parse(R"({"vxtype":"int64","inner":{"vxdata":[3]},"vxdata":[4]})");
    ASSERT_EQ(nested.code, 0);
    EXPECT_EQ(nested.object["inner"]["vxdata"], json::Value(json::Array{json::Value(3.0)}));
    EXPECT_EQ(nested.object["vxdata"], json::Value(longs({4L})));
}

struct FailureCase {
    const char* text;
    int code;
    std::size_t position;
};

void expectFailures(const std::vector<FailureCase>& cases) {
    for (const FailureCase& c : cases) {
        Parsed p = parse(c.text);
        EXPECT_EQ(p.code, c.code) << c.text;
        EXPECT_EQ(p.position, c.position) << c.text;
    }
}

TEST(JsonTypedValuesTest, TypedIntegerFailures) {
    expectFailures({
        {R"({"vxtype":"int32","vxdata":[1.5]})", pr::kTypedIntegerNotInteger, 29},
        {R"({"vxtype":"int32","vxdata":[2e3]})", pr::kTypedIntegerNotInteger, 29},
        {R"({"vxtype":"int32","vxdata":[1,"2"]})", pr::kTypedIntegerNotInteger, 30},
        {R"({"vxtype":"int32","vxdata":1})", pr::kTypedArrayExpected, 27},
        {R"({"vxtype":"int32","vxdata":[1;2]})", pr::kTypedCommaOrBracketExpected, 29},
        {R"({"vxtype":"int32","vxdata":[1 2]})", pr::kTypedCommaOrBracketExpected, 30},
        {R"({"vxtype":"int32","vxdata":[1,)", pr::kUnexpectedEnd, 30},
        {R"({"vxtype":"int32","vxdata":[-)", pr::kUnexpectedEnd, 29},
        {R"({"vxtype":"int32","vxdata":[-])})", pr::kTypedIntegerInvalid, 28},
        {R"({"vxtype":"int32","vxdata":[1,]})", pr::kTypedIntegerInvalid, 30},
        // Read again when the type arrives second: the failure points into the earlier text.
        {R"({"vxdata":[1.5],"vxtype":"int32"})", pr::kTypedIntegerNotInteger, 12},
        {R"({"vxdata":{"a":1},"vxtype":"uint8"})", pr::kTypedArrayExpected, 10},
    });
    // A failed re-read keeps the data as it was first read.
    Parsed p = parse(R"({"vxdata":[1.5],"vxtype":"int32"})");
    EXPECT_EQ(p.object["vxdata"], json::Value(json::Array{json::Value(1.5)}));
}

TEST(JsonTypedValuesTest, StructuralFailuresReportCodeAndPosition) {
    expectFailures({
        {"", pr::kObjectExpected, 0},
        {R"( {"a":1})", pr::kObjectExpected, 0},
        {R"([1])", pr::kObjectExpected, 0},
        {R"({"a" 1})", pr::kColonExpected, 5},
        {R"({"a":1 "b":2})", pr::kObjectCommaOrBraceExpected, 7},
        {R"({"a":[1 2]})", pr::kArrayCommaOrBracketExpected, 8},
        {R"({a:1})", pr::kStringExpected, 1},
        {R"({"a":1,})", pr::kStringExpected, 7},
        {R"({"a":tru})", pr::kInvalidValue, 5},
        {R"({"a":nul)", pr::kUnexpectedEnd, 8},
        {R"({"a":})", pr::kInvalidValue, 5},
        {R"({"a":1}x)", pr::kTrailingCharacters, 7},
        {R"({"a":1)", pr::kUnexpectedEnd, 6},
        {R"({"a":)", pr::kUnexpectedEnd, 5},
        {R"({"a)", pr::kUnexpectedEnd, 3},
        {R"({)", pr::kUnexpectedEnd, 1},
        {R"({"a":-})", pr::kInvalidNumber, 6},
        {R"({"a":1.})", pr::kInvalidNumber, 7},
        {R"({"a":1e+})", pr::kInvalidNumber, 8},
        {R"({"a":1e400})", pr::kInvalidNumber, 5},
        {R"({"a":.5})", pr::kInvalidValue, 5},
        {R"({"a":01})", pr::kObjectCommaOrBraceExpected, 6},
    });
    Parsed spaced = parse("{ \"a\" :\t1 ,\r\n \"b\" : [ ] } \n");
    EXPECT_EQ(spaced.code, 0);
}

TEST(JsonTypedValuesTest, MembersParsedBeforeAFailureStay) {
    Parsed p = parse(R"({"eventType":11,"startRow":3,"endRow":[1,2,)");
    EXPECT_EQ(p.code, pr::kUnexpectedEnd);
    EXPECT_EQ(p.object["eventType"], json::Value(11.0));
    EXPECT_EQ(p.object["startRow"], json::Value(3.0));
    EXPECT_EQ(p.object["endRow"], json::Value(json::Array{json::Value(1.0), json::Value(2.0)}));
}

TEST(JsonTypedValuesTest, OrdinaryValues) {
    Parsed p = parse(R"({"t":true,"f":false,"n":null,"s":"x","o":{"k":[]},"a":[1,"2",{}],)"
                     R"("d":"first","d":"last"})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["t"], json::Value(true));
    EXPECT_EQ(p.object["f"], json::Value(false));
    EXPECT_EQ(p.object["n"], json::Value(json::Null()));
    EXPECT_EQ(p.object["o"], json::Value(json::Object{{"k", json::Value(json::Array())}}));
    EXPECT_EQ(p.object["a"], json::Value(json::Array{json::Value(1.0), json::Value("2"),
                                                     json::Value(json::Object())}));
    EXPECT_EQ(p.object["d"], json::Value("last"));

    struct NumberCase {
        const char* text;
        double value;
    };
    for (const NumberCase& c : std::vector<NumberCase>{{"0", 0.0},
                                                       {"-12", -12.0},
                                                       {"999999999999999", 999999999999999.0},
                                                       {"12345678901234567", 12345678901234568.0},
                                                       {"-0.25", -0.25},
                                                       {"1.5E3", 1500.0},
                                                       {"2e-2", 0.02},
                                                       {"0.1", 0.1},
                                                       {"1e-400", 0.0},
                                                       {"0.000001e-400", 0.0}}) {
        Parsed n = parse(std::string(R"({"n":)") + c.text + "}");
        ASSERT_EQ(n.code, 0) << c.text;
        EXPECT_EQ(n.object["n"], json::Value(c.value)) << c.text;
    }
    Parsed negativeZero = parse(R"({"n":-0})");
    EXPECT_TRUE(std::signbit(negativeZero.object["n"].get<double>()));
}

TEST(JsonTypedValuesTest, StringEscapesAndSurrogates) {
    Parsed p =
        parse(R"({"e":"q\"b\\s\/\b\f\n\r\t.","u":"\u0041\u00e9\u20AC","pair":"\ud83d\ude00",)"
              R"("low":"\uDC00","nul":"a\u0000b","k\u0065y":1})");
    ASSERT_EQ(p.code, 0);
    EXPECT_EQ(p.object["e"], json::Value("q\"b\\s/\b\f\n\r\t."));
    EXPECT_EQ(p.object["u"], json::Value("A\xC3\xA9\xE2\x82\xAC"));
    EXPECT_EQ(p.object["pair"], json::Value("\xF0\x9F\x98\x80"));
    EXPECT_EQ(p.object["low"], json::Value("\xED\xB0\x80"));
    EXPECT_EQ(p.object["nul"], json::Value(std::string("a\0b", 3)));
    EXPECT_EQ(p.object.count("key"), 1u);

    expectFailures({
        {R"({"a":"\x"})", pr::kInvalidEscape, 7},
        {R"({"a":"\ud83d"})", pr::kMissingLowSurrogate, 12},
        {R"({"a":"\ud83dx"})", pr::kMissingLowSurrogate, 12},
        {R"({"a":"\ud83d\n"})", pr::kMissingLowSurrogate, 12},
        {R"({"a":"\ud83d\u0041"})", pr::kInvalidLowSurrogate, 12},
        {R"({"a":"\u12G4"})", pr::kInvalidUnicodeEscape, 10},
        {R"({"a":"\u12)", pr::kUnexpectedEnd, 10},
        {R"({"a":"\ud83d\)", pr::kUnexpectedEnd, 13},
        {"{\"a\":\"tab\there\"}", pr::kControlCharacterInString, 9},
        {R"({"a":"open)", pr::kUnexpectedEnd, 10},
    });
}

TEST(JsonTypedValuesTest, StringScanningFindsEveryStopAtAnyOffset) {
    // Strings are scanned several bytes at a time; put the quote, an escape and a control
    // character at every offset so each lane of the scan is exercised.
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string plain(length, 'x');
        Parsed p = parse("{\"s\":\"" + plain + "\",\"t\":\"\xC3\xA9" + plain + "\"}");
        ASSERT_EQ(p.code, 0) << length;
        EXPECT_EQ(p.object["s"], json::Value(plain));
        EXPECT_EQ(p.object["t"], json::Value("\xC3\xA9" + plain));

        Parsed escaped = parse("{\"s\":\"" + plain + "\\n" + plain + "\"}");
        ASSERT_EQ(escaped.code, 0) << length;
        EXPECT_EQ(escaped.object["s"], json::Value(plain + "\n" + plain));

        Parsed control = parse("{\"s\":\"" + plain + "\x1f" + "\"}");
        EXPECT_EQ(control.code, pr::kControlCharacterInString) << length;
        EXPECT_EQ(control.position, 6 + length);
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
    json::Value copy(deepest.object);
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

    // Far deeper hostile input fails the same way instead of exhausting the stack.
    EXPECT_EQ(parse("{\"a\":" + std::string(1000000, '[')).code, pr::kNestingTooDeep);
}

TEST(JsonTypedValuesTest, ParseArrayReadsTheSelectionText) {
    json::Array rows;
    ASSERT_EQ(parseArray(R"([{"start":2,"end":4},{"start":7,"end":7}])", rows), 0);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1]["start"], json::Value(7.0));

    json::Array none;
    EXPECT_EQ(parseArray("[]", none), 0);
    EXPECT_TRUE(none.empty());

    json::Array bad;
    EXPECT_EQ(parseArray("", bad), pr::kUnexpectedEnd);
    EXPECT_EQ(parseArray(R"({"start":1})", bad), pr::kInvalidValue);
    EXPECT_EQ(parseArray("[1,2", bad), pr::kUnexpectedEnd);
    EXPECT_EQ(parseArray("[1] 2", bad), pr::kTrailingCharacters);
}

TEST(JsonTypedValuesTest, MalformedInputNeverCrashes) {
    const std::vector<std::string> messages = {
        R"({"eventType":11,"startRow":0,"endRow":49,"startColumn":0,"endColumn":12})",
        R"({"eventType":12,"row":3,"column":2,"data":"x = [1 2\t3];\n\"q\" \u00e9\ud83d\ude00"})",
        R"({"type":"propertySet","propertyName":"Selection","propertyValue":{"selectedRows":"[{\"start\":2,\"end\":4}]"}})",
        R"({"vxdata":[1,-2,9223372036854775807],"vxtype":"int64","nested":{"vxtype":"uint8","vxdata":[255]}})",
        R"({"a":[true,false,null,-1.5e-3,{"b":[[]]}],"c":"\/\b\f\n\r\t"})",
    };
    const char mutations[] = {'{', '}', '[', ']', '"', '\\', ',',    ':',    '0', '-',
                              '.', 'e', 'u', 'd', ' ', '\0', '\x1f', '\x80', 'n', 't'};
    std::uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };

    for (const std::string& message : messages) {
        ASSERT_EQ(parse(message).code, 0) << message;
        // A strict prefix of an object is never a complete object.
        for (std::size_t cut = 0; cut < message.size(); ++cut)
            EXPECT_NE(parse(std::string_view(message).substr(0, cut)).code, 0) << cut;
        for (std::size_t at = 0; at < message.size(); ++at) {
            for (char m : mutations) {
                std::string mutated = message;
                mutated[at] = m;
                parse(mutated);
            }
        }
        for (int round = 0; round < 2000; ++round) {
            std::string mutated = message;
            const int edits = 1 + static_cast<int>(next() % 4);
            for (int e = 0; e < edits; ++e) {
                const std::size_t at = next() % mutated.size();
                switch (next() % 3) {
                case 0:
                    mutated[at] = mutations[next() % sizeof mutations];
                    break;
                case 1:
                    mutated.erase(at, 1 + next() % 3);
                    break;
                default:
                    mutated.insert(at, 1, mutations[next() % sizeof mutations]);
                }
                if (mutated.empty())
                    mutated = "{";
            }
            json::Array array;
            parse(mutated);
            parseArray(mutated, array);
        }
    }
}

TEST(JsonTypedValuesTest, ParserExceptionLinesUpTheCaretUnderTabs) {
    const std::string text = "{\n\t\"a\"\t1}";
    Parsed p = parse(text);
    ASSERT_EQ(p.code, pr::kColonExpected);
    const json::ParserException error(p.code, text, p.position);
    EXPECT_EQ(error.line(), 2u);
    EXPECT_EQ(error.column(), 6u);
    EXPECT_EQ(std::string(error.what()),
              "JSON ParserException (E18): " + json::get_parse_result_description(18) +
                  " (Line 2, Column 6)\n\t\"a\"\t1}\n\t   \t^");
}

TEST(JsonTypedValuesTest, ToInt32ByKind) {
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value()), 0);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(json::Null())), 0);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(true)), 1);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(false)), 0);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(11.9)), 11);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(-3.5)), -3);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(2147483647.9)), INT_MAX);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(-2147483648.9)), INT_MIN);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value(std::nan(""))), 0);

    try {
        JsonTypedValues::toInt32(json::Value(2147483648.0));
        ADD_FAILURE() << "no positive overflow";
    } catch (const boost::numeric::positive_overflow& e) {
        EXPECT_STREQ(e.what(), "bad numeric conversion: positive overflow");
        EXPECT_NE(dynamic_cast<const std::bad_cast*>(&e), nullptr);
    }
    try {
        JsonTypedValues::toInt32(json::Value(-2147483649.0));
        ADD_FAILURE() << "no negative overflow";
    } catch (const boost::numeric::negative_overflow& e) {
        EXPECT_STREQ(e.what(), "bad numeric conversion: negative overflow");
    }
    EXPECT_THROW(JsonTypedValues::toInt32(json::Value(1e300)), boost::numeric::positive_overflow);
    EXPECT_THROW(JsonTypedValues::toInt32(json::Value(-HUGE_VAL)),
                 boost::numeric::negative_overflow);
}

template <class F> std::string failureText(F&& convert) {
    try {
        convert();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

TEST(JsonTypedValuesTest, ConversionsRejectOtherKindsWithTheirNames) {
    auto toInt = [](json::Value v) { return [v] { JsonTypedValues::toInt32(v); }; };
    EXPECT_EQ(failureText(toInt(json::Value(5L))), "invalid conversion: long to int");
    EXPECT_EQ(failureText(toInt(json::Value(5UL))), "invalid conversion: unsigned long to int");
    EXPECT_EQ(failureText(toInt(json::Value(1.5f))), "invalid conversion: float to int");
    EXPECT_EQ(failureText(toInt(json::Value(json::Array()))),
              "invalid conversion: std::vector<foundation::json::Value> to int");
    EXPECT_EQ(failureText(toInt(json::Value(json::Object()))),
              "invalid conversion: std::map<std::string, foundation::json::Value> to int");

    EXPECT_TRUE(JsonTypedValues::toBool(json::Value(true)));
    EXPECT_FALSE(JsonTypedValues::toBool(json::Value(false)));
    auto toBool = [](json::Value v) { return [v] { JsonTypedValues::toBool(v); }; };
    EXPECT_EQ(failureText(toBool(json::Value(json::Null()))),
              "invalid conversion: foundation::json::Null to bool");
    EXPECT_EQ(failureText(toBool(json::Value())),
              "invalid conversion: foundation::json::Undefined to bool");
    EXPECT_EQ(failureText(toBool(json::Value("true"))), "invalid conversion: std::string to bool");
    EXPECT_EQ(failureText(toBool(json::Value(1.0))), "invalid conversion: double to bool");

    EXPECT_EQ(JsonTypedValues::toString(json::Value("a\0b")), "a");
    auto toString = [](json::Value v) { return [v] { JsonTypedValues::toString(v); }; };
    EXPECT_EQ(failureText(toString(json::Value(3.0))), "invalid conversion: double to std::string");
    EXPECT_EQ(failureText(toString(json::Value())),
              "invalid conversion: foundation::json::Undefined to std::string");
}

int readWithStream(const std::string& text) {
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    // Text with no number at all (empty or only white space) leaves the int untouched; the
    // conversion starts from 0.
    int value = 0;
    in >> value;
    return value;
}

TEST(JsonTypedValuesTest, StringToInt32ReadsLikeAnInputStream) {
    for (const std::string text : {"12abc",
                                   "abc",
                                   "",
                                   "  42",
                                   "\t\n\v\f\r-17x",
                                   "+5",
                                   "-",
                                   "+",
                                   "- 5",
                                   "+-5",
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
                                   "1 2",
                                   "-0",
                                   "00000000000000000000000000000001"}) {
        EXPECT_EQ(JsonTypedValues::toInt32(json::Value(text)), readWithStream(text))
            << '"' << text << '"';
    }
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value("12abc")), 12);
    EXPECT_EQ(JsonTypedValues::toInt32(json::Value("abc")), 0);
}

} // namespace
