// The workspace view model driven as a host and a client grid drive it.

#include "support/ScriptedHost.hpp"

#include <workspace_browser/viewmodel/VEAppViewModel.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

using namespace wsb_test;
using Message = GridClient::Message;

namespace {
constexpr auto kChanged = EventType::VARIABLE_CHANGED;
constexpr auto kDeleted = EventType::VARIABLE_DELETED;
} // namespace

TEST(WSViewModel, StartsFromTheModelsNamesAndHandsTheSelectionOverOnStartupServices) {
    ViewModelRig rig;
    rig.host.fire(batch(kChanged, {"b", "B", "a", "A", "ab"}));
    GridClient& client = rig.start();
    const auto sent = client.during([&] { client.paging(R"({"eventType":13})"); }, kSize);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].text, R"({"columnCount":4,"eventType":1,"rowCount":5,"source":"server"})");
    EXPECT_EQ(GridClient::column(client.page([&] { client.range(11, 0, 4); })),
              (Names{"a", "ab", "A", "b", "B"}));
    // Other desktop messages, readable or not, are ignored.
    for (const char* text :
         {R"({"type":"Other"})", R"({"noType":1})", R"({"type":"StartupServices"})"})
        rig.service->publishFromClient("/DesktopWSB", text);
    rig.vm->onPreShutdown();
    EXPECT_EQ(rig.host.calls(), Names{"select |"});
}

TEST(WSViewModel, ScrollingPublishesExactlyTheRequestedRowsFromACleanCache) {
    ViewModelRig rig;
    const Names names = numberedNames(1000);
    rig.host.fire(batch(kChanged, names));
    GridClient& client = rig.start();
    client.range(11, 0, 999); // fetches every row once
    client.flush();
    const std::size_t requests = rig.host.requests().size();

    const auto pages = client.during([&] { client.range(11, 100, 149); }, kPage);
    ASSERT_EQ(pages.size(), 1U);
    EXPECT_EQ(pages[0].number("rowCount"), 50);
    EXPECT_EQ(GridClient::column(pages[0]), Names(names.begin() + 100, names.begin() + 150));
    // Each cell is JSON text inside the page's JSON.
    EXPECT_EQ(client.page([&] { client.range(11, 3, 3); }).string("partialData"),
              R"([["{\"class\":\"\",\"editorValue\":\"v000003\",\"value\":\"v000003\"}",)"
              R"("{\"editable\":true,\"editorValue\":\"v000003\",\"isMetaData\":false,)"
              R"(\"value\":\"v:v000003\"}","{\"editable\":false,\"editorValue\":\"v000003\",)"
              "\\\"value\\\":\\\"1\u00D71\\\"}\","
              R"("{\"editable\":false,\"editorValue\":\"v000003\",\"value\":\"double\"}"]])");
    // Rows past the end are cut while the range travels back as asked; columns are cut too.
    const Message tail = client.page([&] { client.range(11, 998, 5000, 2, 3); });
    EXPECT_EQ(tail.number("endRow"), 5000);
    EXPECT_EQ(GridClient::column(tail, 0), (Names{"1\u00D71", "1\u00D71"}));
    EXPECT_EQ(GridClient::column(tail, 1), (Names{"double", "double"}));
    EXPECT_EQ(rig.host.requests().size(), requests) << "clean rows need no host";
}

TEST(WSViewModel, DirtyRowsArePublishedFromTheCacheThenAgainWhenTheHostAnswers) {
    ViewModelRig rig;
    rig.host.holdAnswers = true;
    rig.host.fire(batch(kChanged, {"a", "b", "c"}));
    GridClient& client = rig.start();
    EXPECT_EQ(GridClient::column(client.page([&] { client.range(11, 0, 2); }), 1),
              (Names{"", "", ""}));
    EXPECT_EQ(rig.host.requests().back().fields, (Names{"Class", "Name", "Size", "Value"}));
    EXPECT_EQ(GridClient::column(client.page([&] { rig.host.answerHeld(); }), 1),
              (Names{"v:a", "v:b", "v:c"}));

    // A changed variable is dirty again: only it is fetched, and the page goes out twice.
    rig.host.fire(batch(kChanged, {"b"}));
    client.flush();
    EXPECT_EQ(client.during([&] { client.range(11, 0, 2); }, kPage).size(), 1U);
    EXPECT_EQ(rig.host.requests().back().names, (Names{"b"}));
    EXPECT_EQ(client.during([&] { rig.host.answerHeld(); }, kPage).size(), 1U);
}

TEST(WSViewModel, SortsByNameAndByColumnsInBothDirections) {
    ViewModelRig rig;
    rig.visible = {"Name", "Value", "Size", "Class", "Mean"};
    const std::map<std::string, std::array<std::string, 3>> table = {
        {"a", {"10\u00D710", "double", "NaN"}},
        {"b", {"1\u00D71", "cell", "Inf"}},
        {"c", {"3\u00D74", "struct", "1.5"}},
        {"d", {"2\u00D72", "char", "-3"}},
        {"B", {"5\u00D75", "logical", "7"}}};
    rig.host.recordFor = [table](const std::string& name) {
        const auto& [size, className, mean] = table.at(name);
        return WSVariable{.name = name, .size = size, .className = className, .mean = mean};
    };
    rig.host.fire(batch(kChanged, {"a", "b", "c", "d", "B"}));
    GridClient& client = rig.start();
    client.range(10, 0, 4, 0, 4);

    const std::tuple<int, bool, Names> cases[] = {
        {2, true, {"b", "d", "c", "B", "a"}}, // 1, 4, 12, 25, 100 elements
        {2, false, {"a", "B", "c", "d", "b"}}, {4, true, {"a", "d", "c", "B", "b"}}, // NaN first
        {4, false, {"b", "B", "c", "d", "a"}}, {3, true, {"b", "d", "a", "B", "c"}},
        {3, false, {"c", "B", "a", "d", "b"}}, {0, false, {"d", "c", "B", "b", "a"}},
        {0, true, {"a", "b", "B", "c", "d"}}};
    for (const auto& [column, ascending, expected] : cases) {
        // Each sort sends the visible rows again, in the new order, as a resized table.
        const Message page = client.page([&] { client.sort(column, ascending); });
        EXPECT_TRUE(page.flag("sizeChanged"));
        EXPECT_EQ(GridClient::column(page), expected) << column << " " << ascending;
    }
    // Pages under a column sort are cut from the sorted rows; an unknown column changes nothing.
    client.sort(2, true);
    client.sort(9, true);
    EXPECT_EQ(GridClient::column(client.page([&] { client.range(11, 1, 2); })), (Names{"d", "c"}));

    // The exact numeric order, on request: full values, NaN last in both directions.
    rig.vm->setExactNumericOrder(true);
    EXPECT_EQ(GridClient::column(client.page([&] { client.sort(4, true); })),
              (Names{"d", "c", "B", "b", "a"}));
    EXPECT_EQ(GridClient::column(client.page([&] { client.sort(4, false); })),
              (Names{"b", "B", "c", "d", "a"}));
}

namespace {

using Sizes = std::map<std::string, std::string>;

// The host describes a, b, c and d with these sizes.
void sizedRecords(ViewModelRig& rig, Sizes sizes) {
    rig.host.recordFor = [sizes = std::move(sizes)](const std::string& name) {
        return WSVariable{.name = name, .size = sizes.at(name), .value = "v:" + name};
    };
}

// Four variables whose sizes order them b, d, c, a.
void sizedVariables(ViewModelRig& rig) {
    sizedRecords(rig, {{"a", "5\u00D71"}, {"b", "1\u00D71"}, {"c", "3\u00D71"}, {"d", "2\u00D71"}});
    rig.host.fire(batch(kChanged, {"a", "b", "c", "d"}));
}

// A page showing all four sized variables, sorted by Size ascending.
GridClient& startSortedBySize(ViewModelRig& rig) {
    sizedVariables(rig);
    GridClient& client = rig.start();
    client.range(10, 0, 3);
    client.sort(2, true);
    client.flush();
    return client;
}

void edit(GridClient& client, int row, int column, const std::string& text) {
    client.paging(R"({"eventType":12,"row":)" + std::to_string(row) + R"(,"column":)" +
                  std::to_string(column) + R"(,"data":")" + text + R"("})");
}

} // namespace

// Rows, sorts and edits count the columns the same way: the visible ones in display order,
// even when the host lists the visible columns in another order.
TEST(WSViewModel, SortsAndEditsCountColumnsAsThePagesShowThem) {
    ViewModelRig rig;
    rig.visible = {"Name", "Value", "Size"};
    rig.order = {"Name", "Size", "Class", "Value"};
    sizedVariables(rig);
    GridClient& client = rig.start();
    client.range(10, 0, 3, 0, 2);

    const Message page = client.page([&] { client.sort(1, true); });
    EXPECT_EQ(GridClient::column(page, 0), (Names{"b", "d", "c", "a"}));
    EXPECT_EQ(GridClient::column(page, 1), (Names{"1\u00D71", "2\u00D71", "3\u00D71", "5\u00D71"}));
    EXPECT_EQ(GridClient::column(page, 2), (Names{"v:b", "v:d", "v:c", "v:a"}));
    edit(client, 1, 3, "42"); // the Value column
    edit(client, 1, 2, "9");  // Size is not editable
    client.flush();
    EXPECT_EQ(rig.host.calls(), (Names{"edit b|42"}));
}

// After a refresh under a column sort, the names sent at once, the pages, edits and selections
// all use the same row order.
TEST(WSViewModel, RefreshUnderAColumnSortKeepsEachRowOnTheVariableItShows) {
    ViewModelRig rig;
    GridClient& client = startSortedBySize(rig);

    const auto pages = client.during(
        [&] {
            client.viewModel(R"({"type":"refresh","count":4,"immediateUpdate":true,)"
                             R"("variables":["a","b","c","d"]})");
        },
        kPage);
    ASSERT_GE(pages.size(), 2U);
    for (const Message& page : pages)
        EXPECT_EQ(GridClient::column(page), (Names{"b", "d", "c", "a"}));
    edit(client, 1, 2, "42");
    const auto selected = client.during(
        [&] {
            client.select({{0, 0}});
        },
        GridClient::is("type", "SelectedVariablesChanged"));
    ASSERT_EQ(selected.size(), 1U);
    EXPECT_EQ(selected[0].text, R"({"Variables":["b"],"type":"SelectedVariablesChanged"})");
    EXPECT_EQ(rig.host.calls().front(), "edit b|42");
}

// A host that answers a page after the rows were reordered does not bring the old order back.
TEST(WSViewModel, LatePagesOfAnOlderOrderGoOutInTheCurrentOrder) {
    ViewModelRig rig;
    rig.host.holdAnswers = true;
    rig.host.fire(batch(kChanged, {"a", "b", "c", "d", "e"}));
    GridClient& client = rig.start();
    client.range(10, 0, 4);
    client.range(11, 0, 4); // answered from the cache at once, by the host later
    client.sort(0, false);
    client.flush();

    const auto pages = client.during([&] { rig.host.answerHeld(1); }, kPage);
    ASSERT_FALSE(pages.empty());
    for (const Message& page : pages)
        EXPECT_EQ(GridClient::column(page), (Names{"e", "d", "c", "b", "a"}));
    EXPECT_EQ(GridClient::column(pages.back(), 1), (Names{"v:e", "v:d", "v:c", "v:b", "v:a"}));
    edit(client, 1, 2, "42");
    client.flush();
    EXPECT_EQ(rig.host.calls(), (Names{"edit e|42"}));
}

// Values that change under a column sort do not reorder the rows until the next sort; a late
// answer with the new values shows them on the rows the variables stand on.
TEST(WSViewModel, LateAnswersUnderAColumnSortKeepTheListedOrder) {
    ViewModelRig rig;
    GridClient& client = startSortedBySize(rig);

    // now a, d, c, b by size
    sizedRecords(rig, {{"a", "1\u00D71"}, {"b", "5\u00D71"}, {"c", "3\u00D71"}, {"d", "2\u00D71"}});
    rig.host.holdAnswers = true;
    rig.host.fire(batch(kChanged, {"a", "b", "c", "d"}));
    client.flush();
    const auto pages = client.during([&] { rig.host.answerHeld(); }, kPage);
    ASSERT_FALSE(pages.empty());
    EXPECT_EQ(GridClient::column(pages.back()), (Names{"b", "d", "c", "a"}));
    EXPECT_EQ(GridClient::column(pages.back(), 2),
              (Names{"5\u00D71", "2\u00D71", "3\u00D71", "1\u00D71"}));
    edit(client, 1, 2, "42");
    client.flush();
    EXPECT_EQ(rig.host.calls(), (Names{"edit b|42"}));
}

TEST(WSViewModel, RenamesAndValueEditsReachTheHost) {
    ViewModelRig rig;
    rig.host.fire(batch(kChanged, {"a", "b", "c"}));
    GridClient& client = rig.start();
    auto edit = [&](int row, int column, const std::string& text) {
        client.paging(R"({"eventType":12,"row":)" + std::to_string(row) + R"(,"column":)" +
                      std::to_string(column) + R"(,"data":")" + text + R"("})");
    };
    // Rows and columns count from 1: row 2 is b, column 1 the name and column 2 the value. Other
    // columns are not editable; rows and columns outside the lists are refused.
    const auto sent = client.during(
        [&] {
            edit(2, 1, "bb");
            edit(3, 2, "42");
            for (const auto& [row, column] :
                 std::vector<std::pair<int, int>>{{1, 3}, {0, 1}, {4, 1}, {1, 14}})
                edit(row, column, "x");
        },
        GridClient::is("type", "SelectedVariablesChanged"));
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].text, R"({"Variables":["bb"],"type":"SelectedVariablesChanged"})");
    EXPECT_EQ(rig.host.calls(), (Names{"rename b|bb", "edit c|42"}));
}

TEST(WSViewModel, RefreshReplacesTheNamesAndFetchesTheViewportWithAMargin) {
    ViewModelRig rig;
    GridClient& client = rig.start();
    EXPECT_EQ(client.page([&] { client.range(11, 0, 10); }).string("partialData"), "[]");
    EXPECT_TRUE(rig.host.requests().empty()) << "an empty workspace needs no host";

    const Names names = numberedNames(1000);
    auto refresh = [&](const Names& list, bool immediate) {
        std::string json;
        for (const auto& name : list)
            json += (json.empty() ? "\"" : ",\"") + name + "\"";
        client.viewModel(R"({"type":"refresh","count":)" + std::to_string(list.size()) +
                         R"(,"immediateUpdate":)" + (immediate ? "true" : "false") +
                         R"(,"variables":[)" + json + "]}");
    };
    const auto sent = client.during([&] { refresh(Names(names.rbegin(), names.rend()), true); },
                                    [](const Message& m) { return kSize(m) || kPage(m); });
    ASSERT_EQ(sent.size(), 4U); // size, all names, then the fetched rows twice
    EXPECT_EQ(sent[0].text, R"({"columnCount":4,"eventType":1,"rowCount":1000,"source":"server"})");
    EXPECT_EQ(GridClient::column(sent[1]), names);
    EXPECT_EQ(sent[3].number("endRow"), 200);
    EXPECT_EQ(sent[3].number("fullEndRow"), 999);
    EXPECT_TRUE(sent[3].flag("sizeChanged"));
    EXPECT_EQ(rig.host.requests().back().names, Names(names.begin(), names.begin() + 201));

    // From a viewport, 200 rows beyond its end; forced, so cached rows are fetched again.
    client.range(10, 500, 520);
    for (int round = 0; round < 2; ++round) {
        const Message page = client.page([&] { refresh(names, false); });
        EXPECT_EQ(page.number("startRow"), 500);
        EXPECT_EQ(page.number("endRow"), 720);
        EXPECT_EQ(rig.host.requests().back().names,
                  Names(names.begin() + 500, names.begin() + 721));
    }
    EXPECT_EQ(rig.host.requests().size(), 3U);
}

TEST(WSViewModel, WorkspaceBatchesUpdateRowsCountAndSelection) {
    ViewModelRig rig;
    rig.host.fire(batch(kChanged, {"a", "b", "c", "d", "e"}));
    GridClient& client = rig.start();
    client.range(10, 1, 4);

    // New values, same names: the visible rows again, same size, no count for the host.
    Message page = client.page([&] {
        rig.host.fire(batch(kChanged, {"c"}));
        rig.host.fire(batch(EventType::VARIABLE_ADDED, {"f"})); // left to the changed kind
    });
    EXPECT_FALSE(page.flag("sizeChanged"));
    EXPECT_EQ(GridClient::column(page), (Names{"b", "c", "d", "e"}));

    // Deleting shrinks the table; the viewport is clamped to the rows left.
    page = client.page([&] { rig.host.fire(batch(kDeleted, {"a", "d", "x"})); });
    EXPECT_TRUE(page.flag("sizeChanged"));
    EXPECT_EQ(std::vector<double>(
                  {page.number("startRow"), page.number("endRow"), page.number("fullEndRow")}),
              std::vector<double>({1, 2, 2}));
    EXPECT_EQ(GridClient::column(page), (Names{"c", "e"}));

    // Clearing empties the table and the selection; kinds in one batch apply in order.
    client.select({{0, 1}});
    const auto cleared = client.during([&] { rig.host.fire(batch(EventType::WORKSPACE_CLEARED)); },
                                       GridClient::is("type", "SelectedVariablesChanged"));
    ASSERT_EQ(cleared.size(), 1U);
    EXPECT_EQ(cleared[0].text, R"({"Variables":[],"type":"SelectedVariablesChanged"})");
    page = client.page([&] {
        rig.host.fire({EventInfo{kChanged, {"x", "y", "z"}}, EventInfo{kDeleted, {"y"}}});
    });
    EXPECT_EQ(GridClient::column(page), (Names{"z"}));
    EXPECT_EQ(rig.host.calls(), (Names{"count 3", "select b,c|0, 1", "count 0", "count 2"}));
}

TEST(WSViewModel, AFilterNarrowsTheListAndItsUpdatesUntilCleared) {
    ViewModelRig rig;
    rig.host.fire(batch(kChanged, {"alpha", "Beta", "abc", "cab", "delta"}));
    GridClient& client = rig.start();
    client.range(10, 0, 9);
    const auto isSize = GridClient::is("eventType", 1);

    // Names containing "b" in any case, in name order; the size is the list's.
    std::size_t sizes = client.count();
    Message page = client.page([&] { rig.vm->setFilter("B"); });
    EXPECT_EQ(GridClient::column(page), (Names{"abc", "Beta", "cab"}));
    EXPECT_EQ(client.waitFor(isSize, sizes).number("rowCount"), 3);
    sizes = client.count();
    client.paging(R"({"eventType":13})");
    EXPECT_EQ(client.waitFor(isSize, sizes).number("rowCount"), 3) << "asked, too";

    // Variables that come and go while filtered: only matches enter the list.
    page = client.page([&] { rig.host.fire(batch(kChanged, {"bb", "zzz"})); });
    EXPECT_TRUE(page.flag("sizeChanged"));
    EXPECT_EQ(GridClient::column(page), (Names{"abc", "bb", "Beta", "cab"}));
    page = client.page([&] { rig.host.fire(batch(kDeleted, {"abc"})); });
    EXPECT_EQ(GridClient::column(page), (Names{"bb", "Beta", "cab"}));

    sizes = client.count();
    page = client.page([&] { rig.vm->setFilter(""); });
    EXPECT_EQ(GridClient::column(page), (Names{"alpha", "bb", "Beta", "cab", "delta", "zzz"}));
    EXPECT_EQ(client.waitFor(isSize, sizes).number("rowCount"), 6);
}

TEST(WSViewModel, ColumnSortsStopAboveTenThousandVariables) {
    ViewModelRig rig;
    rig.host.recordFor = [](const std::string& name) { // v000000 largest, v010000 smallest
        return WSVariable{.name = name,
                          .size = std::to_string(10001 - std::stoi(name.substr(1))) + "\u00D71"};
    };
    const Names names = numberedNames(10001);
    rig.host.fire(batch(kChanged, Names(names.begin(), names.end() - 2)));
    GridClient& client = rig.start();
    client.sort(2, false);

    // The sortable flags of the columns a batch republishes, if it does.
    auto sortableAfter = [&](EventType type, const std::string& name) {
        std::vector<bool> flags;
        for (const auto& m : client.during([&] { rig.host.fire(batch(type, {name})); },
                                           GridClient::is("eventType", 4)))
            for (const auto& column : m.json.at("properties").get<foundation::json::Array>())
                flags.push_back(column.get<Object>().at("IsSortable").get<bool>());
        return flags;
    };
    EXPECT_TRUE(sortableAfter(kChanged, names[9999]).empty()) << "10000";
    EXPECT_EQ(sortableAfter(kChanged, names[10000]),
              (std::vector<bool>{true, false, false, false}));
    // The column sort fell back to the name.
    EXPECT_EQ(GridClient::column(client.page([&] { client.range(11, 0, 1); })),
              (Names{"v000000", "v000001"}));
    // Asked for anyway, a column sort falls back to the name, then and with later batches.
    EXPECT_EQ(GridClient::column(client.page([&] {
                  client.sort(2, true);
                  rig.host.fire(batch(kChanged, {names[3]}));
              })),
              (Names{"v000000"}));
    EXPECT_EQ(sortableAfter(kDeleted, names[10000]), (std::vector<bool>{true, false, true, true}));

    EXPECT_EQ(rig.host.calls(), (Names{"count 10000", "count 10001", "count 10000"}));
}

TEST(WSViewModel, ShutdownFinishesQueuedWorkAndIgnoresEverythingAfter) {
    ViewModelRig rig;
    rig.host.holdAnswers = true;
    rig.host.fire(batch(kChanged, {"a", "b", "c"}));
    GridClient& client = rig.start();

    // In flight: a page waiting for the host, then a batch and a page still queued.
    client.range(11, 0, 2);
    client.flush();
    rig.host.fire(batch(kChanged, {"d"}));
    client.range(11, 0, 3);
    rig.vm->onPreShutdown();
    rig.vm->onPreShutdown(); // does nothing the second time
    EXPECT_EQ(rig.host.calls(), Names{"count 4"}) << "the queued batch ran";

    // Batches and requests after shutdown publish nothing, on either channel.
    const std::size_t before = client.count();
    rig.host.fire(batch(kChanged, {"e"}));
    client.range(11, 0, 1);
    client.sort(0, false);
    client.select({{0, 1}});
    client.viewModel(R"({"type":"propertySet","propertyName":"GridSize"})");
    client.viewModel(R"({"type":"refresh","count":1,"immediateUpdate":true,"variables":"x"})");
    EXPECT_EQ(client.count(), before);

    // Late host answers are published while the view model exists and dropped after. The
    // oldest belongs to the order before the queued batch: it is not published in either.
    rig.host.answerHeld(1);
    EXPECT_EQ(client.count(), before);
    rig.host.answerHeld(1);
    EXPECT_GT(client.count(), before);
    rig.vm.reset();
    const std::size_t afterDestruction = client.count();
    rig.host.answerHeld();
    EXPECT_EQ(client.count(), afterDestruction);

    // A view model destroyed without the pre-shutdown call still runs its counted batches.
    rig.host.holdAnswers = false;
    auto vm = rig.make("/Other");
    rig.host.fire(batch(kChanged, {"f"}));
    vm.reset();
    rig.host.fire(batch(kChanged, {"g"}));
    EXPECT_EQ(rig.host.calls(), (Names{"count 4", "count 6"}));
}

// Two view models share one data model; three clients scroll, sort and select at once while the
// host changes the workspace and answers on its own thread. Run under ThreadSanitizer.
TEST(WSViewModel, TwoViewModelsServeClientsConcurrentlyWithAHostThread) {
    ViewModelRig rig;
    rig.host.holdAnswers = true;
    const Names initial = numberedNames(300);
    rig.host.fire(batch(kChanged, initial));
    rig.start("/Grid/One");
    auto second = rig.make("/Grid/Two");
    // The embedding application follows the same stream through an app view model.
    std::mutex noticeMutex;
    std::condition_variable noticed;
    std::vector<Names> notices;
    VEAppViewModel app(rig.service, "/App", rig.model, [&](Names notice) {
        std::lock_guard<std::mutex> lock(noticeMutex);
        notices.push_back(std::move(notice));
        noticed.notify_all();
    });
    std::vector<std::unique_ptr<GridClient>> clients;
    for (const char* id : {"/Grid/One", "/Grid/Two", "/Grid/One"})
        clients.push_back(std::make_unique<GridClient>(rig.service, id));

    std::atomic<int> running{3};
    std::vector<std::thread> threads;
    for (int c = 0; c < 3; ++c) {
        threads.emplace_back([&, c] {
            GridClient& client = *clients[static_cast<std::size_t>(c)];
            for (int i = 0; i < 60; ++i) {
                const int start = (i * 37 + c * 11) % 250;
                client.range(10, start, start + 20);
                client.range(11, start, start + 20);
                if (i % 10 == 3)
                    client.sort(i % 20 == 3 ? 2 : 0, i % 20 == 3);
                if (i % 7 == 0)
                    client.select({{start, start + 2}});
            }
            --running;
        });
    }
    threads.emplace_back([&] {
        for (std::size_t i = 0; i < 30; ++i) {
            rig.host.fire(batch(kChanged, {"w" + std::to_string(i)}));
            if (i % 3 == 0)
                rig.host.fire(batch(kDeleted, {initial[250 + i]}));
            rig.host.answerHeld();
        }
        while (running > 0)
            rig.host.answerHeld();
    });
    for (auto& thread : threads)
        thread.join();

    // Every batch reached the app view model once, in the order the host raised them.
    rig.host.fire(batch(kChanged, {"zz_marker"}));
    std::vector<Names> expectedNotices;
    for (std::size_t i = 0; i < 30; ++i) {
        expectedNotices.push_back({"VARIABLE_ADDED", "w" + std::to_string(i)});
        if (i % 3 == 0)
            expectedNotices.push_back({"VARIABLE_DELETED", initial[250 + i]});
    }
    expectedNotices.push_back({"VARIABLE_ADDED", "zz_marker"});
    {
        std::unique_lock<std::mutex> lock(noticeMutex);
        noticed.wait_for(lock, std::chrono::seconds(60),
                         [&] { return notices.size() >= expectedNotices.size(); });
        EXPECT_EQ(notices, expectedNotices);
    }
    app.onPreShutdown();

    // Both grids now show the data model's names in name order.
    Names expected = rig.model->getVariableNames();
    std::sort(expected.begin(), expected.end(), TextAlphabeticalSortComparator{true});
    for (std::size_t v = 0; v < 2; ++v) {
        clients[v]->sort(0, true);
        clients[v]->flush();
        rig.host.answerHeld(); // late answers to earlier pages publish no more
        clients[v]->flush();
        const auto pages = clients[v]->during(
            [&] { clients[v]->range(11, 0, static_cast<int>(expected.size()) - 1); }, kPage);
        ASSERT_FALSE(pages.empty());
        EXPECT_EQ(GridClient::column(pages.front()), expected) << "grid " << v;
    }
    second->onPreShutdown();
}
