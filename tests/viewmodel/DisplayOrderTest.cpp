// The view model's rows: every change of the names or their order goes through one place, and
// a rebuild that has been overtaken cannot put an older order back.

#include "viewmodel/DisplayOrder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace workspace_browser_startup;
using ::testing::ElementsAre;

namespace {

EventInfo event(EventType type, std::vector<std::string> names = {}) {
    return {type, std::move(names)};
}

} // namespace

TEST(DisplayOrder, ReplaceListsTheNamesByNameInEitherDirection) {
    DisplayOrder order;
    order.replace({"b", "a", "C"}, true);
    EXPECT_THAT(order.names(), ElementsAre("a", "b", "C"));
    EXPECT_EQ(order.nameSet().size(), 3U);
    order.replace({"b", "a", "C"}, false);
    EXPECT_THAT(order.names(), ElementsAre("C", "b", "a"));
    EXPECT_THAT(order.byName(true), ElementsAre("a", "b", "C"));
}

TEST(DisplayOrder, BatchesChangeTheSetAndOnlyAnEmptiedSetEmptiesTheListAtOnce) {
    DisplayOrder order;
    order.replace({"a", "b"}, true);
    auto effect = order.apply({event(EventType::VARIABLE_CHANGED, {"a"})});
    EXPECT_FALSE(effect.namesChanged) << "a changed value lists no new name";
    effect = order.apply(
        {event(EventType::VARIABLE_CHANGED, {"c"}), event(EventType::VARIABLE_DELETED, {"a"})});
    EXPECT_TRUE(effect.namesChanged);
    EXPECT_THAT(effect.deleted, ElementsAre("a"));
    EXPECT_THAT(order.byName(true), ElementsAre("b", "c"));
    EXPECT_THAT(order.names(), ElementsAre("a", "b")) << "the list waits for the caller's sort";

    const std::uint64_t before = order.order();
    effect = order.apply({event(EventType::WORKSPACE_CLEARED)});
    EXPECT_TRUE(effect.cleared);
    EXPECT_TRUE(order.names().empty());
    EXPECT_GT(order.order(), before);
}

TEST(DisplayOrder, AnOvertakenRebuildCannotPutAnOlderOrderBack) {
    DisplayOrder order;
    order.replace({"a", "b"}, true);
    const std::uint64_t first = order.beginRebuild();
    const std::uint64_t second = order.beginRebuild();
    EXPECT_FALSE(order.finishRebuild(first, {"b", "a"}));
    EXPECT_THAT(order.names(), ElementsAre("a", "b"));
    const std::uint64_t unchanged = order.order();
    EXPECT_TRUE(order.finishRebuild(second, {"a", "b"}));
    EXPECT_EQ(order.order(), unchanged) << "the same list is no new order";
    order.setNames({"b", "a"});
    EXPECT_GT(order.order(), unchanged);
    // A refresh is a rebuild too: an answer begun before it is dropped.
    const std::uint64_t beforeRefresh = order.beginRebuild();
    order.replace({"x"}, true);
    EXPECT_FALSE(order.finishRebuild(beforeRefresh, {"a"}));
    EXPECT_THAT(order.names(), ElementsAre("x"));
}

TEST(DisplayOrder, AFilterKeepsEveryNameInTheSetAndListsOnlyMatchesIgnoringCase) {
    DisplayOrder order;
    order.setFilter("Ab");
    order.replace({"xaby", "ABC", "b", "zzAB", "a\xC3\xA9"}, true);
    EXPECT_EQ(order.nameSet().size(), 5U);
    EXPECT_THAT(order.names(), ElementsAre("ABC", "xaby", "zzAB"));
    EXPECT_THAT(order.byName(false), ElementsAre("zzAB", "xaby", "ABC"));
    order.setFilter("\xC3\xA9"); // bytes beyond ASCII compare as they are
    EXPECT_THAT(order.byName(true), ElementsAre("a\xC3\xA9"));
    order.setFilter("");
    EXPECT_FALSE(order.filtered());
    EXPECT_EQ(order.byName(true).size(), 5U);
}
