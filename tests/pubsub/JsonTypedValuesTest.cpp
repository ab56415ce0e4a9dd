#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <boost/numeric/conversion/converter.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <locale>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#if defined(__GNUC__) && !defined(__clang__)
// The replacement below pairs malloc with free on purpose; GCC cannot see that across inlining.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

// The largest single allocation made while `gWatchAllocations` is set, so that a test can bound
// what a client's text makes the parser allocate.
std::atomic<bool> gWatchAllocations{false};
std::atomic<std::size_t> gLargestAllocation{0};

void* operator new(std::size_t size) {
    if (gWatchAllocations.load(std::memory_order_relaxed)) {
        std::size_t seen = gLargestAllocation.load(std::memory_order_relaxed);
        while (size > seen && !gLargestAllocation.compare_exchange_weak(seen, size)) {
        }
    }
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

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

std::string failureText(const std::function<void()>& convert) {
    try {
        convert();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

TEST(JsonTypedValuesTest, MembersParseToTheirValuesAndTypedIntegersStayExact) {
    const struct {
        std::string text;
        const char* key;
        V expected;
    } cases[] = {
        // 2^53 + 1 is the first integer a double cannot hold.
        {R"({"vxtype": "int64", "vxdata": [9007199254740993, -5]})", "vxdata",
         V(A{V(9007199254740993L), V(-5L)})},
        {R"({"vxdata": [1, 2], "vxtype": "uint8"})", "vxdata", V(A{V(1UL), V(2UL)})},
        // The width in the name does not narrow the parse; a later type reads the data again.
        {R"({"vxtype":"int8","vxdata":[1000, -0],"vxtype":"uint16"})", "vxdata",
         V(A{V(1000UL), V(0UL)})},
        {R"({"vxtype":"int64","vxdata":[-9223372036854775808,9223372036854775807,-00012]})",
         "vxdata", V(A{V(LONG_MIN), V(LONG_MAX), V(-12L)})},
        {R"({"vxtype":"uint64","vxdata":[18446744073709551615]})", "vxdata", V(A{V(ULONG_MAX)})},
        // Without a recognised type name in the same object the data are ordinary doubles.
        {R"({"vxtype": "int128", "vxdata": [1]})", "vxdata", V(A{V(1.0)})},
        {R"({"vxtype": 64, "vxdata": [1]})", "vxdata", V(A{V(1.0)})},
        {R"({"vxtype":"int64","o":{"vxdata":[1]},"vxdata":[]})", "o",
         V(json::Object{{"vxdata", V(A{V(1.0)})}})},
        {R"({"t":true,"f":false,"n":null})", "n", V(json::Null())},
        {R"({"a":[1,"2",{}, true, false]})", "a",
         V(A{V(1.0), V("2"), V(json::Object()), V(true), V(false)})},
        {R"({"d":"first","d":"last"})", "d", V("last")},
        {"{ \"a\" :\t-12 ,\r\n \"b\" : [ ] } \n", "a", V(-12.0)},
        {R"({"n":12345678901234567})", "n", V(12345678901234568.0)},
        {R"({"n":-2e-2})", "n", V(-0.02)},
        {R"({"n":0.000001e-400})", "n", V(0.0)},
        {R"({"e":"q\"b\\s\/\b\f\n\r\t."})", "e", V("q\"b\\s/\b\f\n\r\t.")},
        {R"({"u":"\u0041\u00e9\u20AC"})", "u", V("A\xC3\xA9\xE2\x82\xAC")},
        {R"({"p":"\ud83d\ude00"})", "p", V("\xF0\x9F\x98\x80")},
        {R"({"low":"\uDC00"})", "low", V("\xED\xB0\x80")}, // a lone low surrogate is kept
        {R"({"k\u0065y":"a\u0000b"})", "key", V(std::string("a\0b", 3))},
        // Raw control characters are taken as they stand, in keys too.
        {std::string("{\"c\x01\":\"tab\there\nnul\0\x1f\"}", 23), "c\x01",
         V(std::string("tab\there\nnul\0\x1f", 14))},
        // After a high surrogate the next \u escape is always its partner: the low ten bits of
        // each make one four-byte character, whatever range the second escape is in.
        {R"({"p":"\ud83d\u0041"})", "p", V("\xF0\x9F\x91\x81")},   // U+1F441
        {R"({"p":"\uD800\uDBFF"})", "p", V("\xF0\x90\x8F\xBF")},   // U+103FF
        {R"({"p":"\uDBFF\uFFFFx"})", "p", V("\xF4\x8F\xBF\xBFx")}, // U+10FFFF
    };
    for (const auto& c : cases) {
        Parsed p = parse(c.text);
        ASSERT_EQ(p.code, 0) << c.text;
        EXPECT_EQ(p.object[c.key], c.expected) << c.text;
    }
    EXPECT_TRUE(std::signbit(parse(R"({"n":-0})").object["n"].get<double>()));
}

TEST(JsonTypedValuesTest, FailuresGiveTheirCodeAndPositionAndKeepEarlierMembers) {
    const std::string typed = R"({"vxtype":"int32","vxdata":)"; // the data start at 27
    const struct {
        std::string text;
        int code;
        std::size_t position;
    } cases[] = {
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
        {R"({"a":"\x"})", pr::kInvalidEscape, 7},
        {R"({"a":"\ud83d"})", pr::kMissingLowSurrogate, 12},
        {R"({"a":"\ud83d\n"})", pr::kMissingLowSurrogate, 12},
        {R"({"a":"\ud83d\u00"})", pr::kInvalidUnicodeEscape, 16},
        {R"({"a":"\u12G4"})", pr::kInvalidUnicodeEscape, 10},
        {R"({"a":"\ud83d\)", pr::kUnexpectedEnd, 13},
        {"{\"a\":\"no end\x01", pr::kUnexpectedEnd, 13},
    };
    for (const auto& c : cases) {
        const Parsed p = parse(c.text);
        EXPECT_EQ(p.code, c.code) << c.text;
        EXPECT_EQ(p.position, c.position) << c.text;
    }
    // A failed second reading keeps the data as first read.
    EXPECT_EQ(parse(R"({"vxdata":[1.5],"vxtype":"int32"})").object["vxdata"], V(A{V(1.5)}));
    Parsed p = parse(R"({"eventType":11,"endRow":[1,2,)");
    EXPECT_EQ(p.code, pr::kUnexpectedEnd);
    EXPECT_EQ(p.object, (json::Object{{"eventType", V(11.0)}, {"endRow", V(A{V(1.0), V(2.0)})}}));
}

TEST(JsonTypedValuesTest, StringScanFindsQuotesAndEscapesAtEveryOffset) {
    // Strings are scanned many bytes at a time; control characters must not stop the scan.
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string s(length, 'x');
        Parsed p = parse("{\"s\":\"" + s + "\",\"t\":\"\xC3\xA9" + s + "\\n" + s + "\",\"c\":\"" +
                         s + "\x1f" + s + "\x01\"}");
        ASSERT_EQ(p.code, 0) << length;
        EXPECT_EQ(p.object["s"], V(s));
        EXPECT_EQ(p.object["t"], V("\xC3\xA9" + s + "\n" + s));
        EXPECT_EQ(p.object["c"], V(s + "\x1f" + s + "\x01"));
    }
}

TEST(JsonTypedValuesTest, NestingUpToTheLimitWorksAndBeyondFails) {
    const std::size_t limit = JsonTypedValues::kMaxDepth;
    const auto nestedArrays = [](std::size_t depth) {
        return "{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
    };
    // The top-level object is depth 1, so limit - 1 arrays inside it reach the limit.
    Parsed deepest = parse(nestedArrays(limit - 1));
    ASSERT_EQ(deepest.code, 0);
    // Copying, serialising and destroying a value this deep must be safe too.
    EXPECT_EQ(json::serialize(V(deepest.object)), nestedArrays(limit - 1));
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
    A rows, other;
    ASSERT_EQ(parseArray(R"([{"start":2,"end":4},{"start":7,"end":7}])", rows), 0);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1]["start"], V(7.0));
    EXPECT_EQ(parseArray("[]", other), 0);
    EXPECT_EQ(parseArray("", other), pr::kUnexpectedEnd);
    EXPECT_EQ(parseArray(R"({"start":1})", other), pr::kInvalidValue);
    EXPECT_EQ(parseArray("[1] 2", other), pr::kTrailingCharacters);
    const std::string_view unclosed = "[1 2]";
    std::size_t at = 0;
    EXPECT_EQ(
        JsonTypedValues::parseArray(unclosed.data(), unclosed.data() + unclosed.size(), other, at),
        pr::kArrayCommaOrBracketExpected);
    EXPECT_EQ(at, 3u);
}

TEST(JsonTypedValuesTest, MalformedInputNeverCrashes) {
    const std::string messages[] = {
        R"({"eventType":11,"startRow":0,"endRow":49,"startColumn":0,"endColumn":12})",
        R"({"eventType":12,"row":3,"data":"x = [1 2\t3];\n\"q\" \u00e9\ud83d\ude00"})",
        R"({"propertyValue":{"selectedRows":"[{\"start\":2,\"end\":4}]"},"type":"propertySet"})",
        R"({"vxdata":[1,-2,9223372036854775807],"vxtype":"int64","o":{"vxtype":"uint8","vxdata":[255]}})",
        R"({"a":[true,false,null,-1.5e-3,{"b":[[]]}],"c":"\/\b\f\n\r\t"})",
    };
    const std::string bytes("{}[]\"\\,:0-.eud \0\x1f\x80nt", 20);
    std::uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
    for (const std::string& message : messages) {
        ASSERT_EQ(parse(message).code, 0) << message;
        // No strict prefix of an object is a complete object.
        for (std::size_t cut = 0; cut < message.size(); ++cut)
            EXPECT_NE(parse(std::string_view(message).substr(0, cut)).code, 0) << cut;
        // Random bytes replaced, removed and inserted.
        for (int round = 0; round < 4000; ++round) {
            std::string mutated = message;
            for (std::uint32_t edits = 1 + next() % 4; edits > 0 && !mutated.empty(); --edits) {
                const std::size_t at = next() % mutated.size();
                const char byte = bytes[next() % bytes.size()];
                if (const auto how = next() % 3; how == 0)
                    mutated[at] = byte;
                else if (how == 1)
                    mutated.erase(at, 1 + next() % 3);
                else
                    mutated.insert(at, 1, byte);
            }
            A array;
            parse(mutated);
            parseArray(mutated, array);
        }
    }
}

TEST(JsonTypedValuesTest, TypedArraysAllocateNoMoreThanTheirTextCanHold) {
    // Commas, blanks and signs without digits hold no element, however many there are.
    const std::size_t size = std::size_t{1} << 20;
    const std::string fillers[] = {",", " ,", "-,"};
    for (const std::string& filler : fillers) {
        std::string text = R"({"vxtype":"int32","vxdata":[1)";
        while (text.size() < size)
            text += filler;
        text += "]}";
        gLargestAllocation = 0;
        gWatchAllocations = true;
        const Parsed r = parse(text);
        gWatchAllocations = false;
        EXPECT_NE(r.code, 0);
        EXPECT_LT(gLargestAllocation.load(), 4 * text.size()) << filler;
    }
    // A well-formed array still parses whole.
    std::string text = R"({"vxtype":"int32","vxdata":[)";
    for (int i = 0; i < 1000; ++i)
        text += std::to_string(i) + (i == 999 ? "]}" : ", ");
    const Parsed r = parse(text);
    ASSERT_EQ(r.code, 0);
    ASSERT_EQ(r.object.at("vxdata").get<A>().size(), 1000U);
    EXPECT_EQ(r.object.at("vxdata").get<A>()[999], V(999L));
}

TEST(JsonTypedValuesTest, ConversionsByKindWithOverflowBoundsAndExactErrors) {
    // clang-format off
    const std::pair<V, int> converted[] = {
        {V(), 0}, {V(json::Null()), 0}, {V(true), 1}, {V(false), 0}, {V(11.9), 11}, {V(-3.5), -3},
        {V(std::nan("")), 0}, {V(2147483647.9), INT_MAX}, {V(-2147483648.9), INT_MIN}};
    // clang-format on
    for (const auto& [value, expected] : converted)
        EXPECT_EQ(JsonTypedValues::toInt32(value), expected) << json::serialize(value);
    EXPECT_THROW(JsonTypedValues::toInt32(V(2147483648.0)), boost::numeric::positive_overflow);
    EXPECT_THROW(JsonTypedValues::toInt32(V(-2147483649.0)), boost::numeric::negative_overflow);
    EXPECT_THROW(JsonTypedValues::toInt32(V(-HUGE_VAL)), boost::numeric::negative_overflow);
    EXPECT_STREQ(boost::numeric::positive_overflow().what(),
                 "bad numeric conversion: positive overflow");
    EXPECT_TRUE(JsonTypedValues::toBool(V(true)));
    EXPECT_EQ(JsonTypedValues::toString(V("text")), "text");

    const std::pair<std::function<void()>, std::string> rejected[] = {
        {[] { JsonTypedValues::toInt32(V(5L)); }, "long to int"},
        {[] { JsonTypedValues::toInt32(V(5UL)); }, "unsigned long to int"},
        {[] { JsonTypedValues::toInt32(V(1.5f)); }, "float to int"},
        {[] { JsonTypedValues::toInt32(V(A())); }, "std::vector<foundation::json::Value> to int"},
        {[] { JsonTypedValues::toInt32(V(json::Object())); },
         "std::map<std::string, foundation::json::Value> to int"},
        {[] { JsonTypedValues::toBool(V(json::Null())); }, "foundation::json::Null to bool"},
        {[] { JsonTypedValues::toBool(V()); }, "foundation::json::Undefined to bool"},
        {[] { JsonTypedValues::toBool(V("true")); }, "std::string to bool"},
        {[] { JsonTypedValues::toString(V(3.0)); }, "double to std::string"},
    };
    for (const auto& [convert, text] : rejected)
        EXPECT_EQ(failureText(convert), "invalid conversion: " + text);
}

TEST(JsonTypedValuesTest, StringToInt32ReadsLikeAnInputStream) {
    const char* const texts[] = {"12abc", "abc", "\t\n-17x", "3.9", "2147483648", "-2147483649"};
    for (const std::string text : texts) {
        std::istringstream in(text);
        in.imbue(std::locale::classic());
        int expected = 0; // text without a number leaves it untouched; the conversion gives 0
        in >> expected;
        EXPECT_EQ(JsonTypedValues::toInt32(V(text)), expected) << '"' << text << '"';
    }
    EXPECT_EQ(JsonTypedValues::toInt32(V("12abc")), 12);
}

} // namespace
