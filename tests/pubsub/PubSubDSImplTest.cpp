#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/pubsub/PubSubDSImpl.hpp>

#include "support/RecordingMessageService.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;
using workspace_browser_startup::JsonTypedValues;
using wsb_test::RecordingMessageService;

namespace {

const std::string kChannel = "/ws_who";
const std::string kLogPrefix = "4 zentra::datatools::PubSubDS: ";

// Records each call as one line of text and keeps a pointer to every event it was handed, the
// way a view model may keep referring to it.
class RecordingObserver : public DSObserver {
public:
    std::vector<std::string> calls;
    std::vector<const DSEvent*> events;

    void handleClientReady() override { calls.push_back("ready"); }
    void handleSetViewportRange(const DSEvent& e) override { record("viewport", e); }
    void handleClientGetSize() override { calls.push_back("getSize"); }
    void handleClientGetData(const DSEvent& e) override { record("getData", e); }
    void handleClientSetData(const DSEvent& e) override { record("setData", e); }
    void handleClientGetMetaData(const DSEvent& e) override { record("getMetaData", e); }
    void handleClientGetTableMetaData(const DSEvent& e) override { record("getTable", e); }
    void handleClientGetColumnMetaData(const DSEvent& e) override { record("getColumn", e); }
    void handleClientGetRowMetaData(const DSEvent& e) override { record("getRow", e); }
    void handleClientGetCellMetaData(const DSEvent& e) override { record("getCell", e); }
    void handleClientSetTableMetaData(const DSModelEvent&) override { calls.push_back("setTable"); }
    void handleClientSetColumnMetaData(const DSModelEvent&) override {
        calls.push_back("setColumn");
    }
    void handleClientSetRowMetaData(const DSModelEvent&) override { calls.push_back("setRow"); }
    void handleClientSetCellMetaData(const DSModelEvent&) override { calls.push_back("setCell"); }
    void handleSortChanged(int column, bool ascending) override {
        calls.push_back("sort " + std::to_string(column) + " " + (ascending ? "asc" : "desc"));
    }

private:
    void record(const std::string& name, const DSEvent& e) {
        calls.push_back(name);
        events.push_back(&e);
    }
};

class PubSubDSImplTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingMessageService> service = std::make_shared<RecordingMessageService>();
    std::ostringstream log;
    std::shared_ptr<void> sink =
        foundation::log::addConsoleSink(4, "zentra::datatools::PubSubDS", &log);
    PubSubDSImpl endpoint{service, kChannel};
    RecordingObserver observer;

    void SetUp() override { endpoint.addDSObserver(&observer); }

    void deliver(const std::string& text) { ASSERT_EQ(service->deliver(kChannel, text), 1u); }

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

    // The published message parsed back into a JSON object.
    Object publishedObject(std::size_t index = 0) const {
        const auto published = service->published();
        EXPECT_GT(published.size(), index);
        if (published.size() <= index)
            return {};
        EXPECT_EQ(published[index].channel, kChannel);
        const std::string& text = published[index].text;
        Object out;
        EXPECT_EQ(JsonTypedValues::parseObject(text.data(), text.data() + text.size(), out), 0)
            << text;
        return out;
    }
};

struct CodeCase {
    int code;
    const char* logName;
    const char* call; // nullptr: logged only
};

TEST_F(PubSubDSImplTest, EveryClientCodeIsLoggedAndReachesItsOperation) {
    const CodeCase cases[] = {
        {10, "CLIENT_MSG_SET_VIEWPORT", "viewport"},
        {11, "CLIENT_MSG_GET_DATA", "getData"},
        {13, "CLIENT_MSG_GET_SIZE", "getSize"},
        {14, "CLIENT_MSG_GET_METADATA", "getMetaData"},
        {15, "CLIENT_MSG_SET_TABLE_METADATA", nullptr},
        {16, "CLIENT_MSG_SET_COL_METADATA", nullptr},
        {17, "CLIENT_MSG_SET_ROW_METADATA", nullptr},
        {18, "CLIENT_MSG_SET_CELL_METADATA", nullptr},
        {19, "CLIENT_MSG_SET_READY", "ready"},
        {20, "CLIENT_MSG_GET_TABLE_METADATA", "getTable"},
        {21, "CLIENT_MSG_GET_COL_METADATA", "getColumn"},
        {22, "CLIENT_MSG_GET_ROW_METADATA", "getRow"},
        {23, "CLIENT_MSG_GET_CELL_METADATA", "getCell"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        observer.calls.clear();
        observer.events.clear();
        const std::string text = R"({"eventType":)" + std::to_string(c.code) +
                                 R"(,"startRow":1,"endRow":2,"startColumn":3,"endColumn":4,)"
                                 R"("fullStartRow":90,"fullEndRow":91})";
        deliver(text);
        const auto lines = logLines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[lines.size() - 2], kLogPrefix + "PubSubDSImpl message recieved " + text);
        EXPECT_EQ(lines.back(), kLogPrefix + "Handling " + c.logName);
        if (!c.call) {
            EXPECT_TRUE(observer.calls.empty());
            continue;
        }
        ASSERT_EQ(observer.calls, std::vector<std::string>{c.call});
        if (observer.events.empty())
            continue; // operations without an event argument
        const DSEvent& e = *observer.events.front();
        EXPECT_EQ(e.eventType, c.code);
        EXPECT_EQ(e.source, "client");
        EXPECT_EQ(std::vector<int>({e.startRow, e.endRow, e.startColumn, e.endColumn}),
                  std::vector<int>({1, 2, 3, 4}));
        // The full range follows the range; the message's own full-range members are ignored.
        EXPECT_EQ(
            std::vector<int>({e.fullStartRow, e.fullEndRow, e.fullStartColumn, e.fullEndColumn}),
            std::vector<int>({1, 2, 3, 4}));
        EXPECT_TRUE(e.data.empty());
    }
}

TEST_F(PubSubDSImplTest, CodesAreConvertedLikeIntegersAndUnknownOnesReachNobody) {
    deliver(R"({"eventType":"11"})");
    deliver(R"({"eventType":11.9})");
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"getData", "getData"}));
    // Absent members read as 0, not as the -1 of a default event.
    EXPECT_EQ(observer.events.back()->startColumn, 0);
    EXPECT_EQ(observer.events.back()->fullEndRow, 0);

    observer.calls.clear();
    const std::pair<const char*, const char*> unknown[] = {
        {R"({"eventType":-3.5})", "-3"}, {R"({"eventType":9})", "9"},
        {R"({"eventType":25})", "25"},   {R"({"startRow":1})", "0"},
        {R"({"eventType":null})", "0"},
    };
    for (const auto& [text, printed] : unknown) {
        deliver(text);
        EXPECT_EQ(lastLogLine(), kLogPrefix + "ERROR: Unknown message type: " + printed) << text;
    }
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubDSImplTest, SetDataNamesOneCellAndCarriesTheTextAsAString) {
    deliver(R"({"eventType":12,"row":7,"column":2,"data":"42","startRow":1,"endRow":5})");
    ASSERT_EQ(observer.calls, std::vector<std::string>{"setData"});
    const DSEvent& e = *observer.events.front();
    EXPECT_EQ(std::vector<int>({e.startRow, e.endRow, e.startColumn, e.endColumn}),
              std::vector<int>({7, 7, 2, 2}));
    // The full range keeps what the generic decoding gave it.
    EXPECT_EQ(std::vector<int>({e.fullStartRow, e.fullEndRow, e.fullStartColumn, e.fullEndColumn}),
              std::vector<int>({1, 5, 0, 0}));
    ASSERT_EQ(e.data.size(), 1u);
    EXPECT_EQ(e.data[0], Value("42"));
}

TEST_F(PubSubDSImplTest, SortPassesColumnAndDirection) {
    deliver(R"({"eventType":24,"ascending":false})");
    deliver(R"({"eventType":24,"column":3,"ascending":true})");
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"sort 0 desc", "sort 3 asc"}));
}

TEST_F(PubSubDSImplTest, ConversionFailuresPropagateReachNoObserverAndLeaveTheEndpointUsable) {
    const char* bad[] = {
        R"({"eventType":[11]})",                   // array where an integer is expected
        R"({"eventType":11,"startRow":{}})",       // object where an integer is expected
        R"({"eventType":11,"endRow":3000000000})", // outside the 32-bit range
        R"({"eventType":12,"row":1,"column":1,"data":5})",
        R"({"eventType":24,"column":1})",         // no "ascending"
        R"({"eventType":24,"ascending":"true"})", // a string is not a boolean
    };
    for (const char* text : bad)
        EXPECT_ANY_THROW(service->deliver(kChannel, text)) << text;
    EXPECT_TRUE(observer.calls.empty());

    try {
        service->deliver(kChannel, R"({"eventType":[11]})");
        FAIL() << "expected a conversion error";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "invalid conversion: std::vector<foundation::json::Value> to int");
    }

    deliver(R"({"eventType":13})");
    EXPECT_EQ(observer.calls, std::vector<std::string>{"getSize"});
}

TEST_F(PubSubDSImplTest, ObserverExceptionStopsTheRestOfTheList) {
    struct Throwing : RecordingObserver {
        void handleClientGetSize() override { throw std::logic_error("observer failed"); }
    } throwing;
    endpoint.removeDSObserver(&observer);
    endpoint.addDSObserver(&throwing);
    endpoint.addDSObserver(&observer);
    EXPECT_THROW(service->deliver(kChannel, R"({"eventType":13})"), std::logic_error);
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubDSImplTest, ObserversRegisteredTwiceAreCalledTwiceAndRemovedTogether) {
    RecordingObserver other;
    endpoint.addDSObserver(&observer); // second registration
    endpoint.addDSObserver(&other);
    deliver(R"({"eventType":19})");
    EXPECT_EQ(observer.calls.size(), 2u);
    EXPECT_EQ(other.calls.size(), 1u);

    endpoint.removeDSObserver(&observer);
    RecordingObserver unknown;
    endpoint.removeDSObserver(&unknown);
    deliver(R"({"eventType":19})");
    EXPECT_EQ(observer.calls.size(), 2u);
    EXPECT_EQ(other.calls.size(), 2u);
}

TEST_F(PubSubDSImplTest, ParseFailuresAreLoggedAndStillDispatched) {
    deliver("not json at all");
    auto lines = logLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], kLogPrefix + "convertMessageToJson JSON Parse Error");
    EXPECT_EQ(lines.back(), kLogPrefix + "ERROR: Unknown message type: 0");

    // Members read before the failure stay and are decoded.
    deliver(R"({"eventType":13,"startRow":)");
    EXPECT_EQ(observer.calls, std::vector<std::string>{"getSize"});

    // An empty message is a parse failure too, not a crash.
    EXPECT_EQ(service->deliver(kChannel, ""), 1u);
}

TEST_F(PubSubDSImplTest, ConvertMessageToJsonFlagsSuccessAndKeepsTypedIntegers) {
    using connector::message_service::JsonMessage;
    Object good = endpoint.convertMessageToJson(
        JsonMessage(std::string_view(R"({"vxtype":"int64","vxdata":[9007199254740993]})")));
    EXPECT_EQ(good["parseSuccess"], Value(true));
    ASSERT_TRUE(good["vxdata"].is<Array>());
    EXPECT_EQ(good["vxdata"].get<Array>(), Array{Value(9007199254740993L)});

    Object bad = endpoint.convertMessageToJson(JsonMessage(std::string_view(R"({"a":1,)")));
    EXPECT_EQ(bad["parseSuccess"], Value(false));
    EXPECT_EQ(bad["a"], Value(1));

    Object empty = endpoint.convertMessageToJson(JsonMessage());
    EXPECT_EQ(empty["parseSuccess"], Value(false));
}

TEST_F(PubSubDSImplTest, DecodedEventsOutliveTheirDispatch) {
    deliver(R"({"eventType":12,"row":3,"column":4,"data":"a text long enough to need the heap"})");
    for (int i = 0; i < 200; ++i)
        deliver(R"({"eventType":11,"startRow":)" + std::to_string(i) + "}");
    // Earlier events are still readable (a sanitizer build catches any early release).
    ASSERT_EQ(observer.events.size(), 201u);
    EXPECT_EQ(observer.events.front()->data.at(0), Value("a text long enough to need the heap"));
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(observer.events[1 + i]->startRow, i);
    // Each message has its own record.
    EXPECT_NE(observer.events[1], observer.events[2]);
}

TEST_F(PubSubDSImplTest, SubscriptionLastsAsLongAsTheEndpoint) {
    EXPECT_EQ(service->subscriberCount(kChannel), 1u);
    {
        PubSubDSImpl second(service, "/other");
        EXPECT_EQ(service->subscriberCount("/other"), 1u);
    }
    EXPECT_EQ(service->subscriberCount("/other"), 0u);
    EXPECT_EQ(service->subscriberCount(kChannel), 1u);
}

TEST_F(PubSubDSImplTest, SubscriptionFailuresStopConstruction) {
    using Failure = RecordingMessageService::SubscribeFailure;
    service->failNextSubscribe(Failure::InvalidFuture);
    try {
        PubSubDSImpl failing(service, "/x");
        FAIL() << "construction should fail";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Future state isn't valid!");
    }
    service->failNextSubscribe(Failure::StoredException);
    EXPECT_THROW(PubSubDSImpl(service, "/x"), std::runtime_error);
    service->failNextSubscribe(Failure::Cancelled);
    try {
        PubSubDSImpl failing(service, "/x");
        FAIL() << "construction should fail";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Future has been cancelled.");
    }
}

TEST_F(PubSubDSImplTest, SizeUpdatedPublishesTheExactMessage) {
    endpoint.sizeUpdated(0, 13);
    const auto published = service->published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].text,
              R"({"columnCount":13,"eventType":1,"rowCount":0,"source":"server"})");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "sendResponse " + published[0].text);
}

TEST_F(PubSubDSImplTest, DataUpdatedSendsThePageAsTextAndCountsFromTheRange) {
    DSEvent page;
    page.startRow = 5;
    page.endRow = 9;
    page.startColumn = 0;
    page.endColumn = 3;
    page.fullStartRow = 0;
    page.fullEndRow = 99;
    page.fullStartColumn = 0;
    page.fullEndColumn = 12;
    page.sizeChanged = true;
    page.data = {Value(Array{Value("x"), Value(1.5)}), Value(Object{{"k", Value(true)}})};
    endpoint.dataUpdated(page);

    const Object expected{
        {"source", Value("server")},   {"eventType", Value(2)},
        {"startRow", Value(5)},        {"endRow", Value(9)},
        {"startColumn", Value(0)},     {"endColumn", Value(3)},
        {"fullStartRow", Value(0)},    {"fullEndRow", Value(99)},
        {"fullStartColumn", Value(0)}, {"fullEndColumn", Value(12)},
        {"rowCount", Value(5)},        {"columnCount", Value(4)},
        {"sizeChanged", Value(true)},  {"partialData", Value(R"([["x",1.5],{"k":true}])")},
    };
    EXPECT_EQ(publishedObject(), expected);

    // An empty page is the two-character text, and a default event counts one row and column.
    endpoint.dataUpdated(DSEvent{});
    Object empty = publishedObject(1);
    EXPECT_EQ(empty["partialData"], Value("[]"));
    EXPECT_EQ(empty["rowCount"], Value(1));
    EXPECT_EQ(empty["columnCount"], Value(1));
    EXPECT_EQ(empty["sizeChanged"], Value(false));
    EXPECT_EQ(empty["startRow"], Value(-1));
}

DSModelEventData element(int row, int column, Object properties) {
    return DSModelEventData{row, column, std::move(properties)};
}

TEST_F(PubSubDSImplTest, ColumnAndRowMetaDataAreNumberedFromOne) {
    DSModelEvent columns;
    columns.eventType = 4;
    columns.startRow = 2;
    columns.endRow = 3;
    columns.startColumn = 0;
    columns.endColumn = 1;
    columns.fullStartColumn = 0;
    columns.fullEndColumn = 12;
    columns.data =
        DSModelEvent::List{element(9, 0, {{"Label", Value("Name")}, {"ColumnNumber", Value(77)}}),
                           element(9, 1, {{"Label", Value("Value")}})};
    endpoint.metaDataUpdated(columns);
    EXPECT_EQ(lastLogLine(), kLogPrefix + "sendResponse " + service->published().back().text);
    EXPECT_NE(log.str().find(kLogPrefix + "metaDataUpdated startRow = 2, endRow = 3\n"),
              std::string::npos);

    const Object expectedColumns{
        {"eventType", Value(4)},
        {"source", Value("server")},
        {"metaDataType", Value("ColumnModelProperties")},
        {"properties",
         Value(Array{Value(Object{{"Label", Value("Name")}, {"ColumnNumber", Value(1)}}),
                     Value(Object{{"Label", Value("Value")}, {"ColumnNumber", Value(2)}})})},
        {"startColumn", Value(0)},
        {"endColumn", Value(1)},
        {"fullStartColumn", Value(0)},
        {"fullEndColumn", Value(12)},
    };
    EXPECT_EQ(publishedObject(0), expectedColumns);

    DSModelEvent rows;
    rows.eventType = 5;
    rows.startRow = 4;
    rows.endRow = 4;
    rows.fullStartRow = 0;
    rows.fullEndRow = 10;
    rows.data = DSModelEvent::List{element(4, 8, {{"Bold", Value(true)}})};
    endpoint.metaDataUpdated(rows);
    const Object expectedRows{
        {"eventType", Value(5)},
        {"source", Value("server")},
        {"metaDataType", Value("RowModelProperties")},
        {"properties", Value(Array{Value(Object{{"Bold", Value(true)}, {"RowNumber", Value(5)}})})},
        {"startRow", Value(4)},
        {"endRow", Value(4)},
        {"fullStartRow", Value(0)},
        {"fullEndRow", Value(10)},
    };
    EXPECT_EQ(publishedObject(1), expectedRows);
}

TEST_F(PubSubDSImplTest, TableCellAndUnknownMetaData) {
    DSModelEvent table;
    table.eventType = 3;
    endpoint.metaDataUpdated(table);
    EXPECT_EQ(service->published().at(0).text,
              R"({"eventType":3,"metaDataType":"TableModelProperties","properties":[],)"
              R"("source":"server"})");

    DSModelEvent cells;
    cells.eventType = 6;
    cells.startRow = 1;
    cells.data =
        DSModelEvent::Grid{{element(0, 0, {{"Editable", Value(false)}}), element(0, 1, {})},
                           {},
                           {element(2, 5, {{"RowNumber", Value(-1)}})}};
    endpoint.metaDataUpdated(cells);
    const Object expectedCells{
        {"eventType", Value(6)},
        {"source", Value("server")},
        {"metaDataType", Value("CellModelProperties")},
        {"properties",
         Value(Array{
             Value(Array{Value(Object{{"Editable", Value(false)},
                                      {"ColumnNumber", Value(1)},
                                      {"RowNumber", Value(1)}}),
                         Value(Object{{"ColumnNumber", Value(2)}, {"RowNumber", Value(1)}})}),
             Value(Array{}),
             Value(Array{Value(Object{{"ColumnNumber", Value(6)}, {"RowNumber", Value(3)}})}),
         })},
    };
    EXPECT_EQ(publishedObject(1), expectedCells);

    DSModelEvent other;
    other.eventType = 7;
    other.startRow = 1;
    other.data = DSModelEvent::List{element(0, 0, {{"x", Value(1)}})};
    endpoint.metaDataUpdated(other);
    EXPECT_EQ(service->published().at(2).text, R"({"eventType":7,"source":"server"})");
}

TEST_F(PubSubDSImplTest, WrongListKindForMetaDataPublishesNothing) {
    DSModelEvent cells;
    cells.eventType = 6; // needs the per-row lists
    cells.data = DSModelEvent::List{element(0, 0, {})};
    EXPECT_THROW(endpoint.metaDataUpdated(cells), std::bad_variant_access);
    for (int type : {3, 4, 5}) {
        DSModelEvent flat;
        flat.eventType = type;
        flat.data = DSModelEvent::Grid{{element(0, 0, {})}};
        EXPECT_THROW(endpoint.metaDataUpdated(flat), std::bad_variant_access) << type;
    }
    EXPECT_TRUE(service->published().empty());
}

TEST_F(PubSubDSImplTest, ExtremeIndicesDoNotOverflow) {
    DSEvent page;
    page.startRow = -2147483647 - 1;
    page.endRow = 2147483647;
    page.startColumn = 0;
    page.endColumn = -1;
    endpoint.dataUpdated(page);
    Object sent = publishedObject();
    EXPECT_EQ(sent["rowCount"], Value(4294967296.0));
    EXPECT_EQ(sent["columnCount"], Value(0));

    DSModelEvent columns;
    columns.eventType = 4;
    columns.data = DSModelEvent::List{element(0, 2147483647, {})};
    endpoint.metaDataUpdated(columns);
    Object meta = publishedObject(1);
    EXPECT_EQ(meta["properties"].get<Array>().at(0).get<Object>().at("ColumnNumber"),
              Value(2147483648.0));
}

TEST_F(PubSubDSImplTest, SendArrayResponsePublishesTheArray) {
    endpoint.sendArrayResponse({Value(1), Value("two"), Value(foundation::json::Null{})});
    const auto published = service->published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].text, R"([1,"two",null])");
    EXPECT_EQ(lastLogLine(), kLogPrefix + "sendArrayResponse " + published[0].text);
}

TEST_F(PubSubDSImplTest, GenerateJsonDataAndGetMapKeys) {
    EXPECT_EQ(endpoint.generateJsonData(0, 1, 0, 1), R"([["0_0", "0_1"], ["1_0", "1_1"]])");
    EXPECT_EQ(endpoint.generateJsonData(3, 2, 0, 1), "[]");
    EXPECT_EQ(endpoint.generateJsonData(-1, 0, 5, 4), "[[], []]");
    // A range ending at the largest int terminates.
    EXPECT_EQ(endpoint.generateJsonData(2147483647, 2147483647, 2147483647, 2147483647),
              R"([["2147483647_2147483647"]])");

    EXPECT_EQ(PubSubDSImpl::getMapKeys({{"b", "1"}, {"a", "2"}, {"c", ""}}),
              (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(PubSubDSImpl::getMapKeys({}).empty());
}

} // namespace
