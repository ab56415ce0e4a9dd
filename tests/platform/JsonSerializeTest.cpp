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

TEST(JsonSerialize, ScalarsPrintExactlyAndIntegersWithoutFraction) {
    const std::pair<Value, const char*> cases[] = {
        {Value(5), "5"},
        {Value(-3.0), "-3"},
        {Value(1e18), "1000000000000000000"},
        {Value(0.1 + 0.2), "0.30000000000000004"},
        {Value(1e300), "1e+300"},
        {Value(-0.0), "-0"},
        {Value(0.1f), "0.1"},
        {Value(3.0f), "3"},
        // 2^53 + 1 has no double; the 64-bit kinds keep it.
        {Value(9007199254740993L), "9007199254740993"},
        {Value(std::numeric_limits<long>::min()), "-9223372036854775808"},
        {Value(std::numeric_limits<unsigned long>::max()), "18446744073709551615"},
        {Value(std::nan("")), "null"},
        {Value(-std::numeric_limits<double>::infinity()), "null"},
        {Value(std::numeric_limits<float>::infinity()), "null"},
        {Value(), "null"},
        {Value(false), "false"},
        {Value("say \"hi\" \\ /"), R"("say \"hi\" \\ /")"},
        {Value("\b\f\n\r\t"), R"("\b\f\n\r\t")"},
        {Value(std::string("\x01\x1f\x7f\0", 4)), "\"\\u0001\\u001f\x7f\\u0000\""},
        {Value("gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80"), "\"gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80\""},
    };
    for (const auto& [value, text] : cases)
        EXPECT_EQ(serialize(value), text);

    std::mt19937_64 random(42);
    for (int checked = 0; checked < 2000;) {
        const std::uint64_t pattern = random();
        double d;
        std::memcpy(&d, &pattern, sizeof d);
        if (!std::isfinite(d))
            continue;
        ++checked;
        const std::string text = serialize(Value(d));
        EXPECT_EQ(std::strtod(text.c_str(), nullptr), d) << text;
    }
}

TEST(JsonSerialize, EscapesAreFoundAtEveryPositionOfLongStrings) {
    // Plain text is scanned several bytes at a time; an escape must be caught wherever it sits,
    // next to multi-byte characters too.
    const std::string base = "abcdefgh\xC3\xA9ijklmnopqrstuvwx\xE2\x82\xACyz";
    const std::pair<char, std::string> specials[] = {
        {'"', "\\\""}, {'\\', "\\\\"}, {'\n', "\\n"}, {'\x1f', "\\u001f"}};
    for (const auto& [special, escaped] : specials) {
        for (std::size_t at = 0; at <= base.size(); ++at) {
            std::string s = base;
            s.insert(at, 1, special);
            const std::string expected =
                "\"" + base.substr(0, at) + escaped + base.substr(at) + "\"";
            EXPECT_EQ(serialize(Value(s)), expected) << "at " << at;
        }
    }
    // Every byte escaped: the output grows six-fold while being written.
    std::string expected = "\"";
    for (int i = 0; i < 1000; ++i)
        expected += "\\u001f";
    EXPECT_EQ(serialize(Value(std::string(1000, '\x1f'))), expected + "\"");
}

TEST(JsonSerialize, ContainersAreCompactWithKeysInOrderAndMayNestDeeply) {
    Value v(Object{{"z", Array{}},
                   {"a\"b", Object{}},
                   {"m", Array{1, "x", Value(), Object{{"y", 2.5}, {"b", false}}}}});
    EXPECT_EQ(serialize(v), R"({"a\"b":{},"m":[1,"x",null,{"b":false,"y":2.5}],"z":[]})");
    std::string out = "prefix:";
    serialize(Value(Array{1L, 2UL}), out);
    serialize(Value("s"), out);
    EXPECT_EQ(out, R"(prefix:[1,2]"s")");

    constexpr int depth = 10000;
    Value deep;
    for (int i = 0; i < depth; ++i) {
        Array wrapper;
        wrapper.push_back(std::move(deep));
        deep = Value(std::move(wrapper));
    }
    EXPECT_EQ(serialize(deep), std::string(depth, '[') + "null" + std::string(depth, ']'));
}
