#include <workspace_browser/platform/json/Value.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>

using namespace foundation::json;
using Kind = Value::Kind;

namespace {
std::string conversionError(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no exception";
}
} // namespace

TEST(JsonValue, EachConstructorHoldsItsKindAndName) {
    struct Case {
        Value value;
        Kind kind;
        const char* name;
    };
    const Case cases[] = {
        {Value(), Kind::Undefined, "foundation::json::Undefined"},
        {Value(Null{}), Kind::Null, "foundation::json::Null"},
        {Value(nullptr), Kind::Null, "foundation::json::Null"},
        {Value(static_cast<const char*>(nullptr)), Kind::Null, "foundation::json::Null"},
        {Value(true), Kind::Boolean, "bool"},
        // Plain integers travel as doubles.
        {Value(5), Kind::Double, "double"},
        {Value(5u), Kind::Double, "double"},
        {Value(2.5), Kind::Double, "double"},
        {Value(2.5f), Kind::Float, "float"},
        {Value(5L), Kind::Long, "long"},
        {Value(std::size_t{5}), Kind::UnsignedLong, "unsigned long"},
        {Value("text"), Kind::String, "std::string"},
        {Value(std::string_view("text")), Kind::String, "std::string"},
        {Value(std::string("text")), Kind::String, "std::string"},
        {Value(Array{1, 2}), Kind::Array, "std::vector<foundation::json::Value>"},
        {Value(Object{{"a", 1}}), Kind::Object, "std::map<std::string, foundation::json::Value>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.value.kind(), c.kind);
        EXPECT_STREQ(c.value.kindName(), c.name);
    }
    EXPECT_STREQ(traits<int>::name, "int");
    EXPECT_EQ(Value(5).get<double>(), 5.0);
    EXPECT_EQ(Value(-7L).get<long>(), -7L);
    EXPECT_EQ(Value("text").get<std::string>(), "text");
    EXPECT_TRUE(Value(Array{1, 2}).is<Array>());
    EXPECT_FALSE(Value(Array{1, 2}).is<Object>());
}

TEST(JsonValue, WrongKindGetThrowsInvalidConversionWithBothNames) {
    EXPECT_EQ(conversionError([] { (void)Value(5).get<std::string>(); }),
              "invalid conversion: double to std::string");
    EXPECT_EQ(conversionError([] { (void)Value().get<bool>(); }),
              "invalid conversion: foundation::json::Undefined to bool");
    EXPECT_EQ(conversionError([] { (void)Value(1L).get<double>(); }),
              "invalid conversion: long to double");
    EXPECT_EQ(conversionError([] { (void)Value(Object{}).get<Array>(); }),
              "invalid conversion: std::map<std::string, foundation::json::Value> to "
              "std::vector<foundation::json::Value>");
    Value mutableValue(Null{});
    EXPECT_EQ(conversionError([&] { (void)mutableValue.get<unsigned long>(); }),
              "invalid conversion: foundation::json::Null to unsigned long");
    EXPECT_TRUE(mutableValue.is<Null>()); // a failed get leaves the value alone
}

TEST(JsonValue, GetGivesWritableAccessToThePayload) {
    Value v(Array{});
    v.get<Array>().reserve(3);
    v.get<Array>().emplace_back("a");
    v.get<Array>().emplace_back(2L);
    ASSERT_EQ(v.get<Array>().size(), 2u);
    v.get<Array>()[0].get<std::string>() += "b";
    EXPECT_EQ(v, Value(Array{"ab", 2L}));
}

TEST(JsonValue, SubscriptCreatesObjectsAndMembersButRejectsOtherKinds) {
    Value v;
    Value& member = v["b"];
    EXPECT_TRUE(v.is<Object>());
    EXPECT_TRUE(member.is<Undefined>());
    v["a"]["x"] = 1;
    v["a"]["y"] = "z";
    EXPECT_EQ(v, Value(Object{{"a", Object{{"x", 1}, {"y", "z"}}}, {"b", Value()}}));
    // Reading an existing member does not change it.
    EXPECT_EQ(v["a"]["x"], Value(1));
    EXPECT_EQ(v.get<Object>().size(), 2u);

    const char* const objectName = "std::map<std::string, foundation::json::Value>";
    for (Value other : {Value(Null{}), Value(false), Value(1), Value("s"), Value(Array{}),
                        Value(1.5f), Value(1L), Value(1UL)}) {
        const std::string expected =
            std::string("invalid conversion: ") + other.kindName() + " to " + objectName;
        EXPECT_EQ(conversionError([&] { other["k"]; }), expected);
    }
}

TEST(JsonValue, CopiesAreDeepAndMovesLeaveUndefined) {
    Value original(Object{{"list", Array{1, "two", Object{{"k", 3L}}}}, {"s", "text"}});
    Value copy = original;
    EXPECT_EQ(copy, original);
    copy["list"].get<Array>()[2]["k"] = 4L;
    EXPECT_EQ(original["list"].get<Array>()[2]["k"], Value(3L));

    Value moved = std::move(copy);
    EXPECT_TRUE(copy.is<Undefined>()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(moved["list"].get<Array>()[2]["k"], Value(4L));

    for (Value v : {Value("a long string that does not fit in the small buffer"),
                    Value(Array{1, 2}), Value(Object{{"a", 1}}), Value(1UL)}) {
        Value target("old");
        const Value expected = v;
        target = std::move(v);
        EXPECT_EQ(target, expected);
        EXPECT_TRUE(v.is<Undefined>()); // NOLINT(bugprone-use-after-move)
    }
}

TEST(JsonValue, AssigningAPartOfAValueToItselfIsSafe) {
    Value v(Object{{"inner", Object{{"leaf", Array{"x", "y"}}}}});
    v = v["inner"];
    EXPECT_EQ(v, Value(Object{{"leaf", Array{"x", "y"}}}));
    v = std::move(v["leaf"]);
    EXPECT_EQ(v, Value(Array{"x", "y"}));
    v = std::move(v.get<Array>()[1]);
    EXPECT_EQ(v, Value("y"));
    Value& self = v;
    v = self;
    v = std::move(self);
    EXPECT_EQ(v, Value("y"));

    Value a(Array{1}), b(Object{{"k", "v"}});
    swap(a, b);
    EXPECT_EQ(a, Value(Object{{"k", "v"}}));
    EXPECT_EQ(b, Value(Array{1}));
}

TEST(JsonValue, EqualityNeedsTheSameKindAndPayload) {
    EXPECT_EQ(Value(), Value());
    EXPECT_EQ(Value(Null{}), Value(nullptr));
    EXPECT_NE(Value(), Value(Null{}));
    EXPECT_NE(Value(1), Value(1L));
    EXPECT_NE(Value(1L), Value(1UL));
    EXPECT_NE(Value(1.5), Value(1.5f));
    EXPECT_NE(Value(std::nan("")), Value(std::nan("")));
    EXPECT_NE(Value(Array{1, 2}), Value(Array{1}));
    EXPECT_NE(Value(Object{{"a", 1}}), Value(Object{{"b", 1}}));
    EXPECT_NE(Value(Object{{"a", 1}}), Value(Object{{"a", 2}}));
    EXPECT_EQ(Value(Object{{"a", Array{true, "x"}}}), Value(Object{{"a", Array{true, "x"}}}));
}

TEST(JsonValue, DeepNestingCopiesComparesAndDestroys) {
    // Far deeper than any parser accepts: values built in code must still be safe.
    constexpr int depth = 10000;
    Value v("leaf");
    for (int i = 0; i < depth; ++i) {
        if (i % 2 == 0) {
            Array wrapper;
            wrapper.push_back(std::move(v));
            v = Value(std::move(wrapper));
        } else {
            Object wrapper;
            wrapper.emplace("k", std::move(v));
            v = Value(std::move(wrapper));
        }
    }
    Value copy = v;
    EXPECT_EQ(copy, v);
    const Value* leaf = &copy;
    for (int i = depth - 1; i >= 0; --i)
        leaf = i % 2 == 0 ? &leaf->get<Array>()[0] : &leaf->get<Object>().at("k");
    EXPECT_EQ(*leaf, Value("leaf"));
}
