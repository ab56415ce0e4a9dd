// The workspace view model driven as a host and a client grid drive it: JSON on the in-process
// message service, workspace events and fetch answers from a scripted host.

#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "support/LogCapture.hpp"
#include "support/ScriptedHost.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace wsb_test;
using Message = GridClient::Message;

namespace {

const std::string kLogger = "zentra::datatools::WSViewModel";
const std::string kTimes = "\xC3\x97"; // the multiplication sign of displayed sizes

bool logged(const LogCapture& log, const std::string& prefix) {
    const auto lines = log.texts();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
}

// The last page published by `action`: the one built from the host's records.
Message lastPage(GridClient& client, const std::function<void()>& action) {
    const auto pages = client.during(action, GridClient::isPage());
    EXPECT_FALSE(pages.empty());
    return pages.empty() ? Message{} : pages.back();
}

} // namespace

TEST(WSViewModel, StartsFromTheModelsNamesAndAnswersSizeAndDesktopMessages) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"b", "B", "a", "A", "ab"}));
    LogCapture log(kLogger);
    GridClient& client = rig.start();

    client.sendPaging(R"({"eventType":13})"); // answered at once
    EXPECT_EQ(client.waitFor(GridClient::isSize()).text,
              R"({"columnCount":4,"eventType":1,"rowCount":5,"source":"server"})");
    EXPECT_EQ(GridClient::column(lastPage(client, [&] { client.getData(0, 4); })),
              (Names{"a", "ab", "A", "b", "B"}));

    // Only "StartupServices" reaches the host, with the selection (none yet).
    for (const char* text :
         {R"({"type":"Other"})", R"({"noType":1})", R"({"type":"StartupServices"})"})
        rig.service->publishFromClient("/DesktopWSB", text);
    ASSERT_TRUE(rig.host.waitUntil([&] { return !rig.host.selections.empty(); }));
    rig.vm->onPreShutdown();
    ASSERT_EQ(rig.host.selections.size(), 1U);
    EXPECT_TRUE(rig.host.selections[0].names.empty());
    EXPECT_EQ(rig.host.selections[0].rows, "");
    EXPECT_TRUE(log.contains("Initial update of mVariablesNames done. size=5"));
    EXPECT_TRUE(log.contains("WSViewModel message recieved on /DesktopWSB channel"));
    EXPECT_TRUE(log.contains("Handling StartupServices, rows: "));
    EXPECT_TRUE(logged(log, "Caught a standard exception: invalid conversion"));
}

TEST(WSViewModel, ConstructionFailsCleanlyWithoutADesktopSubscription) {
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
    try {
        WSViewModel vm(std::make_shared<NoDesktop>(), "/T", model, u16({"Name"}), u16({"Name"}),
                       {80.0}, false, 0, nullptr, nullptr, nullptr, host.countCallback());
        ADD_FAILURE() << "constructed";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Future state isn't valid!");
    }
    host.fire(batch(EventType::VARIABLE_CHANGED, {"x"})); // nobody listens any more
    EXPECT_TRUE(host.counts.empty());
}

TEST(WSViewModel, ScrollingPublishesTheRequestedRowsAsClientRecords) {
    ViewModelRig rig;
    const Names names = numberedNames(1000);
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, names));
    LogCapture log(kLogger);
    GridClient& client = rig.start();
    client.setViewport(990, 5000, -4, 7); // clamped to the list, the columns too
    EXPECT_TRUE(log.contains("Viewport Range startRow=990 endRow=1000 startCol=0 endColumn=7"));
    client.getData(0, 999); // fetches every row once; later pages come from a clean cache
    client.flush();
    const std::size_t requests = rig.host.requests().size();

    const auto pages = client.during([&] { client.getData(100, 149); }, GridClient::isPage());
    ASSERT_EQ(pages.size(), 1U);
    EXPECT_EQ(pages[0].number("rowCount"), 50);
    EXPECT_EQ(GridClient::column(pages[0]), Names(names.begin() + 100, names.begin() + 150));
    using foundation::json::Value;
    const std::vector<GridClient::Cell> expected = {{{"class", Value("double")},
                                                     {"editorValue", Value("v000100")},
                                                     {"value", Value("v000100")}},
                                                    {{"editable", Value(true)},
                                                     {"editorValue", Value("v000100")},
                                                     {"isMetaData", Value(false)},
                                                     {"value", Value("v:v000100")}},
                                                    {{"editable", Value(false)},
                                                     {"editorValue", Value("v000100")},
                                                     {"value", Value("1" + kTimes + "1")}},
                                                    {{"editable", Value(false)},
                                                     {"editorValue", Value("v000100")},
                                                     {"value", Value("double")}}};
    EXPECT_TRUE(GridClient::rows(pages[0])[0] == expected);

    // The page is JSON text inside JSON; a column range cuts the cells; rows past the end are
    // cut while the requested range travels back as asked.
    EXPECT_EQ(lastPage(client, [&] { client.getData(3, 3, 0, 0); }).string("partialData"),
              R"([["{\"class\":\"double\",\"editorValue\":\"v000003\",\"value\":\"v000003\"}"]])");
    const Message tail = lastPage(client, [&] { client.getData(998, 5000, 2, 3); });
    EXPECT_EQ(tail.number("endRow"), 5000);
    EXPECT_EQ(GridClient::column(tail, 1), (Names{"double", "double"}));
    EXPECT_EQ(GridClient::rows(tail)[0].size(), 2U);
    EXPECT_EQ(rig.host.requests().size(), requests) << "clean rows need no host";
}

TEST(WSViewModel, DirtyRowsArePublishedFromTheCacheThenAgainWhenTheHostAnswers) {
    ViewModelRig rig;
    rig.host.answer = ScriptedHost::Answer::Later;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c"}));
    GridClient& client = rig.start();
    EXPECT_EQ(GridClient::column(lastPage(client, [&] { client.getData(0, 2); }), 1),
              (Names{"", "", ""}))
        << "the cache knows only the names";
    ASSERT_TRUE(rig.host.waitForHeld(1));
    EXPECT_EQ(rig.host.requests().back().fields, (Names{"Class", "Name", "Size", "Value"}));
    const Message answered = lastPage(client, [&] {
        rig.host.answerHeld(1, true); // from the host's own thread
        rig.host.waitHostThreadIdle();
    });
    EXPECT_EQ(GridClient::column(answered, 1), (Names{"v:a", "v:b", "v:c"}));

    // A changed variable is dirty again: only it is fetched, and the page goes out twice.
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"b"}));
    client.flush();
    EXPECT_EQ(client.during([&] { client.getData(0, 2); }, GridClient::isPage()).size(), 1U);
    EXPECT_EQ(rig.host.requests().back().names, (Names{"b"}));
    EXPECT_EQ(client.during([&] { rig.host.answerHeld(); }, GridClient::isPage()).size(), 1U);
}

TEST(WSViewModel, EmptyWorkspacePagesAskTheHostForNothing) {
    ViewModelRig rig;
    GridClient& client = rig.start();
    EXPECT_EQ(lastPage(client, [&] { client.getData(0, 10); }).string("partialData"), "[]");
    EXPECT_TRUE(rig.host.requests().empty());
}

TEST(WSViewModel, SortsByNameAndByColumnsInBothDirections) {
    ViewModelRig rig;
    rig.visible = {"Name", "Value", "Size", "Class", "Mean"};
    const std::map<std::string, std::array<std::string, 3>> table = {
        {"a", {"10" + kTimes + "10", "double", "NaN"}},
        {"b", {"1" + kTimes + "1", "cell", "Inf"}},
        {"c", {"3" + kTimes + "4", "struct", "1.5"}},
        {"d", {"2" + kTimes + "2", "char", "-3"}},
        {"B", {"5" + kTimes + "5", "logical", "7"}}};
    rig.host.recordFor = [table](const std::string& name) {
        const auto& [size, className, mean] = table.at(name);
        return WSVariable{.name = name, .size = size, .className = className, .mean = mean};
    };
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c", "d", "B"}));
    LogCapture log(kLogger);
    GridClient& client = rig.start();
    client.setViewport(0, 4, 0, 4);

    // Each sort sends the visible rows again, in the new order, as a resized table.
    auto sorted = [&](int column, bool ascending) {
        const Message page = lastPage(client, [&] { client.sort(column, ascending); });
        EXPECT_TRUE(page.flag("sizeChanged"));
        return GridClient::column(page);
    };
    EXPECT_EQ(sorted(2, true), (Names{"b", "d", "c", "B", "a"})); // 1, 4, 12, 25, 100 elements
    EXPECT_EQ(sorted(2, false), (Names{"a", "B", "c", "d", "b"}));
    EXPECT_EQ(sorted(4, true), (Names{"a", "d", "c", "B", "b"})); // NaN, -3, 1, 7, Inf
    EXPECT_EQ(sorted(4, false), (Names{"b", "B", "c", "d", "a"}));
    EXPECT_EQ(sorted(3, true), (Names{"b", "d", "a", "B", "c"})); // class names
    EXPECT_EQ(sorted(0, false), (Names{"d", "c", "B", "b", "a"}));
    EXPECT_EQ(sorted(0, true), (Names{"a", "b", "B", "c", "d"}));

    // Pages under a column sort are cut from the sorted rows; an unknown column changes nothing.
    sorted(2, true);
    client.sort(9, true);
    EXPECT_EQ(GridClient::column(lastPage(client, [&] { client.getData(1, 2); })),
              (Names{"d", "c"}));
    rig.vm->onPreShutdown();
    EXPECT_TRUE(log.contains("handleSortChanged sortColumn: 4 sortAscending: 0"));
    EXPECT_TRUE(log.contains("Sort Column: Mean"));
    EXPECT_TRUE(log.contains("Sorting by: Size"));
}

TEST(WSViewModel, RenamesAndValueEditsReachTheHost) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c"}));
    LogCapture log(kLogger);
    GridClient& client = rig.start();

    client.setData(2, 1, "bb"); // row 2 is b, column 1 the name
    EXPECT_EQ(client.waitFor(GridClient::isType("SelectedVariablesChanged")).text,
              R"({"Variables":["bb"],"type":"SelectedVariablesChanged"})");
    client.setData(3, 2, "42"); // column 2 is the value
    // Other columns are not editable; rows and columns outside the lists are refused.
    for (const auto& [row, column] :
         std::vector<std::pair<int, int>>{{1, 3}, {0, 1}, {4, 1}, {1, 14}})
        client.setData(row, column, "x");
    using Edits = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(rig.host.renames, (Edits{{"b", "bb"}}));
    EXPECT_EQ(rig.host.edits, (Edits{{"c", "42"}}));
    EXPECT_TRUE(log.contains("handleClientSetData row:2 column:1"));
    EXPECT_TRUE(log.contains("Rename: b to: bb"));
    EXPECT_TRUE(log.contains("Edit value: c to: 42"));
}

TEST(WSViewModel, RefreshReplacesTheNamesAndFetchesTheViewportWithAMargin) {
    ViewModelRig rig;
    GridClient& client = rig.start();
    const Names names = numberedNames(1000);

    const auto sent = client.during(
        [&] { client.refresh(Names(names.rbegin(), names.rend()), true); },
        [](const Message& m) { return GridClient::isSize()(m) || GridClient::isPage()(m); });
    ASSERT_EQ(sent.size(), 4U); // size, all names, then the fetched rows twice
    EXPECT_EQ(sent[0].text, R"({"columnCount":4,"eventType":1,"rowCount":1000,"source":"server"})");
    EXPECT_EQ(GridClient::column(sent[1]), names);
    EXPECT_EQ(GridClient::rows(sent[1])[0][0].at("class").get<std::string>(), "double");
    EXPECT_EQ(sent[3].number("endRow"), 200);
    EXPECT_EQ(sent[3].number("fullEndRow"), 999);
    EXPECT_TRUE(sent[3].flag("sizeChanged"));
    EXPECT_EQ(rig.host.requests().back().names, Names(names.begin(), names.begin() + 201));

    // From a viewport, 200 rows beyond its end; forced, so cached rows are fetched again.
    client.setViewport(500, 520);
    for (int round = 0; round < 2; ++round) {
        const Message page = lastPage(client, [&] { client.refresh(names, false); });
        EXPECT_EQ(page.number("startRow"), 500);
        EXPECT_EQ(page.number("endRow"), 720);
        EXPECT_EQ(rig.host.requests().back().names,
                  Names(names.begin() + 500, names.begin() + 721));
    }
    EXPECT_EQ(rig.host.requests().size(), 3U);
}

TEST(WSViewModel, WorkspaceBatchesUpdateRowsCountAndSelection) {
    ViewModelRig rig;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c", "d", "e"}));
    GridClient& client = rig.start();
    client.setViewport(1, 4);

    // New values, same names: the visible rows again, same size, no count for the host.
    Message page = lastPage(client, [&] {
        rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"c"}));
        rig.host.fire(batch(EventType::VARIABLE_ADDED, {"f"})); // left to the changed kind
    });
    EXPECT_FALSE(page.flag("sizeChanged"));
    EXPECT_EQ(GridClient::column(page), (Names{"b", "c", "d", "e"}));
    EXPECT_TRUE(rig.host.counts.empty());

    // Deleting shrinks the table; the viewport is clamped to the rows left.
    page = lastPage(client, [&] {
        rig.host.fire(batch(EventType::VARIABLE_DELETED, {"a", "d", "x"}));
    });
    EXPECT_TRUE(page.flag("sizeChanged"));
    EXPECT_EQ(std::vector<double>(
                  {page.number("startRow"), page.number("endRow"), page.number("fullEndRow")}),
              std::vector<double>({1, 2, 2}));
    EXPECT_EQ(GridClient::column(page), (Names{"c", "e"}));

    // Clearing empties the table and the selection; kinds in one batch apply in order.
    client.select({{0, 1}});
    const auto cleared = client.during([&] { rig.host.fire(batch(EventType::WORKSPACE_CLEARED)); },
                                       GridClient::isType("SelectedVariablesChanged"));
    ASSERT_EQ(cleared.size(), 1U);
    EXPECT_EQ(cleared[0].text, R"({"Variables":[],"type":"SelectedVariablesChanged"})");
    page = lastPage(client, [&] {
        rig.host.fire({EventInfo{EventType::VARIABLE_CHANGED, {"x", "y", "z"}},
                       EventInfo{EventType::VARIABLE_DELETED, {"y"}}});
    });
    EXPECT_EQ(GridClient::column(page), (Names{"z"}));
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{3, 0, 2}));
}

TEST(WSViewModel, ColumnSortsStopAboveTenThousandVariables) {
    ViewModelRig rig;
    const Names names = numberedNames(10001);
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, Names(names.begin(), names.end() - 2)));
    LogCapture log(kLogger);
    GridClient& client = rig.start();
    client.sort(2, false);

    auto columnsAfter = [&](EventType type, const std::string& name) {
        return client.during([&] { rig.host.fire(batch(type, {name})); },
                             GridClient::isMetaData("ColumnModelProperties"));
    };
    auto sortable = [](const Message& m) {
        std::vector<bool> flags;
        for (const auto& column : m.json.at("properties").get<foundation::json::Array>())
            flags.push_back(column.get<foundation::json::Object>().at("IsSortable").get<bool>());
        return flags;
    };
    EXPECT_TRUE(columnsAfter(EventType::VARIABLE_CHANGED, names[9999]).empty()) << "10000";
    auto columns = columnsAfter(EventType::VARIABLE_CHANGED, names[10000]);
    ASSERT_EQ(columns.size(), 1U);
    EXPECT_EQ(sortable(columns[0]), (std::vector<bool>{true, false, false, false}));
    // The column sort fell back to the name.
    EXPECT_EQ(GridClient::column(lastPage(client, [&] { client.getData(0, 1); })),
              (Names{"v000000", "v000001"}));
    columns = columnsAfter(EventType::VARIABLE_DELETED, names[10000]);
    ASSERT_EQ(columns.size(), 1U);
    EXPECT_EQ(sortable(columns[0]), (std::vector<bool>{true, false, true, true}));

    rig.vm->onPreShutdown();
    const auto lines = log.texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Reset sort to alphabetical by name"), 1);
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{10000, 10001, 10000}));
}

TEST(WSViewModel, ShutdownFinishesQueuedWorkAndIgnoresEverythingAfter) {
    ViewModelRig rig;
    rig.host.answer = ScriptedHost::Answer::Later;
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"a", "b", "c"}));
    LogCapture log(kLogger);
    GridClient& client = rig.start();

    // In flight: a page waiting for the host, then a batch and a page still queued.
    client.getData(0, 2);
    client.waitFor(GridClient::isPage());
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"d"}));
    client.getData(0, 3);
    rig.vm->onPreShutdown();
    rig.vm->onPreShutdown(); // does nothing the second time
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{4})) << "the queued batch ran";
    EXPECT_TRUE(logged(log, "WSViewModel PreShutdown mCallbackCounter = "));

    // Batches and requests after shutdown publish nothing.
    const std::size_t before = client.count();
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"e"}));
    client.getData(0, 1);
    client.sort(0, false);
    EXPECT_EQ(client.count(), before);
    EXPECT_EQ(rig.host.counts.size(), 1U);

    // Late host answers are published while the view model exists and dropped after.
    ASSERT_GE(rig.host.heldAnswers(), 2U);
    rig.host.answerHeld(1);
    EXPECT_GT(client.count(), before);
    rig.vm.reset();
    const std::size_t afterDestruction = client.count();
    rig.host.answerHeld();
    EXPECT_EQ(client.count(), afterDestruction);
    EXPECT_TRUE(log.contains("WSViewModel destructor"));

    // A view model destroyed without the pre-shutdown call still runs its counted batches.
    rig.host.answer = ScriptedHost::Answer::Synchronously;
    auto vm = std::make_unique<WSViewModel>(rig.service, "/Other", rig.model, u16({"Name"}),
                                            u16({"Name"}), std::vector<double>{80.0}, false, 0,
                                            nullptr, nullptr, nullptr, rig.host.countCallback());
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"f"}));
    vm.reset();
    rig.host.fire(batch(EventType::VARIABLE_CHANGED, {"g"}));
    EXPECT_EQ(rig.host.counts, (std::vector<unsigned long>{4, 6}));
}

// Two view models share one data model; three clients scroll, sort and select at once while the
// host changes the workspace and answers from its own thread. Run under ThreadSanitizer.
TEST(WSViewModel, TwoViewModelsServeClientsConcurrentlyWithAHostThread) {
    auto service = std::make_shared<connector::message_service::LocalMessageService>();
    ScriptedHost host;
    host.answer = ScriptedHost::Answer::FromHostThread;
    auto model = host.makeModel();
    const Names initial = numberedNames(300);
    host.fire(batch(EventType::VARIABLE_CHANGED, initial));

    std::vector<std::unique_ptr<GridClient>> clients;
    std::vector<std::unique_ptr<WSViewModel>> vms;
    for (const char* id : {"/Grid/One", "/Grid/Two"}) {
        clients.push_back(std::make_unique<GridClient>(service, id));
        vms.push_back(std::make_unique<WSViewModel>(
            service, id, model, u16({"Name", "Value", "Size", "Class"}), u16(kAllColumnKeys),
            std::vector<double>(13, 60.0), false, 0, host.renameCallback(),
            host.editValueCallback(), host.selectionCallback(), host.countCallback()));
    }
    clients.push_back(std::make_unique<GridClient>(service, "/Grid/One")); // a second client

    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (std::size_t c = 0; c < clients.size(); ++c) {
        threads.emplace_back([&, c] {
            while (!go)
                std::this_thread::yield();
            for (int i = 0; i < 60; ++i) {
                const int start = (i * 37 + static_cast<int>(c) * 11) % 250;
                clients[c]->setViewport(start, start + 20);
                clients[c]->getData(start, start + 20);
                if (i % 10 == 3)
                    clients[c]->sort(2, i % 20 == 3);
                if (i % 10 == 7)
                    clients[c]->sort(0, true);
                if (i % 7 == 0)
                    clients[c]->select({{start, start + 2}});
            }
        });
    }
    threads.emplace_back([&] {
        while (!go)
            std::this_thread::yield();
        // The data model forwards batches outside its lock, so batches raised at once may reach
        // the view models in either order: these touch disjoint names, so every order agrees.
        for (std::size_t i = 0; i < 30; ++i) {
            host.fireFromHostThread(batch(EventType::VARIABLE_CHANGED, {"w" + std::to_string(i)}));
            if (i % 3 == 0)
                host.fire(batch(EventType::VARIABLE_DELETED, {initial[250 + i]}));
            if (i % 5 == 0)
                host.fire(batch(EventType::VARIABLE_CHANGED, {initial[i]}));
        }
    });
    go = true;
    for (auto& thread : threads)
        thread.join();
    for (int round = 0; round < 2; ++round) {
        host.waitHostThreadIdle();
        clients[0]->flush();
        clients[1]->flush();
    }

    // Both grids now show the data model's names, in name order, and its size.
    Names expected = model->getVariableNames();
    std::sort(expected.begin(), expected.end(), TextAlphabeticalSortComparator{true});
    const int last = static_cast<int>(expected.size()) - 1;
    for (std::size_t v = 0; v < 2; ++v) {
        GridClient& client = *clients[v];
        client.sort(0, true);
        client.flush();
        host.waitHostThreadIdle();
        const auto pages = client.during([&] { client.getData(0, last); }, GridClient::isPage());
        ASSERT_FALSE(pages.empty());
        EXPECT_EQ(GridClient::column(pages.front()), expected) << "grid " << v;
    }
    for (auto& vm : vms)
        vm->onPreShutdown();
    vms.clear();
    host.waitHostThreadIdle();
}
