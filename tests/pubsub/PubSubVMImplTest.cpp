#include <workspace_browser/platform/settings/Settings.hpp>
#include <workspace_browser/pubsub/PubSubVMImpl.hpp>

#include "support/LogCapture.hpp"
#include "support/RecordingMessageService.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using workspace_browser_startup::PubSubVMImpl;
using workspace_browser_startup::RowRange;
using workspace_browser_startup::VMObserver;
using wsb_test::RecordingMessageService;
using Texts = std::vector<std::string>;

namespace {

const std::string kChannel = "/WorkspaceBrowser";
const std::string kCaught = "Caught a runtime error: invalid conversion: ";

struct RecordingObserver : VMObserver {
    Texts calls;
    std::vector<std::vector<RowRange>> selections;
    std::vector<Texts> refreshes;
    std::function<void()> onGridSize = [] {};

    void handleSelectionChanged(std::vector<RowRange> rows) override {
        calls.push_back("selection");
        selections.push_back(std::move(rows));
    }
    void handleFocusChanged(bool hasFocus) override {
        calls.push_back(std::string("focus ") + (hasFocus ? "1" : "0"));
    }
    void handleDoubleClick(std::string name) override { calls.push_back("doubleClick " + name); }
    void handleDrop(std::string data, std::string workspace) override {
        calls.push_back("drop " + data + " " + workspace);
    }
    void handleRefresh(Texts variables, bool immediate) override {
        calls.push_back(std::string("refresh ") + (immediate ? "1" : "0"));
        refreshes.push_back(std::move(variables));
    }
    void gridSizeChanged() override {
        onGridSize();
        calls.push_back("gridSize");
    }
};

std::string propertySet(const std::string& name, const std::string& value) {
    return R"({"type":"propertySet","propertyName":")" + name + R"(","propertyValue":)" + value +
           "}";
}

class PubSubVMImplTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingMessageService> service = std::make_shared<RecordingMessageService>();
    wsb_test::LogCapture log{"zentra::datatools::PubSubVM"};
    PubSubVMImpl endpoint{service, kChannel};
    RecordingObserver observer;

    void SetUp() override { endpoint.addVMObserver(&observer); }

    // Delivery never throws out of this endpoint, whatever the message.
    void deliver(const std::string& text) {
        std::size_t delivered = 0;
        ASSERT_NO_THROW(delivered = service->deliver(kChannel, text)) << text;
        ASSERT_EQ(delivered, 1u);
    }
};

TEST_F(PubSubVMImplTest, DoubleClickAndDropReachEveryObserver) {
    RecordingObserver second;
    endpoint.addVMObserver(&second);
    const std::string click =
        R"({"type":"doubleClickedOnMetaData","data":{"variableName":"alpha"}})";
    deliver(click);
    deliver(R"({"type":"drop","data":{"data":"x = 1","workspace":"base"}})");
    EXPECT_EQ(second.calls, (Texts{"doubleClick alpha", "drop x = 1 base"}));
    for (const std::string& text : {"PubSubVMImpl message received " + click,
                                    std::string("Handling EVENT_VALUE_TYPE_DOUBLE_CLICK"),
                                    std::string("Handling EVENT_VALUE_TYPE_DROP")})
        EXPECT_TRUE(log.contains(text)) << text;

    endpoint.removeVMObserver(&observer);
    deliver(click);
    EXPECT_EQ(observer.calls.size(), 2u);
    EXPECT_EQ(second.calls.size(), 3u);
}

TEST_F(PubSubVMImplTest, MalformedUnknownAndIgnoredMessagesReachNobody) {
    const std::pair<std::string, std::string> cases[] = {
        // No type at all: the text did not parse.
        {"{not json", kCaught + "foundation::json::Undefined to std::string"},
        {R"({"type":"doubleClickedOnMetaData"})",
         kCaught + "foundation::json::Undefined to std::map<std::string, foundation::json::Value>"},
        {R"({"type":"drop","data":{"data":"x"}})",
         kCaught + "foundation::json::Undefined to std::string"},
        {R"({"type":"refresh","count":2,"immediateUpdate":true,"variables":"a"})",
         kCaught + "std::string to std::vector<foundation::json::Value>"},
        {R"({"type":"refresh","count":1,"immediateUpdate":true,"variables":["a"]})",
         kCaught + "std::vector<foundation::json::Value> to std::string"},
        {R"({"type":"somethingElse"})", "ERROR: Unknown message type"},
        {propertySet("Mystery", "1"), "ERROR: Unknown message type: propertySet"},
        // Accepted silently: only the arrival itself is logged.
        {R"({"type":"scrollClient"})", "PubSubVMImpl message received {\"type\":\"scrollClient\"}"},
        {R"({"type":"Selection"})", "PubSubVMImpl message received {\"type\":\"Selection\"}"},
    };
    for (const auto& [text, expectedLog] : cases) {
        deliver(text);
        EXPECT_EQ(log.last(), expectedLog) << text;
    }
    EXPECT_TRUE(log.contains("convertMessageToJson JSON Parse Error"));
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubVMImplTest, RefreshReadsOneNameAsTextAndOthersAsAnArray) {
    const std::string logged = "Handling EVENT_VALUE_TYPE_REFRESH immediate update = ";
    // With a count of 0 the names are not read, even when present.
    deliver(R"({"type":"refresh","count":0,"immediateUpdate":false,"variables":["a"]})");
    EXPECT_TRUE(log.contains("Handling EVENT_VALUE_TYPE_REFRESH count = 0"));
    EXPECT_EQ(log.last(), logged + "0 with variables:<no variables>");
    deliver(R"({"type":"refresh","count":1,"immediateUpdate":true,"variables":"alpha"})");
    EXPECT_EQ(log.last(), logged + "1 with variables:alpha");
    // A negative count still means "a list".
    deliver(R"({"type":"refresh","count":-2,"immediateUpdate":true,"variables":["b","c"]})");
    EXPECT_EQ(log.last(), logged + "1 with variables:b,c,");
    EXPECT_EQ(observer.calls, (Texts{"refresh 0", "refresh 1", "refresh 1"}));
    EXPECT_EQ(observer.refreshes, (std::vector<Texts>{{}, {"alpha"}, {"b", "c"}}));

    // Long lists: the log names the first hundred and counts the rest; all reach the observer.
    std::string names = R"("v0")", description = "v0,";
    for (int i = 1; i < 150; ++i) {
        names += R"(,"v)" + std::to_string(i) + '"';
        description += i < 100 ? "v" + std::to_string(i) + "," : "";
    }
    deliver(R"({"type":"refresh","count":150,"immediateUpdate":true,"variables":[)" + names + "]}");
    EXPECT_EQ(log.last(), logged + "1 with variables:" + description + " and 50 more");
    ASSERT_EQ(observer.refreshes.back().size(), 150u);
    EXPECT_EQ(observer.refreshes.back().back(), "v149");
}

TEST_F(PubSubVMImplTest, SelectionIsParsedFromTheTextInsideTheMessage) {
    const auto selection = [](const std::string& rows) {
        return propertySet("Selection", R"({"selectedRows":)" + rows + "}");
    };
    deliver(selection(R"("[{\"start\":2,\"end\":4},{\"end\":9,\"start\":7.8}]")"));
    deliver(selection(R"("[]")"));
    EXPECT_EQ(observer.selections, (std::vector<std::vector<RowRange>>{{{2, 4}, {7, 9}}, {}}));
    for (const char* text : {"Handling EVENT_VALUE_TYPE_PROPERTY_SET",
                             "Handling EVENT_VALUE_TYPE_PROPERTY_SET: propertyName = Selection",
                             "Handling EVENT_PROPERTY_VALUE_TYPE_SELECTION",
                             "Added Row Range (2, 4)", "Added Row Range (7, 9)"})
        EXPECT_TRUE(log.contains(text)) << text;

    // A real array (as the server sends it) or a non-object range is refused.
    deliver(selection(R"([{"start":1,"end":2}])"));
    EXPECT_EQ(log.last(), kCaught + "std::vector<foundation::json::Value> to std::string");
    deliver(selection(R"("[5]")"));
    EXPECT_EQ(log.last(), kCaught + "double to std::map<std::string, foundation::json::Value>");
    // Text that does not parse as an array is logged as a parser error: code, description,
    // line and column, then the line itself and a caret under the failing character.
    const std::pair<std::string, std::string> broken[] = {
        {R"("{\"start\":1}")",
         "JSON ParserException (E1): Invalid value: expected an object, array, string, number, "
         "true, false or null (Line 1, Column 1)\n{\"start\":1}\n^"},
        {R"("[\n{\"start\":1,\"end\" 2}]")",
         "JSON ParserException (E18): ':' expected after an object key (Line 2, Column 18)\n"
         "{\"start\":1,\"end\" 2}]\n" +
             std::string(17, ' ') + "^"},
    };
    for (const auto& [rows, error] : broken) {
        deliver(selection(rows));
        const Texts lines = log.texts(); // one record of three lines
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines[lines.size() - 3] + "\n" + lines[lines.size() - 2] + "\n" + lines.back(),
                  "Caught a runtime error: " + error)
            << rows;
    }
    EXPECT_EQ(observer.calls.size(), 2u);
}

TEST_F(PubSubVMImplTest, FocusIsReadFromTheTopLevelAndGridSizeIsPassedOn) {
    deliver(R"({"HasFocus":true,"propertyName":"HasFocus","type":"propertySet"})");
    EXPECT_EQ(log.last(), "Handling EVENT_PROPERTY_VALUE_TYPE_FOCUS 1");
    deliver(R"({"HasFocus":false,"propertyName":"HasFocus","type":"propertySet"})");
    deliver(propertySet("HasFocus", "true"));
    EXPECT_EQ(log.last(), kCaught + "foundation::json::Undefined to bool");
    deliver(R"({"type":"propertySet","propertyName":"GridSize"})");
    EXPECT_EQ(log.last(), "Updating selection after GridSize change");
    EXPECT_EQ(observer.calls, (Texts{"focus 1", "focus 0", "gridSize"}));
}

TEST_F(PubSubVMImplTest, ObserverFailuresAreCaughtByKind) {
    RecordingObserver throwing;
    endpoint.removeVMObserver(&observer);
    endpoint.addVMObserver(&throwing);
    endpoint.addVMObserver(&observer);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { throw std::runtime_error("r"); }, "Caught a runtime error: r"},
        {[] { throw std::invalid_argument("i"); }, "Caught an invalid argument: i"},
        {[] { throw std::out_of_range("o"); }, "Caught a standard exception: o"},
        {[] { throw 42; }, "Caught an unknown exception"},
    };
    for (const auto& [raise, expectedLog] : cases) {
        throwing.onGridSize = raise;
        deliver(R"({"type":"propertySet","propertyName":"GridSize"})");
        EXPECT_EQ(log.last(), expectedLog);
    }
    // The observer after the failing one is not called for that message.
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubVMImplTest, RemovalIsSafeWhileAnotherThreadDelivers) {
    std::atomic<bool> done{false};
    std::thread deliverer([&] {
        while (!done)
            service->deliver(kChannel, R"({"type":"propertySet","propertyName":"GridSize"})");
    });
    for (int round = 0; round < 2000; ++round) {
        std::atomic<bool> called{false};
        auto added = std::make_unique<RecordingObserver>();
        added->onGridSize = [&called] { called = true; };
        endpoint.addVMObserver(added.get());
        while (round % 100 == 0 && !called)
            std::this_thread::yield();
        endpoint.removeVMObserver(added.get());
        // Destroyed at once: a delivery still walking an old list would touch freed memory.
    }
    done = true;
    deliverer.join();
}

class PubSubVMImplSettingsTest : public PubSubVMImplTest {
protected:
    static void SetUpTestSuite() {
        // Each test case runs in its own process, so the settings folder can be chosen here,
        // before the settings tree is first used.
        std::string pattern = (std::filesystem::temp_directory_path() / "wsb-vm-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        ::setenv("WSB_SETTINGS_DIR", folder.c_str(), 1);
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(folder); }

    static inline std::string folder;
};

TEST_F(PubSubVMImplSettingsTest, ColumnWidthIsWrittenToTheUserSettingsAndBadColumnsAreCaught) {
    const auto widthMessage = [](const std::string& property, const std::string& column,
                                 const std::string& value) {
        return propertySet("ColumnModelProperty", R"({"property":")" + property + R"(","column":)" +
                                                      column + R"(,"value":)" + value + "}");
    };
    auto columns = settings::standalone::getSettingsRoot().node("zentra.desktop.workspace.columns");
    columns.set("ColumnWidths", std::vector<double>{100, 100, 100}, "user");
    deliver(widthMessage("ColumnWidth", "1", "250.5"));
    EXPECT_EQ(log.last(), "Setting ColumnWidth of 1 to 250.5");

    // Past the end or negative: an ordinary failure, caught and logged, never a write out of
    // bounds.
    for (const char* column : {"3", "-1", "4294967295"}) {
        deliver(widthMessage("ColumnWidth", column, "10"));
        EXPECT_EQ(log.last().rfind("Caught a standard exception: ", 0), 0u) << log.last();
    }
    // Another column property is ignored without a log line; a width must be a number.
    deliver(widthMessage("Visible", "0", "10"));
    EXPECT_EQ(log.last(),
              "Handling EVENT_VALUE_TYPE_PROPERTY_SET: propertyName = ColumnModelProperty");
    deliver(widthMessage("ColumnWidth", "0", R"("10")"));
    EXPECT_EQ(log.last(), kCaught + "std::string to double");
    // Widths no grid can show are refused with a log line and the stored width stays.
    for (const char* width : {"1e308", "-5", "0", "10001", "-1e308"}) {
        deliver(widthMessage("ColumnWidth", "1", width));
        EXPECT_EQ(log.last().rfind("Refusing ColumnWidth of 1: ", 0), 0u) << log.last();
    }
    // Persisted: a fresh read of the user file sees it.
    settings::standalone::reloadSettings();
    EXPECT_EQ(columns.get<std::vector<double>>("ColumnWidths"),
              (std::vector<double>{100, 250.5, 100}));
}

TEST_F(PubSubVMImplTest, SendersPublishTheExactMessages) {
    endpoint.selectedRowsUpdated({{2, 4}, {-1, 7}});
    endpoint.selectedVariablesUpdated({"a", "b \"q\""});
    endpoint.variableRenamed("old", "new");
    endpoint.selectedRowsUpdated({});
    for (const char* text :
         {"selectedRowsUpdated: 2 row ranges selected",
          "selectedRowsUpdated adding range: start=2 end=4",
          "selectedRowsUpdated adding range: start=-1 end=7",
          "selectedVariablesUpdated: 2 variables selected", "variableRenamed from: old to: new"})
        EXPECT_TRUE(log.contains(text)) << text;

    Texts channels, texts;
    for (const auto& p : service->published()) {
        channels.push_back(p.channel);
        texts.push_back(p.text);
    }
    EXPECT_EQ(channels, Texts(4, kChannel));
    EXPECT_EQ(texts, (Texts{R"({"selectedRows":[{"end":4,"start":2},{"end":7,"start":-1}],)"
                            R"("type":"SelectedRowsChanged"})",
                            R"({"Variables":["a","b \"q\""],"type":"SelectedVariablesChanged"})",
                            R"({"newName":"new","oldName":"old","type":"VariableRenamed"})",
                            R"({"selectedRows":[],"type":"SelectedRowsChanged"})"}));
    EXPECT_EQ(log.last(), "sendResponse " + texts.back());
}

TEST_F(PubSubVMImplTest, SubscriptionFailureAndLifetime) {
    service->failNextSubscribe(RecordingMessageService::SubscribeFailure::InvalidFuture);
    EXPECT_THROW(PubSubVMImpl(service, "/x"), std::runtime_error);
    {
        PubSubVMImpl second(service, "/y");
        EXPECT_TRUE(log.contains("PubSubVMImpl on channel /y"));
        EXPECT_EQ(service->subscriberCount("/y"), 1u);
    }
    EXPECT_EQ(service->subscriberCount("/y"), 0u);
}

} // namespace
