#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/settings/Settings.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/pubsub/PubSubVMImpl.hpp>

#include "support/RecordingMessageService.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;
using workspace_browser_startup::JsonTypedValues;
using workspace_browser_startup::PubSubVMImpl;
using workspace_browser_startup::RowRange;
using workspace_browser_startup::VMObserver;
using wsb_test::RecordingMessageService;

namespace {

const std::string kChannel = "/WorkspaceBrowser";
const std::string kLogPrefix = "4 zentra::datatools::PubSubVM: ";

struct RecordingObserver : VMObserver {
    std::vector<std::string> calls;
    std::vector<std::vector<RowRange>> selections;
    std::vector<std::vector<std::string>> refreshes;

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
    void handleRefresh(std::vector<std::string> variables, bool immediate) override {
        calls.push_back(std::string("refresh ") + (immediate ? "1" : "0"));
        refreshes.push_back(std::move(variables));
    }
    void gridSizeChanged() override { calls.push_back("gridSize"); }
};

class PubSubVMImplTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingMessageService> service = std::make_shared<RecordingMessageService>();
    std::ostringstream log;
    std::shared_ptr<void> sink =
        foundation::log::addConsoleSink(4, "zentra::datatools::PubSubVM", &log);
    PubSubVMImpl endpoint{service, kChannel};
    RecordingObserver observer;

    void SetUp() override { endpoint.addVMObserver(&observer); }

    // Delivery never throws out of this endpoint, whatever the message.
    void deliver(const std::string& text) {
        std::size_t delivered = 0;
        ASSERT_NO_THROW(delivered = service->deliver(kChannel, text)) << text;
        ASSERT_EQ(delivered, 1u);
    }

    std::vector<std::string> logLines() const {
        std::vector<std::string> lines;
        std::istringstream in(log.str());
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    std::string lastLogLine() const {
        const auto lines = logLines();
        return lines.empty() ? std::string() : lines.back();
    }
    bool logged(const std::string& text) const {
        for (const auto& line : logLines())
            if (line == kLogPrefix + text)
                return true;
        return false;
    }
};

TEST_F(PubSubVMImplTest, DoubleClickAndDropReachEveryObserver) {
    RecordingObserver second;
    endpoint.addVMObserver(&second);
    const std::string click =
        R"({"type":"doubleClickedOnMetaData","data":{"variableName":"alpha"}})";
    deliver(click);
    deliver(R"({"type":"drop","data":{"data":"x = 1","workspace":"base"}})");
    const std::vector<std::string> expected{"doubleClick alpha", "drop x = 1 base"};
    EXPECT_EQ(observer.calls, expected);
    EXPECT_EQ(second.calls, expected);
    EXPECT_TRUE(logged("PubSubVMImpl message received " + click));
    EXPECT_TRUE(logged("Handling EVENT_VALUE_TYPE_DOUBLE_CLICK"));
    EXPECT_TRUE(logged("Handling EVENT_VALUE_TYPE_DROP"));

    endpoint.removeVMObserver(&observer);
    deliver(click);
    EXPECT_EQ(observer.calls.size(), 2u);
    EXPECT_EQ(second.calls.size(), 3u);
}

TEST_F(PubSubVMImplTest, MalformedMessagesAreLoggedAndReachNobody) {
    const std::pair<std::string, std::string> cases[] = {
        // No type at all: the text did not parse.
        {"{not json", "Caught a runtime error: invalid conversion: foundation::json::Undefined "
                      "to std::string"},
        {R"({"type":"doubleClickedOnMetaData"})",
         "Caught a runtime error: invalid conversion: foundation::json::Undefined to "
         "std::map<std::string, foundation::json::Value>"},
        {R"({"type":"drop","data":{"data":"x"}})",
         "Caught a runtime error: invalid conversion: foundation::json::Undefined to "
         "std::string"},
        {R"({"type":"refresh","count":2,"immediateUpdate":true,"variables":"a"})",
         "Caught a runtime error: invalid conversion: std::string to "
         "std::vector<foundation::json::Value>"},
        {R"({"type":"refresh","count":1,"immediateUpdate":true,"variables":["a"]})",
         "Caught a runtime error: invalid conversion: std::vector<foundation::json::Value> to "
         "std::string"},
        {R"({"type":"refresh","count":0})",
         "Caught a runtime error: invalid conversion: foundation::json::Undefined to bool"},
        {R"({"type":7})", "Caught a runtime error: invalid conversion: double to std::string"},
    };
    for (const auto& [text, expectedLog] : cases) {
        deliver(text);
        EXPECT_EQ(lastLogLine(), kLogPrefix + expectedLog) << text;
    }
    EXPECT_TRUE(logged("convertMessageToJson JSON Parse Error"));
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubVMImplTest, UnknownAndIgnoredTypes) {
    deliver(R"({"type":"somethingElse"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "ERROR: Unknown message type");

    // These two are accepted silently: only the arrival itself is logged.
    for (const std::string text : {R"({"type":"scrollClient"})", R"({"type":"Selection"})"}) {
        deliver(text);
        EXPECT_EQ(lastLogLine(), kLogPrefix + "PubSubVMImpl message received " + text);
    }

    deliver(R"({"type":"propertySet","propertyName":"Mystery"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "ERROR: Unknown message type: propertySet");
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubVMImplTest, RefreshReadsOneNameAsTextAndOthersAsAnArray) {
    // With a count of 0 the names are not read, even when present.
    deliver(R"({"type":"refresh","count":0,"immediateUpdate":false,"variables":["a"]})");
    EXPECT_TRUE(logged("Handling EVENT_VALUE_TYPE_REFRESH count = 0"));
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Handling EVENT_VALUE_TYPE_REFRESH immediate update = 0 "
                                          "with variables:<no variables>");
    deliver(R"({"type":"refresh","count":1,"immediateUpdate":true,"variables":"alpha"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Handling EVENT_VALUE_TYPE_REFRESH immediate update = 1 "
                                          "with variables:alpha");
    // A negative count still means "a list".
    deliver(R"({"type":"refresh","count":-2,"immediateUpdate":true,"variables":["b","c"]})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Handling EVENT_VALUE_TYPE_REFRESH immediate update = 1 "
                                          "with variables:b,c,");

    EXPECT_EQ(observer.calls, (std::vector<std::string>{"refresh 0", "refresh 1", "refresh 1"}));
    EXPECT_EQ(observer.refreshes,
              (std::vector<std::vector<std::string>>{{}, {"alpha"}, {"b", "c"}}));
}

TEST_F(PubSubVMImplTest, LongRefreshLogsTheFirstHundredNamesAndPassesAll) {
    for (const std::size_t total : {std::size_t{100}, std::size_t{150}}) {
        observer.refreshes.clear();
        Array names;
        std::string description;
        for (std::size_t i = 0; i < total; ++i) {
            names.emplace_back("v" + std::to_string(i));
            if (i < 100)
                description += "v" + std::to_string(i) + ",";
        }
        description += " and " + std::to_string(total - 100) + " more";
        Object message{{"type", Value("refresh")},
                       {"count", Value(static_cast<int>(total))},
                       {"immediateUpdate", Value(true)},
                       {"variables", Value(names)}};
        deliver(foundation::json::serialize(Value(message)));
        EXPECT_EQ(lastLogLine(), kLogPrefix +
                                     "Handling EVENT_VALUE_TYPE_REFRESH immediate update = 1 "
                                     "with variables:" +
                                     description);
        ASSERT_EQ(observer.refreshes.size(), 1u);
        ASSERT_EQ(observer.refreshes[0].size(), total);
        EXPECT_EQ(observer.refreshes[0].back(), "v" + std::to_string(total - 1));
    }
}

TEST_F(PubSubVMImplTest, SelectionIsParsedFromTheTextInsideTheMessage) {
    deliver(
        R"({"type":"propertySet","propertyName":"Selection",)"
        R"("propertyValue":{"selectedRows":"[{\"start\":2,\"end\":4},{\"end\":9,\"start\":7.8}]"}})");
    deliver(R"({"type":"propertySet","propertyName":"Selection",)"
            R"("propertyValue":{"selectedRows":"[]"}})");
    ASSERT_EQ(observer.selections.size(), 2u);
    EXPECT_EQ(observer.selections[0], (std::vector<RowRange>{{2, 4}, {7, 9}}));
    EXPECT_TRUE(observer.selections[1].empty());
    EXPECT_TRUE(logged("Handling EVENT_VALUE_TYPE_PROPERTY_SET"));
    EXPECT_TRUE(logged("Handling EVENT_VALUE_TYPE_PROPERTY_SET: propertyName = Selection"));
    EXPECT_TRUE(logged("Handling EVENT_PROPERTY_VALUE_TYPE_SELECTION"));
    EXPECT_TRUE(logged("Added Row Range (2, 4)"));
    EXPECT_TRUE(logged("Added Row Range (7, 9)"));

    // A real array (as the server sends it) or broken text is refused; nothing reaches anyone.
    observer.calls.clear();
    deliver(R"({"type":"propertySet","propertyName":"Selection",)"
            R"("propertyValue":{"selectedRows":[{"start":1,"end":2}]}})");
    EXPECT_NE(lastLogLine().find("Caught a runtime error: invalid conversion"), std::string::npos);
    deliver(R"({"type":"propertySet","propertyName":"Selection",)"
            R"("propertyValue":{"selectedRows":"[{\"start\":1"}})");
    EXPECT_NE(lastLogLine().find("Caught a runtime error: "), std::string::npos);
    deliver(R"({"type":"propertySet","propertyName":"Selection",)"
            R"("propertyValue":{"selectedRows":"[5]"}})");
    EXPECT_NE(lastLogLine().find("Caught a runtime error: invalid conversion: double"),
              std::string::npos);
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubVMImplTest, FocusIsReadFromTheTopLevelOnly) {
    deliver(R"({"HasFocus":true,"propertyName":"HasFocus","type":"propertySet"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Handling EVENT_PROPERTY_VALUE_TYPE_FOCUS 1");
    deliver(R"({"HasFocus":false,"propertyName":"HasFocus","type":"propertySet"})");
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"focus 1", "focus 0"}));

    deliver(R"({"propertyValue":true,"propertyName":"HasFocus","type":"propertySet"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Caught a runtime error: invalid conversion: "
                                          "foundation::json::Undefined to bool");
    EXPECT_EQ(observer.calls.size(), 2u);
}

TEST_F(PubSubVMImplTest, GridSizeChange) {
    deliver(R"({"type":"propertySet","propertyName":"GridSize"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Updating selection after GridSize change");
    EXPECT_EQ(observer.calls, std::vector<std::string>{"gridSize"});
}

TEST_F(PubSubVMImplTest, ObserverFailuresAreCaughtByKind) {
    struct Throwing : VMObserver {
        std::function<void()> raise;
        void handleSelectionChanged(std::vector<RowRange>) override {}
        void handleFocusChanged(bool) override {}
        void handleDoubleClick(std::string) override {}
        void handleDrop(std::string, std::string) override {}
        void handleRefresh(std::vector<std::string>, bool) override {}
        void gridSizeChanged() override { raise(); }
    } throwing;
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
        throwing.raise = raise;
        deliver(R"({"type":"propertySet","propertyName":"GridSize"})");
        EXPECT_EQ(lastLogLine(), kLogPrefix + expectedLog);
    }
    // The observer after the failing one is not called for that message.
    EXPECT_TRUE(observer.calls.empty());
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

    settings::core::Settings columns() const {
        return settings::standalone::getSettingsRoot().node("zentra.desktop.workspace.columns");
    }
    std::vector<double> storedWidths() const {
        return columns().get<std::vector<double>>("ColumnWidths");
    }

    static inline std::string folder;
};

TEST_F(PubSubVMImplSettingsTest, ColumnWidthIsWrittenToTheUserSettings) {
    columns().set("ColumnWidths", std::vector<double>{100, 100, 100}, "user");
    deliver(R"({"type":"propertySet","propertyName":"ColumnModelProperty",)"
            R"("propertyValue":{"property":"ColumnWidth","column":1,"value":250.5}})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Setting ColumnWidth of 1 to 250.5");
    EXPECT_EQ(storedWidths(), (std::vector<double>{100, 250.5, 100}));

    // Persisted: a fresh read of the user file sees it.
    settings::standalone::reloadSettings();
    EXPECT_EQ(storedWidths(), (std::vector<double>{100, 250.5, 100}));
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(folder) / "settings.json"));
}

TEST_F(PubSubVMImplSettingsTest, BadColumnChangesNothing) {
    const std::vector<double> widths{80, 90};
    columns().set("ColumnWidths", widths, "user");

    // Past the end, negative: an ordinary failure, caught and logged, never an out-of-bounds
    // write.
    for (const char* column : {"2", "-1", "4294967295"}) {
        deliver(std::string(R"({"type":"propertySet","propertyName":"ColumnModelProperty",)") +
                R"("propertyValue":{"property":"ColumnWidth","column":)" + column +
                R"(,"value":10}})");
        EXPECT_EQ(lastLogLine().rfind(kLogPrefix + "Caught a standard exception: ", 0), 0u)
            << column << ": " << lastLogLine();
    }
    // Another column property is ignored without a log line; a width that is not a number is
    // refused.
    deliver(R"({"type":"propertySet","propertyName":"ColumnModelProperty",)"
            R"("propertyValue":{"property":"Visible","column":0,"value":10}})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "Handling EVENT_VALUE_TYPE_PROPERTY_SET: propertyName = "
                                          "ColumnModelProperty");
    deliver(R"({"type":"propertySet","propertyName":"ColumnModelProperty",)"
            R"("propertyValue":{"property":"ColumnWidth","column":0,"value":"10"}})");
    EXPECT_EQ(lastLogLine(),
              kLogPrefix + "Caught a runtime error: invalid conversion: std::string to double");
    EXPECT_EQ(storedWidths(), widths);
}

TEST_F(PubSubVMImplTest, SendersPublishTheExactMessages) {
    endpoint.selectedRowsUpdated({{2, 4}, {-1, 7}});
    EXPECT_TRUE(logged("selectedRowsUpdated: 2 row ranges selected"));
    EXPECT_TRUE(logged("selectedRowsUpdated adding range: start=2 end=4"));
    EXPECT_TRUE(logged("selectedRowsUpdated adding range: start=-1 end=7"));
    endpoint.selectedVariablesUpdated({"a", "b \"q\""});
    EXPECT_TRUE(logged("selectedVariablesUpdated: 2 variables selected"));
    endpoint.variableRenamed("old", "new");
    EXPECT_TRUE(logged("variableRenamed from: old to: new"));
    endpoint.selectedRowsUpdated({});

    const auto published = service->published();
    ASSERT_EQ(published.size(), 4u);
    for (const auto& p : published)
        EXPECT_EQ(p.channel, kChannel);
    EXPECT_EQ(published[0].text, R"({"selectedRows":[{"end":4,"start":2},{"end":7,"start":-1}],)"
                                 R"("type":"SelectedRowsChanged"})");
    EXPECT_EQ(published[1].text,
              R"({"Variables":["a","b \"q\""],"type":"SelectedVariablesChanged"})");
    EXPECT_EQ(published[2].text, R"({"newName":"new","oldName":"old","type":"VariableRenamed"})");
    EXPECT_EQ(published[3].text, R"({"selectedRows":[],"type":"SelectedRowsChanged"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "sendResponse " + published[3].text);

    // What the server sends parses back to the same values.
    Object back;
    const std::string& text = published[1].text;
    ASSERT_EQ(JsonTypedValues::parseObject(text.data(), text.data() + text.size(), back), 0);
    EXPECT_EQ(back["Variables"], Value(Array{Value("a"), Value("b \"q\"")}));
}

TEST_F(PubSubVMImplTest, SubscriptionFailureAndLifetime) {
    service->failNextSubscribe(RecordingMessageService::SubscribeFailure::InvalidFuture);
    try {
        PubSubVMImpl failing(service, "/x");
        FAIL() << "construction should fail";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Future state isn't valid!");
    }
    {
        PubSubVMImpl second(service, "/y");
        EXPECT_TRUE(logged("PubSubVMImpl on channel /y"));
        EXPECT_EQ(service->subscriberCount("/y"), 1u);
    }
    EXPECT_EQ(service->subscriberCount("/y"), 0u);
}

} // namespace
