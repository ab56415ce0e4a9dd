#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/pubsub/PubSubDSImpl.hpp>

#include "support/LogCapture.hpp"
#include "support/RecordingMessageService.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>
#include <vector>

using connector::message_service::JsonMessage;
using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;
using ::testing::ThrowsMessage;
using workspace_browser_startup::JsonTypedValues;
using wsb_test::RecordingMessageService;
using Calls = std::vector<std::string>;
using Ints = std::vector<int>;

namespace {

const std::string kChannel = "/ws_who";

// Records each call as a word and keeps every event it was handed, the way a view model may keep
// referring to it.
class RecordingObserver : public DSObserver {
public:
    Calls calls;
    std::vector<std::shared_ptr<const DSEvent>> events;

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
        events.push_back(PubSubDSImpl::shareEvent(e));
    }
};

Ints range(const DSEvent& e) {
    return {e.startRow, e.endRow, e.startColumn, e.endColumn};
}
Ints fullRange(const DSEvent& e) {
    return {e.fullStartRow, e.fullEndRow, e.fullStartColumn, e.fullEndColumn};
}

// Sets an event's range and full range, each given as {startRow, endRow, startColumn, endColumn}.
template <class Event> Event& setRanges(Event& e, const Ints& range, const Ints& full) {
    std::int32_t* fields[] = {&e.startRow,     &e.endRow,     &e.startColumn,     &e.endColumn,
                              &e.fullStartRow, &e.fullEndRow, &e.fullStartColumn, &e.fullEndColumn};
    for (std::size_t i = 0; i < 4; ++i) {
        *fields[i] = range[i];
        *fields[4 + i] = full[i];
    }
    return e;
}

DSModelEventData element(int row, int column, Object properties = {}) {
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

    // The text published last, checked to have gone to the endpoint's channel.
    std::string lastPublished() const {
        const auto published = service->published();
        if (published.empty())
            return "<nothing published>";
        EXPECT_EQ(published.back().channel, kChannel);
        return published.back().text;
    }
    Object lastPublishedObject() const {
        const std::string text = lastPublished();
        Object out;
        EXPECT_EQ(JsonTypedValues::parseObject(text.data(), text.data() + text.size(), out), 0);
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
        EXPECT_EQ(observer.calls, c.call ? Calls{c.call} : Calls{});
        if (observer.events.empty())
            continue; // operations without an event argument
        const DSEvent& e = *observer.events.front();
        EXPECT_EQ(e.eventType, c.code);
        EXPECT_EQ(e.source, "client");
        EXPECT_EQ(range(e), Ints({1, 2, 3, 4}));
        // The full range follows the range; the message's own full-range members are ignored.
        EXPECT_EQ(fullRange(e), Ints({1, 2, 3, 4}));
    }
}

TEST_F(PubSubDSImplTest, CodesAreConvertedLikeIntegersAndUnknownOnesReachNobody) {
    deliver(R"({"eventType":"11"})");
    deliver(R"({"eventType":11.9})");
    EXPECT_EQ(observer.calls, (Calls{"getData", "getData"}));
    // Absent members read as 0, not as the -1 of a default event.
    EXPECT_EQ(range(*observer.events.back()), Ints({0, 0, 0, 0}));

    observer.calls.clear();
    const std::pair<const char*, const char*> unknown[] = {
        {R"({"eventType":-3.5})", "-3"}, {R"({"eventType":9})", "9"}, {R"({"eventType":25})", "25"},
        {R"({"startRow":1})", "0"},      {"not json at all", "0"},
    };
    for (const auto& [text, printed] : unknown) {
        deliver(text);
        EXPECT_EQ(log.last(), std::string("ERROR: Unknown message type: ") + printed) << text;
    }
    EXPECT_TRUE(log.contains("convertMessageToJson JSON Parse Error"));
    EXPECT_TRUE(observer.calls.empty());

    // Members read before a parse failure stay and are decoded.
    deliver(R"({"eventType":13,"startRow":)");
    EXPECT_EQ(observer.calls, Calls{"getSize"});
    EXPECT_EQ(endpoint.convertMessageToJson(JsonMessage(std::string_view(R"({"a":1,)"))),
              (Object{{"a", Value(1)}, {"parseSuccess", Value(false)}}));
    EXPECT_EQ(endpoint.convertMessageToJson(JsonMessage(std::string_view("{}"))),
              (Object{{"parseSuccess", Value(true)}}));
}

TEST_F(PubSubDSImplTest, EditAndSortReadTheirOwnMembers) {
    deliver(R"({"eventType":12,"row":7,"column":2,"data":"42","startRow":1,"endRow":5})");
    ASSERT_EQ(observer.calls, Calls{"setData"});
    const DSEvent& e = *observer.events.front();
    // An edit names one cell; the full range keeps what the generic decoding gave it.
    EXPECT_EQ(range(e), Ints({7, 7, 2, 2}));
    EXPECT_EQ(fullRange(e), Ints({1, 5, 0, 0}));
    EXPECT_EQ(e.data, std::vector<Value>{Value("42")});

    deliver(R"({"eventType":24,"ascending":false})");
    deliver(R"({"eventType":24,"column":3,"ascending":true})");
    EXPECT_EQ(observer.calls, (Calls{"setData", "sort 0 desc", "sort 3 asc"}));
}

TEST_F(PubSubDSImplTest, ConversionFailuresPropagateReachNoObserverAndLeaveTheEndpointUsable) {
    for (const char* text : {
             R"({"eventType":11,"startRow":{}})",       // object where an integer is expected
             R"({"eventType":11,"endRow":3000000000})", // outside the 32-bit range
             R"({"eventType":12,"row":1,"column":1,"data":5})",
             R"({"eventType":24,"column":1})",         // no "ascending"
             R"({"eventType":24,"ascending":"true"})", // a string is not a boolean
         })
        EXPECT_ANY_THROW(service->deliver(kChannel, text)) << text;
    EXPECT_THAT([&] { service->deliver(kChannel, R"({"eventType":[11]})"); },
                ThrowsMessage<std::runtime_error>(
                    "invalid conversion: std::vector<foundation::json::Value> to int"));
    // Still usable; an observer added twice is called twice and removed by one call.
    RecordingObserver other, unknown;
    endpoint.addDSObserver(&observer);
    endpoint.addDSObserver(&other);
    deliver(R"({"eventType":13})");
    endpoint.removeDSObserver(&observer);
    endpoint.removeDSObserver(&unknown);
    deliver(R"({"eventType":13})");
    EXPECT_EQ(observer.calls, (Calls{"getSize", "getSize"}));
    EXPECT_EQ(other.calls, (Calls{"getSize", "getSize"}));
}

// Holds nothing: counts calls, and can tell whether it was called after its removal.
class CountingObserver : public RecordingObserver {
public:
    std::atomic<int> count{0};
    std::atomic<bool> removed{false};
    std::atomic<bool> calledAfterRemoval{false};
    const DSEvent* lastSeen = nullptr;

    void handleClientGetData(const DSEvent& e) override {
        if (removed)
            calledAfterRemoval = true;
        ++count;
        lastSeen = &e;
    }
    void handleClientSetData(const DSEvent& e) override { lastSeen = &e; }
};

TEST_F(PubSubDSImplTest, DecodedEventsLiveWhileHeldOrRecentAndAreFreedAfter) {
    CountingObserver forgetful;
    endpoint.addDSObserver(&forgetful);
    deliver(R"({"eventType":12,"row":3,"column":4,"data":"a text long enough to need the heap"})");
    const DSEvent* edit = forgetful.lastSeen;
    deliver(R"({"eventType":11,"startRow":9})");
    // An observer that kept only a reference can still read the event after its call, while
    // the event is among the endpoint's recent requests (a sanitizer build catches any early
    // release).
    EXPECT_EQ(edit->data.at(0), Value("a text long enough to need the heap"));
    ASSERT_EQ(observer.events.size(), 2u);
    EXPECT_EQ(observer.events[1]->startRow, 9);
    // The recording observer shares the event it is handed: the very event, kept while held.
    ASSERT_EQ(observer.events[1].get(), forgetful.lastSeen);
    const std::weak_ptr<const DSEvent> page = observer.events[1];
    observer.events.clear();
    for (int i = 0; i < 300; ++i)
        deliver(R"({"eventType":10})");
    observer.events.clear();
    // Once it is neither shared nor recent, it is freed.
    EXPECT_TRUE(page.expired());
    // Outside a dispatch, sharing gives a copy.
    DSEvent local;
    local.startRow = 4;
    EXPECT_EQ(PubSubDSImpl::shareEvent(local)->startRow, 4);
}

TEST(PubSubDSImplMemoryTest, MemoryStaysFlatOverManyRequests) {
    auto service = std::make_shared<RecordingMessageService>();
    PubSubDSImpl endpoint(service, kChannel);
    CountingObserver observer;
    endpoint.addDSObserver(&observer);
    const std::string edit =
        R"({"eventType":12,"row":3,"column":4,"data":")" + std::string(200, 'x') + R"("})";
    const auto send = [&](int times) {
        for (int i = 0; i < times; ++i) {
            service->deliver(kChannel, R"({"eventType":11,"startRow":0,"endRow":49})");
            service->deliver(kChannel, edit);
        }
    };
    send(1000);
    const auto before = ::mallinfo2().uordblks;
    send(100000);
    const auto after = ::mallinfo2().uordblks;
    // Kept events would take well over 30 MB here.
    EXPECT_LT(after, before + (1U << 20));
}

TEST_F(PubSubDSImplTest, RemovalIsSafeWhileAnotherThreadDelivers) {
    std::atomic<bool> done{false};
    std::thread deliverer([&] {
        while (!done)
            service->deliver(kChannel, R"({"eventType":11})");
    });
    for (int round = 0; round < 2000; ++round) {
        auto added = std::make_unique<CountingObserver>();
        endpoint.addDSObserver(added.get());
        endpoint.addDSObserver(added.get());
        while (round % 100 == 0 && added->count == 0)
            std::this_thread::yield();
        endpoint.removeDSObserver(added.get());
        added->removed = true;
        EXPECT_FALSE(added->calledAfterRemoval);
        // Destroyed at once: a delivery still walking an old list would touch freed memory.
    }
    done = true;
    deliverer.join();
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
        EXPECT_THAT([&] { PubSubDSImpl(service, "/x"); }, ThrowsMessage<std::runtime_error>(text));
    }
    {
        PubSubDSImpl second(service, "/other");
        EXPECT_EQ(service->subscriberCount("/other"), 1u);
    }
    EXPECT_EQ(service->subscriberCount("/other"), 0u);
}

TEST_F(PubSubDSImplTest, SizeArrayAndPageRepliesPublishExactTexts) {
    endpoint.sizeUpdated(0, 13);
    EXPECT_EQ(lastPublished(),
              R"({"columnCount":13,"eventType":1,"rowCount":0,"source":"server"})");
    EXPECT_EQ(log.last(), "sendResponse " + lastPublished());
    endpoint.sendArrayResponse({Value(1), Value("two"), Value(foundation::json::Null{})});
    EXPECT_EQ(lastPublished(), R"([1,"two",null])");
    EXPECT_EQ(log.last(), "sendArrayResponse " + lastPublished());

    DSEvent page;
    page.data = {Value(Array{Value("x"), Value(1.5)}), Value(Object{{"k", Value(true)}})};
    page.sizeChanged = true;
    setRanges(page, {5, 9, 0, 3}, {0, 99, 0, 12});
    endpoint.dataUpdated(page);
    EXPECT_EQ(lastPublished(),
              R"({"columnCount":4,"endColumn":3,"endRow":9,"eventType":2,"fullEndColumn":12,)"
              R"("fullEndRow":99,"fullStartColumn":0,"fullStartRow":0,)"
              R"("partialData":"[[\"x\",1.5],{\"k\":true}]","rowCount":5,"sizeChanged":true,)"
              R"("source":"server","startColumn":0,"startRow":5})");

    // An empty page is the two-character text; a default event counts one row and one column.
    endpoint.dataUpdated(DSEvent{});
    Object empty = lastPublishedObject();
    EXPECT_EQ(empty["partialData"], Value("[]"));
    EXPECT_EQ(empty["rowCount"], Value(1));
    EXPECT_EQ(empty["columnCount"], Value(1));
    EXPECT_EQ(empty["sizeChanged"], Value(false));

    // Counts of extreme ranges do not overflow.
    page.startRow = -2147483647 - 1;
    page.endRow = 2147483647;
    endpoint.dataUpdated(page);
    EXPECT_EQ(lastPublishedObject()["rowCount"], Value(4294967296.0));
}

TEST_F(PubSubDSImplTest, MetaDataIsNumberedFromOneByKind) {
    const auto metaData = [&](int type, DSModelEvent event) {
        event.eventType = type;
        endpoint.metaDataUpdated(event);
        return lastPublished();
    };
    // An added number replaces a property of the same name.
    DSModelEvent columns{.data = DSModelEvent::List{
                             element(9, 0, {{"Label", Value("Name")}, {"ColumnNumber", Value(77)}}),
                             element(9, 2147483647)}};
    EXPECT_EQ(metaData(4, setRanges(columns, {2, 3, 0, 1}, {-1, -1, 0, 12})),
              R"({"endColumn":1,"eventType":4,"fullEndColumn":12,"fullStartColumn":0,)"
              R"("metaDataType":"ColumnModelProperties","properties":[{"ColumnNumber":1,)"
              R"("Label":"Name"},{"ColumnNumber":2147483648}],"source":"server","startColumn":0})");
    EXPECT_TRUE(log.contains("metaDataUpdated startRow = 2, endRow = 3"));
    DSModelEvent rows{.data = DSModelEvent::List{element(4, 8, {{"Bold", Value(true)}})}};
    setRanges(rows, {4, 4, -1, -1}, {0, 10, -1, -1});
    EXPECT_EQ(metaData(5, rows),
              R"({"endRow":4,"eventType":5,"fullEndRow":10,"fullStartRow":0,)"
              R"("metaDataType":"RowModelProperties","properties":[{"Bold":true,"RowNumber":5}],)"
              R"("source":"server","startRow":4})");
    EXPECT_EQ(metaData(3, {}), R"({"eventType":3,"metaDataType":"TableModelProperties",)"
                               R"("properties":[],"source":"server"})");
    EXPECT_EQ(metaData(6, {.data = DSModelEvent::Grid{{element(0, 0, {{"Editable", Value(false)}}),
                                                       element(0, 1)},
                                                      {},
                                                      {element(2, 5)}}}),
              R"({"eventType":6,"metaDataType":"CellModelProperties","properties":)"
              R"([[{"ColumnNumber":1,"Editable":false,"RowNumber":1},{"ColumnNumber":2,)"
              R"("RowNumber":1}],[],[{"ColumnNumber":6,"RowNumber":3}]],"source":"server"})");
    EXPECT_EQ(metaData(7, rows), R"({"eventType":7,"source":"server"})");
}

TEST_F(PubSubDSImplTest, WrongListKindForMetaDataPublishesNothing) {
    for (int type : {3, 4, 5, 6}) {
        DSModelEvent event;
        event.eventType = type;
        if (type == 6) // needs one list per row
            event.data = DSModelEvent::List{element(0, 0)};
        else
            event.data = DSModelEvent::Grid{{element(0, 0)}};
        EXPECT_THROW(endpoint.metaDataUpdated(event), std::bad_variant_access) << type;
    }
    EXPECT_TRUE(service->published().empty());
}

TEST_F(PubSubDSImplTest, GenerateJsonDataNestsRowsOfLabels) {
    EXPECT_EQ(endpoint.generateJsonData(0, 1, 0, 1), R"([["0_0", "0_1"], ["1_0", "1_1"]])");
    EXPECT_EQ(endpoint.generateJsonData(-1, 0, 5, 4), "[[], []]");
    // A range ending at the largest int terminates.
    EXPECT_EQ(endpoint.generateJsonData(2147483647, 2147483647, 2147483647, 2147483647),
              R"([["2147483647_2147483647"]])");
}

} // namespace
