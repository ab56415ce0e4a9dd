// Pages served from the real interpreter: a grid client and a console on the in-process
// message service, as a browser page would use them over WebSocket.

#include "BrowserApp.hpp"
#include "HostOptions.hpp"
#include "HostTestRig.hpp"

#include "support/ScriptedHost.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

using namespace wsb_host_test;
using ::testing::HasSubstr;
using wsb_test::GridClient;

namespace {

using Service = connector::message_service::LocalMessageService;

// One of a page's request channels as the page sees it.
class ChannelPage {
public:
    ChannelPage(const std::shared_ptr<Service>& service, std::string channel)
        : mService(service), mChannel(std::move(channel)), mReplies(service, mChannel) {}
    // Sends raw text and waits for the answer.
    GridClient::Message send(const std::string& text) {
        const std::size_t from = mReplies.count();
        mService->publishFromClient(mChannel, text);
        return mReplies.waitFor(any, from);
    }
    GridClient::Message waitFor(std::size_t from) { return mReplies.waitFor(any, from); }
    std::size_t count() const { return mReplies.count(); }

private:
    static bool any(const GridClient::Message&) { return true; }
    std::shared_ptr<Service> mService;
    std::string mChannel;
    GridClient mReplies; // records what the server publishes on the channel
};

struct AppRig {
    explicit AppRig(bool console = true) {
        wsbrowser::BrowserApp::Options options;
        options.page.console = console;
        options.watch = true;
        options.watchSink = [this](const std::string& line) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                watched.push_back(line);
            }
            arrived.notify_all();
        };
        app = std::make_unique<wsbrowser::BrowserApp>(workspace.host, service, options);
    }
    ~AppRig() { app->stop(); }

    std::shared_ptr<Service> service = std::make_shared<Service>();
    HostRig workspace;
    std::unique_ptr<wsbrowser::BrowserApp> app;
    // Waits for the watcher's report: the app view model drops what it has not reported
    // when it shuts down.
    bool waitWatched(const std::string& line) {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::seconds(60), [&] {
            return std::find(watched.begin(), watched.end(), line) != watched.end();
        });
    }

    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::string> watched;
};

} // namespace

TEST(BrowserApp, APageGetsRowsFromTheInterpreterAndRunsConsoleCode) {
    AppRig rig;
    rig.workspace.run("import numpy as np\nm = np.arange(12.0).reshape(3, 4)\ns = 'text'\n");
    rig.app->pageConnected("p1");
    GridClient grid(rig.service, "/WorkspaceBrowser/p1");
    ChannelPage console(rig.service, "/Console/p1");

    const auto isSize = GridClient::is("eventType", 1);
    grid.paging(R"({"eventType":13})");
    EXPECT_EQ(grid.waitFor(isSize).number("rowCount"), 2);
    EXPECT_EQ(grid.waitFor(isSize).number("columnCount"), 13);

    // The cached names go out first, then the rows the interpreter described.
    const auto described = [](const GridClient::Message& m) {
        if (!GridClient::is("eventType", 2)(m))
            return false;
        const auto values = GridClient::column(m, 1);
        return values.size() == 2 && !values[0].empty();
    };
    grid.range(11, 0, 1, 0, 12);
    const auto page = grid.waitFor(described);
    EXPECT_EQ(GridClient::column(page, 0), (Names{"m", "s"}));
    EXPECT_EQ(GridClient::column(page, 1)[0], "[[ 0. 1. 2. 3.] [ 4. 5. 6. 7.] [ 8. 9. 10. 11.]]");
    EXPECT_EQ(GridClient::column(page, 2)[0], "3" + kTimes + "4");
    EXPECT_EQ(GridClient::column(page, 3), (Names{"ndarray float64", "str"}));
    EXPECT_EQ(GridClient::column(page, 7)[0], "5.5"); // mean

    // The page learns which key each column position holds; anything else goes unanswered.
    ChannelPage columns(rig.service, "/Columns/p1");
    rig.service->publishFromClient("/Columns/p1", R"({"get":"rows"})");
    EXPECT_EQ(columns.send(R"({"get":"columns"})").text,
              R"({"columns":["Name","Value","Size","Class","Min","Max","Range","Mean","Median",)"
              R"("Mode","Var","Std","Bytes"],"statistics":{"columns":["Min","Max","Range","Mean",)"
              R"("Median","Mode","Var","Std"],"limit":100000,"on":true}})");
    EXPECT_EQ(columns.count(), 1U);

    // The cell editor gets a value's whole text; a refresh reads every variable again.
    ChannelPage workspace(rig.service, "/Workspace/p1");
    const auto text = workspace.send(R"({"get":"editText","name":"m","id":7})");
    EXPECT_EQ(text.number("id"), 7);
    EXPECT_TRUE(text.flag("editable"));
    EXPECT_EQ(text.string("text"),
              "np.array([[0.0, 1.0, 2.0, 3.0], [4.0, 5.0, 6.0, 7.0], [8.0, 9.0, 10.0, 11.0]], "
              "dtype='float64')");
    EXPECT_THAT(workspace.send(R"({"get":"editText"})").string("error"), HasSubstr("editText"));
    rig.service->publishFromClient("/Workspace/p1", R"({"do":"refresh"})");
    EXPECT_TRUE(rig.waitWatched("changed: m, s"));

    // Console code changes the workspace; the grid hears of it and the watcher reports it.
    const auto reply = console.send(R"({"code":"k = 3\nk * 2"})");
    EXPECT_EQ(reply.string("output"), "6\n");
    EXPECT_FALSE(reply.flag("error"));
    const std::size_t sizes = grid.count();
    grid.paging(R"({"eventType":13})");
    EXPECT_EQ(grid.waitFor(isSize, sizes).number("rowCount"), 3);
    EXPECT_TRUE(console.send(R"({"code":"undefined_thing"})").flag("error"));
    // Output keeps its streams apart, in the order written.
    EXPECT_THAT(
        console.send(R"j({"code":"import sys\nprint(1)\nsys.stderr.write('e\\n')\nprint(2)"})j")
            .text,
        HasSubstr(R"("runs":[{"stream":"stdout","text":"1\n"},{"stream":"stderr","text":"e\n"},)"
                  R"({"stream":"stdout","text":"2\n"}])"));
    // Ctrl+C in the page breaks into code that would never end.
    const std::size_t running = console.count();
    rig.service->publishFromClient("/Console/p1", R"({"code":"while True: pass"})");
    while (console.count() == running) {
        rig.service->publishFromClient("/Console/p1", R"({"interrupt":true})");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_THAT(console.waitFor(running).string("output"), HasSubstr("KeyboardInterrupt"));
    EXPECT_THAT(console.send(R"({"nocode":1})").string("output"), HasSubstr("\"code\""));
    EXPECT_TRUE(console.send("not json").flag("error"));

    // A refused rename from the grid reaches the page's console.
    const std::size_t before = console.count();
    rig.workspace.host->rename("k", "m");
    EXPECT_THAT(console.waitFor(before).string("output"), HasSubstr("the name is taken"));

    rig.workspace.run("del k\n");
    EXPECT_TRUE(rig.waitWatched("deleted: k"));
    // The page deletes what it selected; a name that is no variable is skipped.
    EXPECT_EQ(workspace.send(R"({"do":"delete","names":["m","ghost",3]})").number("deleted"), 1);
    EXPECT_TRUE(rig.waitWatched("deleted: m"));
    std::lock_guard<std::mutex> lock(rig.mutex);
    EXPECT_THAT(rig.watched, ::testing::ElementsAre("added: m, s", "changed: m, s", "added: k",
                                                    "deleted: k", "deleted: m"));
}

TEST(BrowserApp, PagesComeAndGoIndependentlyAndConsolesCanBeOff) {
    AppRig rig(false);
    rig.app->pageConnected("a");
    rig.app->pageConnected("b");
    rig.app->pageConnected("a");
    EXPECT_EQ(rig.app->pageIds(), (Names{"a", "b"}));
    rig.app->pageDisconnected("a");
    rig.app->pageDisconnected("unknown");
    EXPECT_EQ(rig.app->pageIds(), (Names{"b"}));

    GridClient console(rig.service, "/Console/b");
    rig.service->publishFromClient("/Console/b", R"({"code":"q = 1"})");
    rig.workspace.wait();
    EXPECT_EQ(console.count(), 0U);
    EXPECT_TRUE(rig.workspace.host->variableNames().empty());

    rig.app->stop();
    rig.app->pageConnected("c"); // too late: ignored
    EXPECT_TRUE(rig.app->pageIds().empty());
}

TEST(BrowserApp, DescribesWatchedChangesAndParsesTheCommandLine) {
    using wsbrowser::BrowserApp;
    EXPECT_EQ(BrowserApp::describeChange({"VARIABLE_ADDED", "a", "b"}), "added: a, b");
    EXPECT_EQ(BrowserApp::describeChange({"WORKSPACE_CLEARED"}), "cleared");

    using wsbrowser::HostOptions;
    const HostOptions options =
        HostOptions::parse({"--port", "8080", "--address=0.0.0.0", "--max-connections", "8",
                            "--log-level", "4", "--log-filter", "zentra::", "--show-all", "--watch",
                            "--no-console", "a.py", "--", "--b.py"},
                           "/web");
    EXPECT_EQ(options.port, 8080);
    EXPECT_EQ(options.address, "0.0.0.0");
    EXPECT_EQ(options.maxConnections, 8u);
    EXPECT_EQ(HostOptions::parse({}, "").maxConnections, 256u);
    EXPECT_EQ(HostOptions::parse({"--stats-limit", "0"}, "").statsLimit, 0);
    EXPECT_THROW(HostOptions::parse({"--stats-limit", "-1"}, ""), std::invalid_argument);
    EXPECT_EQ(options.staticRoot, "/web");
    EXPECT_EQ(options.logLevel, 4);
    EXPECT_EQ(options.logFilter, "zentra::");
    EXPECT_TRUE(options.showAll && options.watch && !options.console && !options.help);
    EXPECT_EQ(options.scripts, (Names{"a.py", "--b.py"}));
    EXPECT_EQ(HostOptions::parse({"--static", "/x"}, "/web").staticRoot, "/x");

    for (const Names& bad : std::vector<Names>{{"--port"},
                                               {"--port", "-1"},
                                               {"--port", "65536"},
                                               {"--port", "8o"},
                                               {"--log-level", "10"},
                                               {"--watch=yes"},
                                               {"--address="},
                                               {"--max-connections", "0"},
                                               {"--frobnicate"}})
        EXPECT_THROW(HostOptions::parse(bad, ""), std::invalid_argument) << bad.front();

    // Only these keep the server out of other machines' reach; the rest get a warning.
    for (const char* loopback : {"127.0.0.1", "127.1.2.3", "::1", "::ffff:127.0.0.1"})
        EXPECT_TRUE(HostOptions::isLoopback(loopback)) << loopback;
    for (const char* open :
         {"0.0.0.0", "::", "192.168.1.2", "::ffff:10.0.0.1", "128.0.0.1", "localhost", "127.1", ""})
        EXPECT_FALSE(HostOptions::isLoopback(open)) << open;
}
