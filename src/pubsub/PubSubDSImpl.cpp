#include <workspace_browser/pubsub/PubSubDSImpl.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include "ChannelMechanics.hpp"
#include "RecentEvents.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

using connector::message_service::JsonMessage;
using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;
using workspace_browser_startup::JsonTypedValues;
using workspace_browser_startup::detail::publishText;

// Initialised at load in this order; the JSON keys and values of the paging protocol.
const std::string PubSubDSImpl::MESSAGE_SERVICE_INSTANCE_NAME = "WSB";
const std::string PubSubDSImpl::PARSE_SUCCESS_FLAG = "parseSuccess";
const std::string PubSubDSImpl::EVENT_PROPERTY_TYPE = "eventType";
const std::string PubSubDSImpl::EVENT_PROPERTY_STATUS = "status";
const std::string PubSubDSImpl::EVENT_PROPERTY_SOURCE = "source";
const std::string PubSubDSImpl::EVENT_PROPERTY_START_ROW = "startRow";
const std::string PubSubDSImpl::EVENT_PROPERTY_START_COLUMN = "startColumn";
const std::string PubSubDSImpl::EVENT_PROPERTY_END_ROW = "endRow";
const std::string PubSubDSImpl::EVENT_PROPERTY_END_COLUMN = "endColumn";
const std::string PubSubDSImpl::EVENT_PROPERTY_FULL_START_ROW = "fullStartRow";
const std::string PubSubDSImpl::EVENT_PROPERTY_FULL_START_COLUMN = "fullStartColumn";
const std::string PubSubDSImpl::EVENT_PROPERTY_FULL_END_ROW = "fullEndRow";
const std::string PubSubDSImpl::EVENT_PROPERTY_FULL_END_COLUMN = "fullEndColumn";
const std::string PubSubDSImpl::EVENT_PROPERTY_PARTIAL_DATA = "partialData";
const std::string PubSubDSImpl::EVENT_PROPERTY_ROW_COUNT = "rowCount";
const std::string PubSubDSImpl::EVENT_PROPERTY_COLUMN_COUNT = "columnCount";
const std::string PubSubDSImpl::EVENT_PROPERTY_SIZE_CHANGED = "sizeChanged";
const std::string PubSubDSImpl::EVENT_VALUE_STATUS_SUCCESS = "success";
const std::string PubSubDSImpl::EVENT_VALUE_STATUS_FAILURE = "error";
const std::string PubSubDSImpl::EVENT_VALUE_SOURCE_SERVER = "server";
const std::string PubSubDSImpl::EVENT_VALUE_SOURCE_CLIENT = "client";
const std::string PubSubDSImpl::EVENT_TYPE_EDIT_DATA = "data";
const std::string PubSubDSImpl::EVENT_TYPE_EDIT_ROW = "row";
const std::string PubSubDSImpl::EVENT_TYPE_EDIT_COLUMN = "column";
const std::string PubSubDSImpl::EVENT_TYPE_SORT_COLUMN = "column";
const std::string PubSubDSImpl::EVENT_TYPE_SORT_ASCENDING = "ascending";
const std::string PubSubDSImpl::DEFAULT_PAGING_CHANNEL = "/DDT/PubSubPaging_";
std::int32_t PubSubDSImpl::CURRENT_DS_OFFSET = 1;

namespace {

const foundation::log::basic_diagnostic_logger gLogger("zentra::datatools::PubSubDS");
constexpr int kLevel = foundation::log::kOrdinary;

// Server message types.
constexpr int kSizeUpdated = 1;
constexpr int kDataUpdated = 2;
constexpr int kTableMetaData = 3;
constexpr int kColumnMetaData = 4;
constexpr int kRowMetaData = 5;
constexpr int kCellMetaData = 6;

const std::string kColumnNumber = "ColumnNumber";
const std::string kRowNumber = "RowNumber";
const std::string kMetaDataType = "metaDataType";
const std::string kProperties = "properties";

// The client is told 1-based numbers; computed wide so that the largest index cannot overflow.
Value oneBased(std::int32_t index) {
    return Value(static_cast<double>(std::int64_t{index} + 1));
}

// Inclusive range length, computed wide for the same reason; no clamping, so a range of -1 to -1
// counts 1.
Value count(std::int32_t start, std::int32_t end) {
    return Value(static_cast<double>(std::int64_t{end} - std::int64_t{start} + 1));
}

// Each entry's properties, with its 1-based column and row numbers added as asked.
Array numbered(const std::vector<DSModelEventData>& entries, bool column, bool row) {
    Array properties;
    properties.reserve(entries.size());
    for (const DSModelEventData& element : entries) {
        Object object = element.properties;
        if (column)
            object[kColumnNumber] = oneBased(element.column);
        if (row)
            object[kRowNumber] = oneBased(element.row);
        properties.emplace_back(std::move(object));
    }
    return properties;
}

// The events being dispatched on this thread, innermost last; an observer may deliver another
// message from inside its call.
thread_local std::vector<std::shared_ptr<DSEvent>> tDispatching;

// Keeps an event listed as dispatched on this thread for the length of one dispatch.
class Dispatching {
public:
    explicit Dispatching(std::shared_ptr<DSEvent> event) {
        tDispatching.push_back(std::move(event));
    }
    ~Dispatching() { tDispatching.pop_back(); }
    Dispatching(const Dispatching&) = delete;
    Dispatching& operator=(const Dispatching&) = delete;
};

} // namespace

std::shared_ptr<const DSEvent> PubSubDSImpl::shareEvent(const DSEvent& event) {
    for (const auto& dispatched : tDispatching)
        if (dispatched.get() == &event)
            return dispatched;
    return std::make_shared<const DSEvent>(event);
}

PubSubDSImpl::PubSubDSImpl(std::shared_ptr<connector::message_service::MessageService> service,
                           std::string channelName)
    : messageService(std::move(service)), channel(std::move(channelName)),
      recentEvents(std::make_unique<workspace_browser_startup::detail::RecentEvents>()) {
    WSB_LOG(gLogger, kLevel) << "PubSubDSImpl on channel " << channel;
    setupSubscription();
}

PubSubDSImpl::~PubSubDSImpl() {
    // End the subscription before anything a late delivery could touch goes away.
    subscription.reset();
}

void PubSubDSImpl::setupSubscription() {
    subscription = workspace_browser_startup::detail::subscribeChannel(
        *messageService, channel, [this](const JsonMessage& message) {
            WSB_LOG(gLogger, kLevel) << "PubSubDSImpl message recieved " << message.text();
            martialMessage(message);
        });
}

void PubSubDSImpl::addDSObserver(DSObserver* observer) {
    observers.add(observer);
}

void PubSubDSImpl::removeDSObserver(DSObserver* observer) {
    observers.remove(observer);
}

Object PubSubDSImpl::convertMessageToJson(const JsonMessage& message) {
    Object result;
    const std::string_view text = message.text();
    const int code = JsonTypedValues::parseObject(text.data(), text.data() + text.size(), result);
    if (code == 0) {
        result[PARSE_SUCCESS_FLAG] = true;
    } else {
        result[PARSE_SUCCESS_FLAG] = false;
        WSB_LOG(gLogger, kLevel) << "convertMessageToJson JSON Parse Error";
    }
    return result;
}

namespace {

// What the endpoint does with each client request code: the name it logs ("Handling " and the
// name), what it reads from the message beyond the range, and which observer handler it calls.
// The metadata changes a client may send are accepted and logged, but nothing on the server acts
// on them yet: they have no handler.
struct Route {
    std::int32_t code;
    const char* name;
    void (*decode)(Object& msg, DSEvent& event);
    void (*deliver)(DSObserver& observer, DSEvent& event, Object& msg);
};

// An edit names one cell: both ends of the range are that cell, and the text is its data.
void decodeEdit(Object& msg, DSEvent& event) {
    event.startRow = event.endRow =
        JsonTypedValues::toInt32(msg[PubSubDSImpl::EVENT_TYPE_EDIT_ROW]);
    event.startColumn = event.endColumn =
        JsonTypedValues::toInt32(msg[PubSubDSImpl::EVENT_TYPE_EDIT_COLUMN]);
    event.data.emplace_back(JsonTypedValues::toString(msg[PubSubDSImpl::EVENT_TYPE_EDIT_DATA]));
}

constexpr Route kRoutes[] = {
    {10, "CLIENT_MSG_SET_VIEWPORT", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleSetViewportRange(e); }},
    {11, "CLIENT_MSG_GET_DATA", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientGetData(e); }},
    {12, "CLIENT_MSG_SET_DATA", decodeEdit,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientSetData(e); }},
    {13, "CLIENT_MSG_GET_SIZE", nullptr,
     [](DSObserver& o, DSEvent&, Object&) { o.handleClientGetSize(); }},
    {14, "CLIENT_MSG_GET_METADATA", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientGetMetaData(e); }},
    {15, "CLIENT_MSG_SET_TABLE_METADATA", nullptr, nullptr},
    {16, "CLIENT_MSG_SET_COL_METADATA", nullptr, nullptr},
    {17, "CLIENT_MSG_SET_ROW_METADATA", nullptr, nullptr},
    {18, "CLIENT_MSG_SET_CELL_METADATA", nullptr, nullptr},
    {19, "CLIENT_MSG_SET_READY", nullptr,
     [](DSObserver& o, DSEvent&, Object&) { o.handleClientReady(); }},
    {20, "CLIENT_MSG_GET_TABLE_METADATA", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientGetTableMetaData(e); }},
    {21, "CLIENT_MSG_GET_COL_METADATA", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientGetColumnMetaData(e); }},
    {22, "CLIENT_MSG_GET_ROW_METADATA", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientGetRowMetaData(e); }},
    {23, "CLIENT_MSG_GET_CELL_METADATA", nullptr,
     [](DSObserver& o, DSEvent& e, Object&) { o.handleClientGetCellMetaData(e); }},
    {24, "CLIENT_MSG_SET_SORT_COLUMN", nullptr,
     [](DSObserver& o, DSEvent&, Object& msg) {
         o.handleSortChanged(JsonTypedValues::toInt32(msg[PubSubDSImpl::EVENT_TYPE_SORT_COLUMN]),
                             JsonTypedValues::toBool(msg[PubSubDSImpl::EVENT_TYPE_SORT_ASCENDING]));
     }},
};

const Route* findRoute(std::int32_t code) {
    for (const Route& route : kRoutes) {
        if (route.code == code)
            return &route;
    }
    return nullptr;
}

} // namespace

void PubSubDSImpl::martialMessage(const JsonMessage& message) {
    Object msg = convertMessageToJson(message);

    // A failed parse is decoded from whatever members it has: absent ones read as 0.
    const std::int32_t eventType = JsonTypedValues::toInt32(msg[EVENT_PROPERTY_TYPE]);
    const std::int32_t startRow = JsonTypedValues::toInt32(msg[EVENT_PROPERTY_START_ROW]);
    const std::int32_t endRow = JsonTypedValues::toInt32(msg[EVENT_PROPERTY_END_ROW]);
    const std::int32_t startColumn = JsonTypedValues::toInt32(msg[EVENT_PROPERTY_START_COLUMN]);
    const std::int32_t endColumn = JsonTypedValues::toInt32(msg[EVENT_PROPERTY_END_COLUMN]);

    // Shared, so that an observer that must keep the event beyond its call can (shareEvent), and
    // every other event is freed when the dispatch ends: a page makes requests for as long as it
    // is open.
    const auto held = std::make_shared<DSEvent>();
    const Dispatching dispatching(held);
    DSEvent& event = *held;
    event.source = EVENT_VALUE_SOURCE_CLIENT;
    event.eventType = eventType;
    event.startRow = startRow;
    event.endRow = endRow;
    event.startColumn = startColumn;
    event.endColumn = endColumn;
    event.fullStartRow = startRow;
    event.fullEndRow = endRow;
    event.fullStartColumn = startColumn;
    event.fullEndColumn = endColumn;

    const Route* route = findRoute(eventType);
    if (!route) {
        WSB_LOG(gLogger, kLevel) << "ERROR: Unknown message type: " << eventType;
        return;
    }
    WSB_LOG(gLogger, kLevel) << "Handling " << route->name;
    if (route->decode)
        route->decode(msg, event);
    if (!route->deliver)
        return;
    // Kept among the recent requests just before the observers see it, once its data is
    // complete, so that the byte bound counts an edit's text.
    recentEvents->keep(held);
    observers.forEach([&](DSObserver& observer) { route->deliver(observer, event, msg); });
}

std::vector<std::string> PubSubDSImpl::getMapKeys(std::map<std::string, std::string> map) {
    std::vector<std::string> keys;
    keys.reserve(map.size());
    for (auto& entry : map)
        keys.push_back(entry.first);
    return keys;
}

void PubSubDSImpl::sendResponse(std::map<std::string, Value> message) {
    const std::string text = foundation::json::serialize(Value(std::move(message)));
    WSB_LOG(gLogger, kLevel) << "sendResponse " << text;
    publishText(*messageService, channel, text);
}

void PubSubDSImpl::sendArrayResponse(std::vector<Value> message) {
    const std::string text = foundation::json::serialize(Value(std::move(message)));
    WSB_LOG(gLogger, kLevel) << "sendArrayResponse " << text;
    publishText(*messageService, channel, text);
}

void PubSubDSImpl::sizeUpdated(int rowCount, int columnCount) {
    Object message;
    message[EVENT_PROPERTY_SOURCE] = EVENT_VALUE_SOURCE_SERVER;
    message[EVENT_PROPERTY_TYPE] = kSizeUpdated;
    message[EVENT_PROPERTY_ROW_COUNT] = rowCount;
    message[EVENT_PROPERTY_COLUMN_COUNT] = columnCount;
    sendResponse(std::move(message));
}

void PubSubDSImpl::dataUpdated(const DSEvent& event) {
    // The page travels as JSON text inside the message; the client parses it a second time.
    const std::string page =
        event.data.empty() ? std::string("[]") : foundation::json::serialize(Value(event.data));

    Object message;
    message[EVENT_PROPERTY_SOURCE] = EVENT_VALUE_SOURCE_SERVER;
    message[EVENT_PROPERTY_TYPE] = kDataUpdated;
    message[EVENT_PROPERTY_START_ROW] = event.startRow;
    message[EVENT_PROPERTY_END_ROW] = event.endRow;
    message[EVENT_PROPERTY_START_COLUMN] = event.startColumn;
    message[EVENT_PROPERTY_END_COLUMN] = event.endColumn;
    message[EVENT_PROPERTY_PARTIAL_DATA] = page;
    message[EVENT_PROPERTY_FULL_START_ROW] = event.fullStartRow;
    message[EVENT_PROPERTY_FULL_END_ROW] = event.fullEndRow;
    message[EVENT_PROPERTY_FULL_START_COLUMN] = event.fullStartColumn;
    message[EVENT_PROPERTY_FULL_END_COLUMN] = event.fullEndColumn;
    message[EVENT_PROPERTY_ROW_COUNT] = count(event.startRow, event.endRow);
    message[EVENT_PROPERTY_SIZE_CHANGED] = event.sizeChanged;
    message[EVENT_PROPERTY_COLUMN_COUNT] = count(event.startColumn, event.endColumn);
    sendResponse(std::move(message));
}

void PubSubDSImpl::metaDataUpdated(const DSModelEvent& event) {
    Object message;
    message[EVENT_PROPERTY_TYPE] = event.eventType;
    message[EVENT_PROPERTY_SOURCE] = EVENT_VALUE_SOURCE_SERVER;
    WSB_LOG(gLogger, kLevel) << "metaDataUpdated startRow = " << event.startRow
                             << ", endRow = " << event.endRow;

    switch (event.eventType) {
    case kColumnMetaData: {
        message[kMetaDataType] = "ColumnModelProperties";
        message[kProperties] = numbered(std::get<DSModelEvent::List>(event.data), true, false);
        message[EVENT_PROPERTY_START_COLUMN] = event.startColumn;
        message[EVENT_PROPERTY_END_COLUMN] = event.endColumn;
        message[EVENT_PROPERTY_FULL_START_COLUMN] = event.fullStartColumn;
        message[EVENT_PROPERTY_FULL_END_COLUMN] = event.fullEndColumn;
        break;
    }
    case kRowMetaData: {
        message[kMetaDataType] = "RowModelProperties";
        message[kProperties] = numbered(std::get<DSModelEvent::List>(event.data), false, true);
        message[EVENT_PROPERTY_START_ROW] = event.startRow;
        message[EVENT_PROPERTY_END_ROW] = event.endRow;
        message[EVENT_PROPERTY_FULL_START_ROW] = event.fullStartRow;
        message[EVENT_PROPERTY_FULL_END_ROW] = event.fullEndRow;
        break;
    }
    case kTableMetaData: {
        message[kMetaDataType] = "TableModelProperties";
        message[kProperties] = numbered(std::get<DSModelEvent::List>(event.data), false, false);
        break;
    }
    case kCellMetaData: {
        Array rows;
        for (const auto& row : std::get<DSModelEvent::Grid>(event.data))
            rows.emplace_back(numbered(row, true, true));
        message[kMetaDataType] = "CellModelProperties";
        message[kProperties] = std::move(rows);
        break;
    }
    default:
        break;
    }
    sendResponse(std::move(message));
}

std::string PubSubDSImpl::generateJsonData(int startRow, int endRow, int startColumn,
                                           int endColumn) {
    // Wide counters, so that a range ending at the largest int still terminates.
    std::string text = "[";
    for (std::int64_t row = startRow; row <= endRow; ++row) {
        if (row != startRow)
            text += ", ";
        text += "[";
        for (std::int64_t column = startColumn; column <= endColumn; ++column) {
            if (column != startColumn)
                text += ", ";
            text += '"';
            text += std::to_string(row);
            text += '_';
            text += std::to_string(column);
            text += '"';
        }
        text += "]";
    }
    text += "]";
    return text;
}
