#include <workspace_browser/platform/json/Value.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>

using namespace foundation::json;
using Kind = Value::Kind;

namespace {
const std::string kArrayName = "std::vector<foundation::json::Value>";
const std::string kObjectName = "std::map<std::string, foundation::json::Value>";

std::string conversionError(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no exception";
}
} // namespace

TEST(JsonValue, EachKindHasItsNameAndWrongKindAccessNamesBoth) {
    const struct {
        Value value;
        Kind kind;
        std::string name;
    } cases[] = {
        {Value(nullptr), Kind::Null, "foundation::json::Null"},
        {Value(static_cast<const char*>(nullptr)), Kind::Null, "foundation::json::Null"},
        {Value(true), Kind::Boolean, "bool"},
        // Plain integers travel as doubles.
        {Value(5), Kind::Double, "double"},
        {Value(5u), Kind::Double, "double"},
        {Value(2.5f), Kind::Float, "float"},
        {Value(5L), Kind::Long, "long"},
        {Value(std::size_t{5}), Kind::UnsignedLong, "unsigned long"},
        {Value(std::string_view("text")), Kind::String, "std::string"},
        {Value(Array{1, 2}), Kind::Array, kArrayName},
    };
    for (auto c : cases) {
        EXPECT_EQ(c.value.kind(), c.kind) << c.name;
        // Subscript makes an undefined value an object, but refuses every other kind.
        EXPECT_EQ(conversionError([&] { c.value["k"]; }),
                  "invalid conversion: " + c.name + " to " + kObjectName);
    }
    EXPECT_EQ(conversionError([] { (void)Value().get<bool>(); }),
              "invalid conversion: foundation::json::Undefined to bool");
    EXPECT_EQ(conversionError([] { (void)Value(Object{}).get<Array>(); }),
              "invalid conversion: " + kObjectName + " to " + kArrayName);
    Value null(Null{});
    EXPECT_EQ(conversionError([&] { (void)null.get<unsigned long>(); }),
              "invalid conversion: foundation::json::Null to unsigned long");
    EXPECT_TRUE(null.is<Null>()) << "a failed get leaves the value alone";
}

TEST(JsonValue, SubscriptCreatesMembersAndGetGivesWritableAccess) {
    Value v;
    EXPECT_TRUE(v["b"].is<Undefined>());
    v["a"]["x"] = 1;
    v["a"]["y"] = "z";
    EXPECT_EQ(v["a"]["x"], Value(1)) << "reading an existing member does not change it";
    EXPECT_EQ(v, Value(Object{{"a", Object{{"x", 1}, {"y", "z"}}}, {"b", Value()}}));
    v["a"].get<Object>().erase("y");
    EXPECT_EQ(v["a"], Value(Object{{"x", 1}}));
}

TEST(JsonValue, CopiesAreDeepMovesLeaveUndefinedAndSelfAssignmentIsSafe) {
    Value original(Object{{"list", Array{1, "two", Object{{"k", 3L}}}}, {"s", "text"}});
    Value copy = original;
    copy["list"].get<Array>()[2]["k"] = 4L;
    EXPECT_EQ(original["list"].get<Array>()[2]["k"], Value(3L));

    for (Value v :
         {Value("a long string that does not fit in the small buffer"), Value(Object{{"a", 1}})}) {
        Value target("old");
        const Value expected = v;
        target = std::move(v);
        EXPECT_EQ(target, expected);
        EXPECT_TRUE(v.is<Undefined>()); // NOLINT(bugprone-use-after-move)
    }

    // Assigning a part of a value to the value itself.
    Value v(Object{{"inner", Object{{"leaf", Array{"x", "y"}}}}});
    v = v["inner"];
    EXPECT_EQ(v, Value(Object{{"leaf", Array{"x", "y"}}}));
    v = std::move(v["leaf"]);
    v = std::move(v.get<Array>()[1]);
    Value& self = v;
    v = self;
    v = std::move(self);
    EXPECT_EQ(v, Value("y"));
}

TEST(JsonValue, EqualityNeedsTheSameKindAndPayload) {
    EXPECT_EQ(Value(Null{}), Value(nullptr));
    EXPECT_NE(Value(), Value(Null{}));
    EXPECT_NE(Value(1L), Value(1UL));
    EXPECT_NE(Value(std::nan("")), Value(std::nan("")));
    EXPECT_NE(Value(Object{{"a", 1}}), Value(Object{{"b", 1}}));
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
