#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/pubsub/PubSubDSImpl.hpp>

#include "support/LogCapture.hpp"
#include "support/RecordingMessageService.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

using connector::message_service::JsonMessage;
using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;
using workspace_browser_startup::JsonTypedValues;
using wsb_test::RecordingMessageService;

namespace {

const std::string kChannel = "/ws_who";

// Records each call as a word and keeps a pointer to every event it was handed, the way a view
// model may keep referring to it.
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
    void handleClientSetTableMetaData(const DSModelEvent&) override { calls.push_back("setMeta"); }
    void handleClientSetColumnMetaData(const DSModelEvent&) override { calls.push_back("setMeta"); }
    void handleClientSetRowMetaData(const DSModelEvent&) override { calls.push_back("setMeta"); }
    void handleClientSetCellMetaData(const DSModelEvent&) override { calls.push_back("setMeta"); }
    void handleSortChanged(int column, bool ascending) override {
        calls.push_back("sort " + std::to_string(column) + (ascending ? " asc" : " desc"));
    }

private:
    void record(const std::string& name, const DSEvent& e) {
        calls.push_back(name);
        events.push_back(&e);
    }
};

std::vector<int> range(const DSEvent& e) {
    return {e.startRow, e.endRow, e.startColumn, e.endColumn};
}
std::vector<int> fullRange(const DSEvent& e) {
    return {e.fullStartRow, e.fullEndRow, e.fullStartColumn, e.fullEndColumn};
}

DSModelEventData element(int row, int column, Object properties) {
    return DSModelEventData{row, column, std::move(properties)};
}

class PubSubDSImplTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingMessageService> service = std::make_shared<RecordingMessageService>();
    wsb_test::LogCapture log{"zentra::datatools::PubSubDS"};
    PubSubDSImpl endpoint{service, kChannel};
    RecordingObserver observer;

    void SetUp() override { endpoint.addDSObserver(&observer); }

    void deliver(const std::string& text) { ASSERT_EQ(service->deliver(kChannel, text), 1u); }

    std::string publishedText(std::size_t index) const {
        const auto published = service->published();
        EXPECT_GT(published.size(), index);
        if (published.size() <= index)
            return {};
        EXPECT_EQ(published[index].channel, kChannel);
        return published[index].text;
    }
    // The published message parsed back into a JSON object.
    Object publishedObject(std::size_t index) const {
        const std::string text = publishedText(index);
        Object out;
        EXPECT_EQ(JsonTypedValues::parseObject(text.data(), text.data() + text.size(), out), 0)
            << text;
        return out;
    }
};

TEST_F(PubSubDSImplTest, EveryClientCodeIsLoggedAndReachesItsOperation) {
    const struct {
        int code;
        const char* logName;
        const char* call; // nullptr: logged only
    } cases[] = {
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
        const auto texts = log.texts();
        ASSERT_GE(texts.size(), 2u);
        EXPECT_EQ(texts[texts.size() - 2], "PubSubDSImpl message recieved " + text);
        EXPECT_EQ(texts.back(), std::string("Handling ") + c.logName);
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
        EXPECT_EQ(range(e), std::vector<int>({1, 2, 3, 4}));
        // The full range follows the range; the message's own full-range members are ignored.
        EXPECT_EQ(fullRange(e), std::vector<int>({1, 2, 3, 4}));
        EXPECT_TRUE(e.data.empty());
    }
}

TEST_F(PubSubDSImplTest, CodesAreConvertedLikeIntegersAndUnknownOnesReachNobody) {
    deliver(R"({"eventType":"11"})");
    deliver(R"({"eventType":11.9})");
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"getData", "getData"}));
    // Absent members read as 0, not as the -1 of a default event.
    EXPECT_EQ(range(*observer.events.back()), std::vector<int>({0, 0, 0, 0}));

    observer.calls.clear();
    const std::pair<const char*, const char*> unknown[] = {
        {R"({"eventType":-3.5})", "-3"},
        {R"({"eventType":9})", "9"},
        {R"({"eventType":25})", "25"},
        {R"({"startRow":1})", "0"},
    };
    for (const auto& [text, printed] : unknown) {
        deliver(text);
        EXPECT_EQ(log.last(), std::string("ERROR: Unknown message type: ") + printed) << text;
    }
    EXPECT_TRUE(observer.calls.empty());
}

TEST_F(PubSubDSImplTest, EditAndSortReadTheirOwnMembers) {
    deliver(R"({"eventType":12,"row":7,"column":2,"data":"42","startRow":1,"endRow":5})");
    ASSERT_EQ(observer.calls, std::vector<std::string>{"setData"});
    const DSEvent& e = *observer.events.front();
    // An edit names one cell; the full range keeps what the generic decoding gave it.
    EXPECT_EQ(range(e), std::vector<int>({7, 7, 2, 2}));
    EXPECT_EQ(fullRange(e), std::vector<int>({1, 5, 0, 0}));
    EXPECT_EQ(e.data, std::vector<Value>{Value("42")});

    deliver(R"({"eventType":24,"ascending":false})");
    deliver(R"({"eventType":24,"column":3,"ascending":true})");
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"setData", "sort 0 desc", "sort 3 asc"}));
}

TEST_F(PubSubDSImplTest, ConversionFailuresPropagateReachNoObserverAndLeaveTheEndpointUsable) {
    const char* bad[] = {
        R"({"eventType":11,"startRow":{}})",       // object where an integer is expected
        R"({"eventType":11,"endRow":3000000000})", // outside the 32-bit range
        R"({"eventType":12,"row":1,"column":1,"data":5})",
        R"({"eventType":24,"column":1})",         // no "ascending"
        R"({"eventType":24,"ascending":"true"})", // a string is not a boolean
    };
    for (const char* text : bad)
        EXPECT_ANY_THROW(service->deliver(kChannel, text)) << text;
    try {
        service->deliver(kChannel, R"({"eventType":[11]})");
        ADD_FAILURE() << "expected a conversion error";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "invalid conversion: std::vector<foundation::json::Value> to int");
    }
    EXPECT_TRUE(observer.calls.empty());

    deliver(R"({"eventType":13})");
    EXPECT_EQ(observer.calls, std::vector<std::string>{"getSize"});
}

TEST_F(PubSubDSImplTest, ObserversRegisteredTwiceAreCalledTwiceAndRemovedTogether) {
    RecordingObserver other, unknown;
    endpoint.addDSObserver(&observer);
    endpoint.addDSObserver(&other);
    deliver(R"({"eventType":19})");
    EXPECT_EQ(observer.calls.size(), 2u);
    EXPECT_EQ(other.calls.size(), 1u);

    endpoint.removeDSObserver(&observer);
    endpoint.removeDSObserver(&unknown);
    deliver(R"({"eventType":19})");
    EXPECT_EQ(observer.calls.size(), 2u);
    EXPECT_EQ(other.calls.size(), 2u);
}

TEST_F(PubSubDSImplTest, ParseFailuresAreFlaggedLoggedAndStillDispatched) {
    deliver("not json at all");
    EXPECT_TRUE(log.contains("convertMessageToJson JSON Parse Error"));
    EXPECT_EQ(log.last(), "ERROR: Unknown message type: 0");
    // Members read before the failure stay and are decoded.
    deliver(R"({"eventType":13,"startRow":)");
    EXPECT_EQ(observer.calls, std::vector<std::string>{"getSize"});
    EXPECT_EQ(service->deliver(kChannel, ""), 1u);

    Object bad = endpoint.convertMessageToJson(JsonMessage(std::string_view(R"({"a":1,)")));
    EXPECT_EQ(bad, (Object{{"a", Value(1)}, {"parseSuccess", Value(false)}}));
    // Typed integers keep their full precision through the endpoint.
    Object good = endpoint.convertMessageToJson(
        JsonMessage(std::string_view(R"({"vxtype":"int64","vxdata":[9007199254740993]})")));
    EXPECT_EQ(good["parseSuccess"], Value(true));
    EXPECT_EQ(good["vxdata"], Value(Array{Value(9007199254740993L)}));
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
}

TEST_F(PubSubDSImplTest, SubscriptionFailuresStopConstructionAndDestructionUnsubscribes) {
    using Failure = RecordingMessageService::SubscribeFailure;
    const std::pair<Failure, const char*> failures[] = {
        {Failure::InvalidFuture, "Future state isn't valid!"},
        {Failure::StoredException, "subscription refused"},
        {Failure::Cancelled, "Future has been cancelled."},
    };
    for (const auto& [failure, text] : failures) {
        service->failNextSubscribe(failure);
        try {
            PubSubDSImpl failing(service, "/x");
            ADD_FAILURE() << "construction should fail";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), text);
        }
    }
    {
        PubSubDSImpl second(service, "/other");
        EXPECT_EQ(service->subscriberCount("/other"), 1u);
    }
    EXPECT_EQ(service->subscriberCount("/other"), 0u);
    EXPECT_EQ(service->subscriberCount(kChannel), 1u);
}

TEST_F(PubSubDSImplTest, SizeAndArrayResponsesPublishExactTexts) {
    endpoint.sizeUpdated(0, 13);
    EXPECT_EQ(publishedText(0),
              R"({"columnCount":13,"eventType":1,"rowCount":0,"source":"server"})");
    EXPECT_EQ(log.last(), "sendResponse " + publishedText(0));
    endpoint.sendArrayResponse({Value(1), Value("two"), Value(foundation::json::Null{})});
    EXPECT_EQ(publishedText(1), R"([1,"two",null])");
    EXPECT_EQ(log.last(), "sendArrayResponse " + publishedText(1));
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
    EXPECT_EQ(publishedObject(0), expected);

    // An empty page is the two-character text; a default event counts one row and one column.
    endpoint.dataUpdated(DSEvent{});
    Object empty = publishedObject(1);
    EXPECT_EQ(empty["partialData"], Value("[]"));
    EXPECT_EQ(empty["rowCount"], Value(1));
    EXPECT_EQ(empty["columnCount"], Value(1));
    EXPECT_EQ(empty["sizeChanged"], Value(false));

    // Counts of extreme ranges do not overflow.
    page.startRow = -2147483647 - 1;
    page.endRow = 2147483647;
    endpoint.dataUpdated(page);
    EXPECT_EQ(publishedObject(2)["rowCount"], Value(4294967296.0));
}

TEST_F(PubSubDSImplTest, MetaDataIsNumberedFromOneByKind) {
    DSModelEvent columns;
    columns.eventType = 4;
    columns.startRow = 2;
    columns.endRow = 3;
    columns.startColumn = 0;
    columns.endColumn = 1;
    columns.fullStartColumn = 0;
    columns.fullEndColumn = 12;
    // An added number replaces a property of the same name.
    columns.data =
        DSModelEvent::List{element(9, 0, {{"Label", Value("Name")}, {"ColumnNumber", Value(77)}}),
                           element(9, 2147483647, {})};
    endpoint.metaDataUpdated(columns);
    EXPECT_TRUE(log.contains("metaDataUpdated startRow = 2, endRow = 3"));
    EXPECT_EQ(publishedText(0),
              R"({"endColumn":1,"eventType":4,"fullEndColumn":12,"fullStartColumn":0,)"
              R"("metaDataType":"ColumnModelProperties","properties":[{"ColumnNumber":1,)"
              R"("Label":"Name"},{"ColumnNumber":2147483648}],"source":"server","startColumn":0})");

    DSModelEvent rows;
    rows.eventType = 5;
    rows.startRow = rows.endRow = 4;
    rows.fullStartRow = 0;
    rows.fullEndRow = 10;
    rows.data = DSModelEvent::List{element(4, 8, {{"Bold", Value(true)}})};
    endpoint.metaDataUpdated(rows);
    EXPECT_EQ(publishedText(1),
              R"({"endRow":4,"eventType":5,"fullEndRow":10,"fullStartRow":0,)"
              R"("metaDataType":"RowModelProperties","properties":[{"Bold":true,"RowNumber":5}],)"
              R"("source":"server","startRow":4})");

    DSModelEvent table;
    table.eventType = 3;
    endpoint.metaDataUpdated(table);
    EXPECT_EQ(publishedText(2), R"({"eventType":3,"metaDataType":"TableModelProperties",)"
                                R"("properties":[],"source":"server"})");

    DSModelEvent cells;
    cells.eventType = 6;
    cells.data = DSModelEvent::Grid{
        {element(0, 0, {{"Editable", Value(false)}}), element(0, 1, {})}, {}, {element(2, 5, {})}};
    endpoint.metaDataUpdated(cells);
    const auto cell = [](int row, int column) {
        return Value(Object{{"RowNumber", Value(row)}, {"ColumnNumber", Value(column)}});
    };
    const Value firstCell(
        Object{{"Editable", Value(false)}, {"RowNumber", Value(1)}, {"ColumnNumber", Value(1)}});
    EXPECT_EQ(publishedObject(3),
              (Object{{"eventType", Value(6)},
                      {"source", Value("server")},
                      {"metaDataType", Value("CellModelProperties")},
                      {"properties", Value(Array{Value(Array{firstCell, cell(1, 2)}),
                                                 Value(Array{}), Value(Array{cell(3, 6)})})}}));

    DSModelEvent other = rows;
    other.eventType = 7;
    endpoint.metaDataUpdated(other);
    EXPECT_EQ(publishedText(4), R"({"eventType":7,"source":"server"})");
}

TEST_F(PubSubDSImplTest, WrongListKindForMetaDataPublishesNothing) {
    DSModelEvent cells;
    cells.eventType = 6; // needs one list per row
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

TEST_F(PubSubDSImplTest, GenerateJsonDataNestsRowsOfLabels) {
    EXPECT_EQ(endpoint.generateJsonData(0, 1, 0, 1), R"([["0_0", "0_1"], ["1_0", "1_1"]])");
    EXPECT_EQ(endpoint.generateJsonData(3, 2, 0, 1), "[]");
    EXPECT_EQ(endpoint.generateJsonData(-1, 0, 5, 4), "[[], []]");
    // A range ending at the largest int terminates.
    EXPECT_EQ(endpoint.generateJsonData(2147483647, 2147483647, 2147483647, 2147483647),
              R"([["2147483647_2147483647"]])");
}

TEST(PubSubDSImplLocalService, RequestAndReplyTravelThroughTheInProcessService) {
    auto service = std::make_shared<connector::message_service::LocalMessageService>();
    PubSubDSImpl endpoint(service, kChannel);
    struct SizeAnswerer : RecordingObserver {
        PubSubDSImpl* endpoint = nullptr;
        void handleClientGetSize() override { endpoint->sizeUpdated(3, 13); }
    } observer;
    observer.endpoint = &endpoint;
    endpoint.addDSObserver(&observer);
    std::vector<std::string> received;
    auto client = service->subscribeClient(
        kChannel, [&](const JsonMessage& m) { received.emplace_back(m.text()); });
    service->publishFromClient(kChannel, R"({"eventType":13})");
    EXPECT_EQ(received, std::vector<std::string>{
                            R"({"columnCount":13,"eventType":1,"rowCount":3,"source":"server"})"});
}

} // namespace
