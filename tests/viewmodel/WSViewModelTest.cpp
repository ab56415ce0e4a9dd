// The workspace view model driven from outside, as a host and a client grid drive it: JSON on
// the in-process message service, workspace events and fetch answers from a scripted host.

#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "support/LogCapture.hpp"
#include "support/ScriptedHost.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace wsb_test;
using workspace_browser_startup::TextAlphabeticalSortComparator;
using workspace_browser_startup::WSViewModel;

namespace {

const std::string kLogger = "zentra::datatools::WSViewModel";
const std::string kTimes = "\xC3\x97"; // the multiplication sign of displayed sizes

bool hasPrefix(const std::vector<std::string>& lines, const std::string& prefix) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
}

std::size_t countOf(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
}

// Host records whose size, class and mean differ per variable, for sorting by columns.
struct Sized {
    std::string size;
    std::string className;
    std::string mean;
};
std::function<WSVariable(const std::string&)> sizedRecords(std::map<std::string, Sized> table) {
    return [table](const std::string& name) {
        const Sized& s = table.at(name);
        return WSVariable{.name = name,
                          .size = s.size,
                          .className = s.className,
                          .value = "v:" + name,
                          .iconClass = s.className,
                          .mean = s.mean};
    };
}

} // namespace

TEST(WSViewModel, StartsFromTheDataModelsNamesAndAnswersSizeAndDesktopMessages) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"b", "B", "a", "A", "ab"}));
    LogCapture log(kLogger);
    rig.start();

    GridClient& client = *rig.client;
    client.getSize(); // answered at once, on the delivering thread
    const auto size = client.waitFor(GridClient::isSize());
    EXPECT_EQ(size.number("rowCount"), 5);
    EXPECT_EQ(size.number("columnCount"), 4);

    client.getData(0, 4);
    // The cache only knows the names, so the first page has them alone; the second follows
    // the host's answer.
    const std::size_t first = client.indexAfter(GridClient::isPage());
    EXPECT_EQ(GridClient::column(client.messages()[first - 1]), (Names{"a", "ab", "A", "b", "B"}));
    const auto second = client.waitFor(GridClient::isPage(), first);
    EXPECT_EQ(GridClient::column(second, 1), (Names{"v:a", "v:ab", "v:A", "v:b", "v:B"}));

    // Desktop messages: only "StartupServices" reaches the host, with the (empty) selection.
    rig.service->publishFromClient("/DesktopWSB", R"({"type":"SomethingElse"})");
    rig.service->publishFromClient("/DesktopWSB", R"({"noType":1})");
    rig.service->publishFromClient("/DesktopWSB", R"({"type":"StartupServices"})");
    ASSERT_TRUE(rig.host.waitUntil([&] { return !rig.host.selections.empty(); }));
    rig.vm->onPreShutdown();
    EXPECT_EQ(rig.host.selections.size(), 1U);
    EXPECT_TRUE(rig.host.selections[0].names.empty());
    EXPECT_EQ(rig.host.selections[0].rows, "");

    const auto lines = log.texts();
    EXPECT_TRUE(log.contains("Initial update of mVariablesNames done. size=5"));
    EXPECT_EQ(countOf(lines, "WSViewModel message recieved on /DesktopWSB channel"), 3U);
    EXPECT_TRUE(log.contains("Handling StartupServices, rows: "));
    EXPECT_TRUE(hasPrefix(lines, "Caught a standard exception: invalid conversion"));
}

TEST(WSViewModel, ConstructionFailsCleanlyWithoutADesktopSubscription) {
    // A service that cannot subscribe to the desktop channel.
    struct NoDesktop : connector::message_service::LocalMessageService {
        connector::message_service::Future<
            std::shared_ptr<connector::message_service::Subscription>>
        subscribe(const std::string& channel, Callback callback) override {
            if (channel == "/DesktopWSB")
                return {};
            return LocalMessageService::subscribe(channel, std::move(callback));
        }
    };
    ScriptedHost host;
    auto model = host.makeModel();
    auto service = std::make_shared<NoDesktop>();
    const auto make = [&] {
        WSViewModel vm(service, "/Test/Grid", model, u16({"Name"}), u16({"Name"}), {80.0}, false, 0,
                       host.renameCallback(), host.editValueCallback(), host.selectionCallback(),
                       host.countCallback());
    };
    try {
        make();
        ADD_FAILURE() << "construction succeeded";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Future state isn't valid!");
    }
    // The half-built view model unsubscribed from the data model as it unwound.
    host.fire(batch(EventType::VARIABLE_CHANGED, {"x"}));
    EXPECT_TRUE(host.counts.empty());

    EXPECT_THROW(WSViewModel(service, "/T", nullptr, {}, {}, {}, false, 0, nullptr, nullptr,
                             nullptr, nullptr),
                 std::invalid_argument);
}

TEST(WSViewModel, ScrollingPublishesTheRequestedRowsAsClientRecords) {
    ViewModelRig rig;
    const Names names = numberedNames(1000);
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, names));
    LogCapture log(kLogger);
    rig.start();
    GridClient& client = *rig.client;
    // The viewport is clamped to the list, its columns too.
    client.setViewport(990, 5000, -4, 7);
    EXPECT_TRUE(log.contains("Viewport Range startRow=990 endRow=1000 startCol=0 endColumn=7"));

    // Fetch everything once so that the later pages come from a clean cache, once each.
    client.getData(0, 999);
    client.waitFor([](const GridClient::Message& m) {
        return GridClient::isPage()(m) && GridClient::column(m, 1).front() == "v:v000000";
    });
    const std::size_t requestsBefore = rig.host.requests().size();

    client.setViewport(100, 149);
    std::size_t from = client.count();
    client.getData(100, 149);
    auto page = client.waitFor(GridClient::isPage(), from);
    EXPECT_EQ(page.number("startRow"), 100);
    EXPECT_EQ(page.number("endRow"), 149);
    EXPECT_EQ(page.number("rowCount"), 50);
    EXPECT_FALSE(page.json.at("sizeChanged").get<bool>());
    const auto rows = GridClient::rows(page);
    ASSERT_EQ(rows.size(), 50U);
    EXPECT_EQ(GridClient::column(page), Names(names.begin() + 100, names.begin() + 150));
    // Every cell is the JSON text of its object, in the order of the column keys.
    ASSERT_EQ(rows[0].size(), 4U);
    using foundation::json::Value;
    EXPECT_EQ(rows[0][0], (GridClient::Cell{{"class", Value("double")},
                                            {"editorValue", Value("v000100")},
                                            {"value", Value("v000100")}}));
    EXPECT_EQ(rows[0][1], (GridClient::Cell{{"editable", Value(true)},
                                            {"editorValue", Value("v000100")},
                                            {"isMetaData", Value(false)},
                                            {"value", Value("v:v000100")}}));
    EXPECT_EQ(rows[0][2], (GridClient::Cell{{"editable", Value(false)},
                                            {"editorValue", Value("v000100")},
                                            {"value", Value("1" + kTimes + "1")}}));
    EXPECT_EQ(rows[0][3], (GridClient::Cell{{"editable", Value(false)},
                                            {"editorValue", Value("v000100")},
                                            {"value", Value("double")}}));

    // A column range cuts the cells; the page text is JSON inside JSON, exactly so.
    from = client.count();
    client.getData(3, 3, 0, 0);
    page = client.waitFor(GridClient::isPage(), from);
    EXPECT_EQ(page.string("partialData"),
              R"([["{\"class\":\"double\",\"editorValue\":\"v000003\",\"value\":\"v000003\"}"]])");
    from = client.count();
    client.getData(998, 5000, 2, 3);
    page = client.waitFor(GridClient::isPage(), from);
    EXPECT_EQ(page.number("endRow"), 5000) << "the request's range travels back unchanged";
    ASSERT_EQ(GridClient::rows(page).size(), 2U) << "rows beyond the list are cut";
    EXPECT_EQ(GridClient::rows(page)[1].size(), 2U);
    EXPECT_EQ(GridClient::column(page, 1), (Names{"double", "double"}));

    client.flush();
    EXPECT_EQ(rig.host.requests().size(), requestsBefore) << "clean rows need no host";
}

TEST(WSViewModel, AnEmptyWorkspaceAsksTheHostForNothing) {
    ViewModelRig rig;
    rig.start();
    rig.client->getData(0, 10);
    const auto page = rig.client->waitFor(GridClient::isPage());
    EXPECT_EQ(page.string("partialData"), "[]");
    rig.vm->onPreShutdown();
    EXPECT_TRUE(rig.host.requests().empty());
}

TEST(WSViewModel, DirtyRowsArePublishedFromTheCacheThenAgainWhenTheHostAnswers) {
    ViewModelRig rig;
    rig.host.answer = ScriptedHost::Answer::Later;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c"}));
    rig.start();
    GridClient& client = *rig.client;

    client.getData(0, 2);
    const std::size_t first = client.indexAfter(GridClient::isPage());
    EXPECT_EQ(GridClient::column(client.messages()[first - 1], 1), (Names{"", "", ""}))
        << "the cache knows only the names";
    ASSERT_TRUE(rig.host.waitForHeld(1));
    EXPECT_EQ(rig.host.requests().back().names, (Names{"a", "b", "c"}));
    EXPECT_EQ(rig.host.requests().back().fields, (Names{"Class", "Name", "Size", "Value"}));

    rig.host.answerHeldFromHostThread();
    const auto second = client.waitFor(GridClient::isPage(), first);
    EXPECT_EQ(GridClient::column(second, 1), (Names{"v:a", "v:b", "v:c"}));

    // Changed variables are dirty again: their rows go out twice again; clean ones once.
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"b"}));
    client.flush();
    const std::size_t from = client.count();
    client.getData(0, 2);
    client.flush();
    auto countPages = [&] {
        const auto all = client.messages();
        return std::count_if(all.begin() + static_cast<std::ptrdiff_t>(from), all.end(),
                             GridClient::isPage());
    };
    EXPECT_EQ(countPages(), 1);
    EXPECT_EQ(rig.host.heldAnswers(), 1U) << "only b is fetched";
    EXPECT_EQ(rig.host.requests().back().names, (Names{"b"}));
    rig.host.answerHeld();
    EXPECT_EQ(countPages(), 2);
}

TEST(WSViewModel, SortsByNameAndByColumnsInBothDirections) {
    ViewModelRig rig;
    rig.visible = {"Name", "Value", "Size", "Class", "Mean"};
    rig.host.recordFor = sizedRecords({{"a", {"10" + kTimes + "10", "double", "NaN"}},
                                       {"b", {"1" + kTimes + "1", "cell", "Inf"}},
                                       {"c", {"3" + kTimes + "4", "struct", "1.5"}},
                                       {"d", {"2" + kTimes + "2", "char", "-3"}},
                                       {"B", {"5" + kTimes + "5", "logical", "7"}}});
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c", "d", "B"}));
    LogCapture log(kLogger);
    rig.start();
    GridClient& client = *rig.client;
    client.setViewport(0, 4, 0, 4);

    // After each sort the visible rows come again, in the new order, as a resized table.
    auto sortedNames = [&](int column, bool ascending) {
        const std::size_t from = client.count();
        client.sort(column, ascending);
        client.flush();
        // The last page of the sort is the one with the host's records.
        GridClient::Message last;
        const auto all = client.messages();
        for (std::size_t i = from; i < all.size(); ++i) {
            if (GridClient::isPage()(all[i]))
                last = all[i];
        }
        EXPECT_TRUE(last.json.at("sizeChanged").get<bool>());
        EXPECT_EQ(last.number("fullEndRow"), 4);
        return GridClient::column(last);
    };
    EXPECT_EQ(sortedNames(2, true), (Names{"b", "d", "c", "B", "a"})); // 1, 4, 12, 25, 100
    EXPECT_EQ(sortedNames(2, false), (Names{"a", "B", "c", "d", "b"}));
    EXPECT_EQ(sortedNames(4, true), (Names{"a", "d", "c", "B", "b"})); // NaN, -3, 1, 7, Inf
    EXPECT_EQ(sortedNames(4, false), (Names{"b", "B", "c", "d", "a"}));
    EXPECT_EQ(sortedNames(3, true), (Names{"b", "d", "a", "B", "c"})); // by class text
    EXPECT_EQ(sortedNames(0, false), (Names{"d", "c", "B", "b", "a"}));
    EXPECT_EQ(sortedNames(0, true), (Names{"a", "b", "B", "c", "d"}));

    // Pages requested under a column sort are cut from the sorted rows.
    sortedNames(2, true);
    std::size_t from = client.count();
    client.getData(1, 2);
    EXPECT_EQ(GridClient::column(client.waitFor(GridClient::isPage(), from)), (Names{"d", "c"}));

    // A column the grid does not have is refused; the sort stays as it was.
    client.sort(9, true);
    from = client.count();
    client.getData(0, 1);
    EXPECT_EQ(GridClient::column(client.waitFor(GridClient::isPage(), from)), (Names{"b", "d"}));

    rig.vm->onPreShutdown();
    EXPECT_TRUE(log.contains("handleSortChanged sortColumn: 2 sortAscending: 1"));
    EXPECT_TRUE(log.contains("handleSortChanged sortColumn: 0 sortAscending: 0"));
    EXPECT_TRUE(log.contains("Sort Column: Mean"));
    EXPECT_TRUE(log.contains("Sorting by: Size"));
}

TEST(WSViewModel, RenamesAndValueEditsReachTheHost) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c"}));
    LogCapture log(kLogger);
    rig.start();
    GridClient& client = *rig.client;

    // Rows and columns of edits count from 1; column 1 is the name, column 2 the value.
    client.setData(2, 1, "bb");
    EXPECT_EQ(rig.host.renames, (std::vector<std::pair<std::string, std::string>>{{"b", "bb"}}));
    const auto selected = client.waitFor(GridClient::isType("SelectedVariablesChanged"));
    EXPECT_EQ(selected.text, R"({"Variables":["bb"],"type":"SelectedVariablesChanged"})");

    client.setData(3, 2, "42");
    EXPECT_EQ(rig.host.edits, (std::vector<std::pair<std::string, std::string>>{{"c", "42"}}));

    // Other columns are not editable; rows outside the list (row 0 included) are refused.
    client.setData(1, 3, "x");
    client.setData(0, 1, "zz");
    client.setData(4, 1, "q");
    client.setData(1, 14, "q");
    EXPECT_EQ(rig.host.renames.size(), 1U);
    EXPECT_EQ(rig.host.edits.size(), 1U);

    EXPECT_TRUE(log.contains("handleClientSetData row:2 column:1"));
    EXPECT_TRUE(log.contains("Rename: b to: bb"));
    EXPECT_TRUE(log.contains("Edit value: c to: 42"));
}

TEST(WSViewModel, RefreshReplacesTheNamesAndFetchesTheViewportWithAMargin) {
    ViewModelRig rig;
    rig.start();
    GridClient& client = *rig.client;
    const Names names = numberedNames(1000);
    Names shuffled(names.rbegin(), names.rend());

    client.refresh(shuffled, true);
    const std::size_t afterSize = client.indexAfter(GridClient::isSize());
    const auto size = client.messages()[afterSize - 1];
    EXPECT_EQ(size.number("rowCount"), 1000);
    EXPECT_EQ(size.number("columnCount"), 4);
    // All names at once, in display order, with a stand-by icon until the data arrive.
    const auto names1 = client.waitFor(GridClient::isPage(), afterSize);
    EXPECT_EQ(GridClient::column(names1), names);
    EXPECT_EQ(GridClient::rows(names1)[0][0].at("class").get<std::string>(), "double");
    // Then the first rows plus the margin, fetched even though they are not cached yet.
    const auto fetched = client.waitFor(
        [](const GridClient::Message& m) {
            return GridClient::isPage()(m) && m.number("rowCount") == 201 &&
                   GridClient::column(m, 1).front() == "v:v000000";
        },
        afterSize);
    EXPECT_TRUE(fetched.json.at("sizeChanged").get<bool>());
    EXPECT_EQ(fetched.number("fullEndRow"), 999);
    EXPECT_EQ(rig.host.requests().back().names, Names(names.begin(), names.begin() + 201));

    // With a viewport the fetch starts there; no name list without the immediate flag.
    client.setViewport(500, 520);
    std::size_t from = client.count();
    client.refresh(names, false);
    const auto page = client.waitFor(GridClient::isPage(), from);
    EXPECT_EQ(page.number("startRow"), 500);
    EXPECT_EQ(page.number("endRow"), 720);
    client.flush();
    EXPECT_EQ(rig.host.requests().back().names, Names(names.begin() + 500, names.begin() + 721));
    // Forced: the host is asked again for rows it answered a moment ago.
    from = client.count();
    client.refresh(names, false);
    client.flush();
    EXPECT_EQ(rig.host.requests().back().names.size(), 221U);
}

TEST(WSViewModel, WorkspaceBatchesUpdateTheRowsCountAndSelection) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c", "d", "e"}));
    rig.start();
    GridClient& client = *rig.client;
    client.setViewport(1, 4);

    auto lastPageAfter = [&](auto&& change) {
        const std::size_t from = client.count();
        change();
        client.flush();
        GridClient::Message last;
        const auto all = client.messages();
        for (std::size_t i = from; i < all.size(); ++i) {
            if (GridClient::isPage()(all[i]))
                last = all[i];
        }
        return last;
    };

    // Values changed, names the same: the visible rows again, same size, no count.
    auto page = lastPageAfter([&] { rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"c"})); });
    EXPECT_FALSE(page.json.at("sizeChanged").get<bool>());
    EXPECT_EQ(GridClient::column(page), (Names{"b", "c", "d", "e"}));
    EXPECT_TRUE(rig.host.counts.empty());

    // Added events are left to the changed ones that accompany them.
    page = lastPageAfter([&] { rig.host.fire(batch(EventType::VARIABLE_ADDED, {"f"})); });
    EXPECT_EQ(page.number("fullEndRow"), 4);
    EXPECT_TRUE(rig.host.counts.empty());

    // Deleting shrinks the table; the viewport is clamped to the rows left.
    page = lastPageAfter([&] {
        rig.host.fire(batch(EventType::VARIABLE_DELETED, {"a", "d", "ghost"}));
    });
    EXPECT_TRUE(page.json.at("sizeChanged").get<bool>());
    EXPECT_EQ(page.number("startRow"), 1);
    EXPECT_EQ(page.number("endRow"), 2);
    EXPECT_EQ(page.number("fullEndRow"), 2);
    EXPECT_EQ(GridClient::column(page), (Names{"c", "e"}));
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{3}));

    // A cleared workspace empties the table and the selection.
    client.select({{0, 1}});
    client.flush();
    std::size_t from = client.count();
    page = lastPageAfter([&] { rig.host.fire(batch(EventType::WORKSPACE_CLEARED)); });
    EXPECT_EQ(page.string("partialData"), "[]");
    EXPECT_EQ(page.number("fullEndRow"), 0);
    EXPECT_EQ(client.waitFor(GridClient::isType("SelectedVariablesChanged"), from).text,
              R"({"Variables":[],"type":"SelectedVariablesChanged"})");
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{3, 0}));

    // Several kinds in one batch apply in order.
    page = lastPageAfter([&] {
        rig.host.fire({EventInfo{EventType::VARIABLE_CHANGED, {"x", "y", "z"}},
                       EventInfo{EventType::VARIABLE_DELETED, {"y"}}});
    });
    EXPECT_EQ(GridClient::column(page), (Names{"z"}));
    EXPECT_EQ(page.number("startRow"), 1);
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{3, 0, 2}));
}

TEST(WSViewModel, ColumnSortsStopAboveTenThousandVariables) {
    ViewModelRig rig;
    Names names = numberedNames(10001);
    const std::string extra = names.back();
    names.pop_back();
    const std::string last = names.back();
    names.pop_back();
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, names));
    LogCapture log(kLogger);
    rig.start();
    GridClient& client = *rig.client;
    client.sort(2, false);
    client.flush();

    auto columnsAfter = [&](auto&& change) {
        const std::size_t from = client.count();
        change();
        client.flush();
        std::vector<GridClient::Message> found;
        const auto all = client.messages();
        for (std::size_t i = from; i < all.size(); ++i) {
            if (GridClient::isMetaData("ColumnModelProperties")(all[i]))
                found.push_back(all[i]);
        }
        return found;
    };
    auto sortable = [](const GridClient::Message& m, std::size_t column) {
        return m.json.at("properties")
            .get<foundation::json::Array>()
            .at(column)
            .get<foundation::json::Object>()
            .at("IsSortable")
            .get<bool>();
    };

    // Up to 10000 variables nothing changes for the columns.
    EXPECT_TRUE(
        columnsAfter([&] { rig.host.fire(batch(EventType::VARIABLE_CHANGED, {last})); }).empty());
    // The 10001st turns column sorting off and brings the rows back to name order.
    auto columns =
        columnsAfter([&] { rig.host.fire(batch(EventType::VARIABLE_CHANGED, {extra})); });
    ASSERT_EQ(columns.size(), 1U);
    EXPECT_TRUE(sortable(columns[0], 0));
    EXPECT_FALSE(sortable(columns[0], 1));
    EXPECT_FALSE(sortable(columns[0], 2));
    EXPECT_EQ(columns[0].number("endColumn"), 3);
    std::size_t from = client.count();
    client.getData(0, 1);
    EXPECT_EQ(GridClient::column(client.waitFor(GridClient::isPage(), from)),
              (Names{"v000000", "v000001"}));
    // Back at 10000 the columns are sortable again.
    columns = columnsAfter([&] { rig.host.fire(batch(EventType::VARIABLE_DELETED, {extra})); });
    ASSERT_EQ(columns.size(), 1U);
    EXPECT_TRUE(sortable(columns[0], 2));

    rig.vm->onPreShutdown();
    EXPECT_EQ(countOf(log.texts(), "Reset sort to alphabetical by name"), 1U);
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{10000, 10001, 10000}));
}

TEST(WSViewModel, ShutdownFinishesQueuedWorkAndIgnoresEverythingAfter) {
    ViewModelRig rig;
    rig.host.answer = ScriptedHost::Answer::Later;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c"}));
    LogCapture log(kLogger);
    rig.start();
    GridClient& client = *rig.client;

    // In flight at shutdown: a page waiting for the host, a batch and a page still queued.
    client.getData(0, 2);
    client.waitFor(GridClient::isPage());
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"d"}));
    client.getData(0, 3);
    rig.vm->onPreShutdown();
    rig.vm->onPreShutdown(); // a second call does nothing
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{4})) << "the queued batch ran";
    EXPECT_EQ(countOf(log.texts(), "Variables Changed from Data Model"), 1U);
    EXPECT_TRUE(hasPrefix(log.texts(), "WSViewModel PreShutdown mCallbackCounter = "));

    // Batches and paging requests after shutdown change nothing and publish nothing.
    const std::size_t before = client.count();
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"e"}));
    client.getData(0, 1);
    client.sort(0, false);
    EXPECT_EQ(countOf(log.texts(), "Variables Changed from Data Model"), 1U);
    EXPECT_EQ(client.count(), before);
    EXPECT_EQ(rig.host.counts.size(), 1U);

    // Host answers arriving late: published while the view model exists, dropped after.
    ASSERT_GE(rig.host.heldAnswers(), 2U);
    rig.host.answerHeld(1);
    EXPECT_GT(client.count(), before);
    rig.vm.reset();
    const std::size_t afterDestruction = client.count();
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"f"}));
    rig.host.answerHeld();
    EXPECT_EQ(client.count(), afterDestruction);
    EXPECT_TRUE(log.contains("WSViewModel destructor"));
}

TEST(WSViewModel, DestroyingWithoutPreShutdownStillStopsTheQueue) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a"}));
    rig.start();
    rig.client->getData(0, 0);
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"b"}));
    rig.vm.reset();
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"c"}));
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{2})) << "the counted batch ran";
}

TEST(WSViewModel, StartupServicesHandsTheSelectedRowsToTheHost) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, numberedNames(10)));
    rig.start();
    GridClient& client = *rig.client;

    client.select({{3, 3}, {7, 7}});
    // The first selection is handed over by itself, once.
    ASSERT_TRUE(rig.host.waitUntil([&] { return rig.host.selections.size() == 1; }));
    rig.service->publishFromClient("/DesktopWSB", R"({"type":"StartupServices"})");
    ASSERT_TRUE(rig.host.waitUntil([&] { return rig.host.selections.size() == 2; }));
    const auto selections = rig.host.inspect([&] { return rig.host.selections; });
    EXPECT_EQ(selections[0].names, (Names{"v000003", "v000007"}));
    EXPECT_EQ(selections[0].rows, "3, 7");
    EXPECT_EQ(selections[1].names, (Names{"v000003", "v000007"}));
    EXPECT_EQ(selections[1].rows, "3, 7");
}

// Two view models share one data model; several clients scroll, sort and select while the host
// changes the workspace and answers fetches from its own thread. Run under ThreadSanitizer.
TEST(WSViewModel, TwoViewModelsServeClientsConcurrentlyWithAHostThread) {
    auto service = std::make_shared<connector::message_service::LocalMessageService>();
    ScriptedHost host;
    host.answer = ScriptedHost::Answer::FromHostThread;
    auto model = host.makeModel();
    const Names initial = numberedNames(300);
    host.fire(batch(EventType::VARIABLE_CHANGED, initial));

    const Names visible = {"Name", "Value", "Size", "Class"};
    std::vector<std::unique_ptr<GridClient>> clients;
    std::vector<std::unique_ptr<WSViewModel>> vms;
    for (const char* id : {"/Grid/One", "/Grid/Two"}) {
        clients.push_back(std::make_unique<GridClient>(service, id));
        vms.push_back(std::make_unique<WSViewModel>(
            service, id, model, u16(visible), u16(kAllColumnKeys),
            std::vector<double>(kAllColumnKeys.size(), 60.0), false, 0, host.renameCallback(),
            host.editValueCallback(), host.selectionCallback(), host.countCallback()));
    }
    // A second client of the first grid sends on the same channels.
    clients.push_back(std::make_unique<GridClient>(service, "/Grid/One"));

    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (std::size_t c = 0; c < clients.size(); ++c) {
        threads.emplace_back([&, c] {
            while (!go)
                std::this_thread::yield();
            GridClient& client = *clients[c];
            for (int i = 0; i < 60; ++i) {
                const int start = (i * 37 + static_cast<int>(c) * 11) % 250;
                client.setViewport(start, start + 20);
                client.getData(start, start + 20);
                if (i % 10 == 3)
                    client.sort(2, i % 20 == 3);
                if (i % 10 == 7)
                    client.sort(0, true);
                if (i % 7 == 0)
                    client.select({{start, start + 2}});
                if (i % 15 == 0)
                    client.getSize();
            }
        });
    }
    threads.emplace_back([&] {
        while (!go)
            std::this_thread::yield();
        // The data model forwards batches outside its lock, so two batches raised at once may
        // reach the view models in either order: these touch disjoint names, so that every
        // order gives the same workspace.
        for (int i = 0; i < 30; ++i) {
            const auto at = static_cast<std::size_t>(i);
            host.fireFromHostThread(batch(EventType::VARIABLE_CHANGED, {"w" + std::to_string(i)}));
            if (i % 3 == 0)
                host.fire(batch(EventType::VARIABLE_DELETED, {initial[250 + at]}));
            if (i % 5 == 0)
                host.fire(batch(EventType::VARIABLE_CHANGED, {initial[at]}));
        }
    });
    go = true;
    for (auto& thread : threads)
        thread.join();

    // Let everything settle: the host's thread, then both queues, then the host again.
    host.waitHostThreadIdle();
    for (int round = 0; round < 2; ++round) {
        for (std::size_t v = 0; v < 2; ++v)
            clients[v]->flush();
        host.waitHostThreadIdle();
    }

    // Both grids now show the data model's names, in name order.
    Names expected = model->getVariableNames();
    std::sort(expected.begin(), expected.end(), TextAlphabeticalSortComparator{true});
    for (std::size_t v = 0; v < 2; ++v) {
        GridClient& client = *clients[v];
        client.sort(0, true);
        client.flush();
        host.waitHostThreadIdle();
        const std::size_t from = client.count();
        const int last = static_cast<int>(expected.size()) - 1;
        client.getData(0, last);
        const auto page = client.waitFor(
            [last](const GridClient::Message& m) {
                return GridClient::isPage()(m) && m.number("endRow") == last;
            },
            from);
        EXPECT_EQ(GridClient::column(page), expected) << "grid " << v;
        client.getSize();
        EXPECT_EQ(client.waitFor(GridClient::isSize(), from).number("rowCount"),
                  static_cast<double>(expected.size()));
    }

    for (auto& vm : vms)
        vm->onPreShutdown();
    vms.clear();
    host.waitHostThreadIdle();
}
