#include <workspace_browser/platform/json/Serialize.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

using namespace foundation::json;

TEST(JsonSerialize, NumbersPrintExactlyAndIntegersWithoutFraction) {
    EXPECT_EQ(serialize(Value(5)), "5");
    EXPECT_EQ(serialize(Value(-3.0)), "-3");
    EXPECT_EQ(serialize(Value(100000)), "100000");
    EXPECT_EQ(serialize(Value(1e18)), "1000000000000000000");
    EXPECT_EQ(serialize(Value(0.1)), "0.1");
    EXPECT_EQ(serialize(Value(0.1 + 0.2)), "0.30000000000000004");
    EXPECT_EQ(serialize(Value(1e300)), "1e+300");
    EXPECT_EQ(serialize(Value(-0.0)), "-0");
    EXPECT_EQ(serialize(Value(0.1f)), "0.1");
    EXPECT_EQ(serialize(Value(3.0f)), "3");
    // 2^53 + 1 has no double; the 64-bit kinds keep it.
    EXPECT_EQ(serialize(Value(9007199254740993L)), "9007199254740993");
    EXPECT_EQ(serialize(Value(std::numeric_limits<long>::min())), "-9223372036854775808");
    EXPECT_EQ(serialize(Value(std::numeric_limits<unsigned long>::max())), "18446744073709551615");
    EXPECT_EQ(serialize(Value(std::nan(""))), "null");
    EXPECT_EQ(serialize(Value(-std::numeric_limits<double>::infinity())), "null");
    EXPECT_EQ(serialize(Value(std::numeric_limits<float>::infinity())), "null");
    EXPECT_EQ(serialize(Value()), "null");
    EXPECT_EQ(serialize(Value(Null{})), "null");
    EXPECT_EQ(serialize(Value(true)), "true");
    EXPECT_EQ(serialize(Value(false)), "false");
}

TEST(JsonSerialize, DoublesReadBackToTheSameNumber) {
    std::mt19937_64 random(42);
    std::uniform_int_distribution<std::uint64_t> bits;
    int checked = 0;
    while (checked < 2000) {
        const std::uint64_t pattern = bits(random);
        double d;
        std::memcpy(&d, &pattern, sizeof d);
        if (!std::isfinite(d))
            continue;
        ++checked;
        const std::string text = serialize(Value(d));
        EXPECT_EQ(std::strtod(text.c_str(), nullptr), d) << text;
    }
}

TEST(JsonSerialize, StringsEscapeQuotesBackslashesAndControlCharacters) {
    EXPECT_EQ(serialize(Value("")), R"("")");
    EXPECT_EQ(serialize(Value("say \"hi\" \\ /")), R"("say \"hi\" \\ /")");
    EXPECT_EQ(serialize(Value("\b\f\n\r\t")), R"("\b\f\n\r\t")");
    EXPECT_EQ(serialize(Value(std::string("\x01\x1f\x7f", 3) + std::string(1, '\0'))),
              "\"\\u0001\\u001f\x7f\\u0000\"");
    // UTF-8 passes through untouched.
    EXPECT_EQ(serialize(Value("gr\xC3\xBC\xC3\x9F \xE6\x97\xA5 \xF0\x9F\x98\x80")),
              "\"gr\xC3\xBC\xC3\x9F \xE6\x97\xA5 \xF0\x9F\x98\x80\"");
}

TEST(JsonSerialize, EscapesAreFoundAtEveryPositionOfLongStrings) {
    // Plain text is scanned several bytes at a time; an escape must be caught wherever it sits,
    // next to multi-byte characters too.
    const auto reference = [](const std::string& s) {
        std::string out = "\"";
        for (char c : s) {
            if (c == '"' || c == '\\')
                out += std::string("\\") + c;
            else if (c == '\n')
                out += "\\n";
            else if (c == '\x1f')
                out += "\\u001f";
            else
                out += c;
        }
        return out + "\"";
    };
    const std::string base = "abcdefgh\xC3\xA9ijklmnopqrstuvwx\xE2\x82\xACyz";
    for (const char special : {'"', '\\', '\n', '\x1f'}) {
        for (std::size_t at = 0; at <= base.size(); ++at) {
            std::string s = base;
            s.insert(at, 1, special);
            EXPECT_EQ(serialize(Value(s)), reference(s)) << "at " << at;
        }
    }
    EXPECT_EQ(serialize(Value(base + base)), reference(base + base));
    // Every byte escaped: the output grows six-fold while being written.
    std::string expected = "\"";
    for (int i = 0; i < 1000; ++i)
        expected += "\\u001f";
    EXPECT_EQ(serialize(Value(std::string(1000, '\x1f'))), expected + "\"");
}

TEST(JsonSerialize, ContainersAreCompactWithKeysInOrder) {
    Value v(Object{{"z", Array{}},
                   {"a\"b", Object{}},
                   {"m", Array{1, "x", Value(), Object{{"y", 2.5}, {"b", false}}}}});
    EXPECT_EQ(serialize(v), R"({"a\"b":{},"m":[1,"x",null,{"b":false,"y":2.5}],"z":[]})");

    std::string out = "prefix:";
    serialize(Value(Array{1L, 2UL}), out);
    serialize(Value("s"), out);
    EXPECT_EQ(out, R"(prefix:[1,2]"s")");
}

TEST(JsonSerialize, DeeplyNestedValuesSerialize) {
    constexpr int depth = 10000;
    Value v;
    for (int i = 0; i < depth; ++i) {
        Array wrapper;
        wrapper.push_back(std::move(v));
        v = Value(std::move(wrapper));
    }
    const std::string text = serialize(v);
    EXPECT_EQ(text, std::string(depth, '[') + "null" + std::string(depth, ']'));
}
