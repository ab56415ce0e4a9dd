#include <workspace_browser/pubsub/PubSubVMImpl.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/settings/Settings.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include "ChannelMechanics.hpp"

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace workspace_browser_startup {

using connector::message_service::JsonMessage;
using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;

const std::string PubSubVMImpl::DEFAULT_CHANNEL = "/WorkspaceBrowser";
const std::string PubSubVMImpl::MESSAGE_SERVICE_INSTANCE_NAME = "WSB";
const std::string PubSubVMImpl::PARSE_SUCCESS_FLAG = "parseSuccess";
const std::string PubSubVMImpl::EVENT_PROPERTY_TYPE = "type";
const std::string PubSubVMImpl::EVENT_TYPE_DATA = "data";
const std::string PubSubVMImpl::EVENT_DOUBLE_CLICK_TYPE_VARIABLE_NAME = "variableName";
const std::string PubSubVMImpl::EVENT_DROP_TYPE_DATA = "data";
const std::string PubSubVMImpl::EVENT_DROP_TYPE_WORKSPACE = "workspace";
const std::string PubSubVMImpl::EVENT_VALUE_TYPE_DOUBLE_CLICK = "doubleClickedOnMetaData";
const std::string PubSubVMImpl::EVENT_VALUE_TYPE_DROP = "drop";
const std::string PubSubVMImpl::EVENT_VALUE_TYPE_PROPERTY_SET = "propertySet";
const std::string PubSubVMImpl::EVENT_VALUE_TYPE_REFRESH = "refresh";
const std::string PubSubVMImpl::EVENT_PROPERTY_TYPE_NAME = "propertyName";
const std::string PubSubVMImpl::EVENT_PROPERTY_TYPE_VALUE = "propertyValue";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_SELECTION = "Selection";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_FOCUS = "HasFocus";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_COL_MODEL_PROPERTY =
    "ColumnModelProperty";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_PROPERTY = "property";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_COLUMN = "column";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_COLUMN_WIDTH = "ColumnWidth";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_VALUE = "value";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_GRID_SIZE_PROPERTY = "GridSize";
const std::string PubSubVMImpl::EVENT_REFRESH_TYPE_VARIABLES = "variables";
const std::string PubSubVMImpl::EVENT_REFRESH_TYPE_VARIABLE_COUNT = "count";
const std::string PubSubVMImpl::EVENT_REFRESH_TYPE_IMMEDIATE_UPDATE = "immediateUpdate";
const std::string PubSubVMImpl::EVENT_PROPERTY_TYPE_SELECTED_ROWS = "selectedRows";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_SELECTION_START = "start";
const std::string PubSubVMImpl::EVENT_PROPERTY_VALUE_TYPE_SELECTION_END = "end";
const std::string PubSubVMImpl::EVENT_VALUE_SELECTED_VARIABLES_UPDATED = "SelectedVariablesChanged";
const std::string PubSubVMImpl::EVENT_VALUE_SELECTED_ROWS_UPDATED = "SelectedRowsChanged";
const std::string PubSubVMImpl::EVENT_TYPE_SELECTED_VARIABLED_VARNAMES = "Variables";
const std::string PubSubVMImpl::EVENT_VALUE_VARIABLE_RENAMED = "VariableRenamed";
const std::string PubSubVMImpl::EVENT_TYPE_OLD_NAME = "oldName";
const std::string PubSubVMImpl::EVENT_TYPE_NEW_NAME = "newName";

namespace {

const foundation::log::basic_diagnostic_logger gLogger("zentra::datatools::PubSubVM");
constexpr int kLevel = foundation::log::kOrdinary;

// Message types the client sends on this channel that need no action on the server.
const std::string kIgnoredSelection = "Selection";
const std::string kIgnoredScrollClient = "scrollClient";

const std::string kColumnsNode = "zentra.desktop.workspace.columns";
const std::string kColumnWidths = "ColumnWidths";
// Widths in pixels a grid column may have; anything else is a client's mistake.
constexpr double kMinColumnWidth = 1;
constexpr double kMaxColumnWidth = 10000;
const std::string kUserLevel = "user";

constexpr std::size_t kLoggedRefreshNames = 100;

// Members accessed "as object" or "as array": the held kind must match, otherwise the JSON
// value's own "invalid conversion" error is raised.
Object& asObject(Value& value) {
    return value.get<Object>();
}
Array& asArray(Value& value) {
    return value.get<Array>();
}

// The log's description of a refresh request. Only the first names are listed, each followed by
// a comma; from that many names on, the rest are counted (so exactly that many ends in
// " and 0 more").
std::string describeRefresh(std::int32_t count, const std::vector<std::string>& names) {
    if (count == 0)
        return "<no variables>";
    if (count == 1)
        return names.front();
    std::ostringstream description;
    const std::size_t shown = std::min(names.size(), kLoggedRefreshNames);
    for (std::size_t i = 0; i < shown; ++i)
        description << names[i] << ",";
    if (names.size() >= kLoggedRefreshNames)
        description << " and " << names.size() - kLoggedRefreshNames << " more";
    return description.str();
}

} // namespace

PubSubVMImpl::PubSubVMImpl(std::shared_ptr<connector::message_service::MessageService> service,
                           std::string channelName)
    : messageService(std::move(service)), channel(std::move(channelName)) {
    WSB_LOG(gLogger, kLevel) << "PubSubVMImpl on channel " << channel;
    setupSubscription();
}

PubSubVMImpl::~PubSubVMImpl() {
    // End the subscription before the observer list goes away.
    subscription.reset();
}

void PubSubVMImpl::setupSubscription() {
    subscription =
        detail::subscribeChannel(*messageService, channel, [this](const JsonMessage& message) {
            WSB_LOG(gLogger, kLevel) << "PubSubVMImpl message received " << message.text();
            martialMessage(message);
        });
}

void PubSubVMImpl::addVMObserver(VMObserver* observer) {
    observers.add(observer);
}

void PubSubVMImpl::removeVMObserver(VMObserver* observer) {
    observers.remove(observer);
}

std::map<std::string, Value> PubSubVMImpl::convertMessageToJson(const JsonMessage& message) {
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

void PubSubVMImpl::martialMessage(const JsonMessage& message) {
    // Nothing may reach the message service's delivery thread: every failure is logged here and
    // the message is dropped.
    try {
        auto msg = convertMessageToJson(message);
        handleMessage(msg);
    } catch (const std::runtime_error& e) {
        WSB_LOG(gLogger, kLevel) << "Caught a runtime error: " << e.what();
    } catch (const std::invalid_argument& e) {
        WSB_LOG(gLogger, kLevel) << "Caught an invalid argument: " << e.what();
    } catch (const std::exception& e) {
        WSB_LOG(gLogger, kLevel) << "Caught a standard exception: " << e.what();
    } catch (...) {
        WSB_LOG(gLogger, kLevel) << "Caught an unknown exception";
    }
}

void PubSubVMImpl::handleMessage(std::map<std::string, Value>& msg) {
    // A message that failed to parse has no type and fails right here.
    const std::string type = JsonTypedValues::toString(msg[EVENT_PROPERTY_TYPE]);

    if (type == EVENT_VALUE_TYPE_DOUBLE_CLICK) {
        WSB_LOG(gLogger, kLevel) << "Handling EVENT_VALUE_TYPE_DOUBLE_CLICK";
        Object& data = asObject(msg[EVENT_TYPE_DATA]);
        const std::string name =
            JsonTypedValues::toString(data[EVENT_DOUBLE_CLICK_TYPE_VARIABLE_NAME]);
        observers.forEach([&](VMObserver& o) { o.handleDoubleClick(name); });
    } else if (type == EVENT_VALUE_TYPE_DROP) {
        WSB_LOG(gLogger, kLevel) << "Handling EVENT_VALUE_TYPE_DROP";
        Object& d = asObject(msg[EVENT_TYPE_DATA]);
        const std::string data = JsonTypedValues::toString(d[EVENT_DROP_TYPE_DATA]);
        const std::string workspace = JsonTypedValues::toString(d[EVENT_DROP_TYPE_WORKSPACE]);
        observers.forEach([&](VMObserver& o) { o.handleDrop(data, workspace); });
    } else if (type == EVENT_VALUE_TYPE_REFRESH) {
        handleRefresh(msg);
    } else if (type == EVENT_VALUE_TYPE_PROPERTY_SET) {
        handlePropertySet(msg);
    } else if (type != kIgnoredSelection && type != kIgnoredScrollClient) {
        WSB_LOG(gLogger, kLevel) << "ERROR: Unknown message type";
    }
}

void PubSubVMImpl::handleRefresh(std::map<std::string, Value>& msg) {
    const std::int32_t count = JsonTypedValues::toInt32(msg[EVENT_REFRESH_TYPE_VARIABLE_COUNT]);
    const bool immediateUpdate = JsonTypedValues::toBool(msg[EVENT_REFRESH_TYPE_IMMEDIATE_UPDATE]);
    WSB_LOG(gLogger, kLevel) << "Handling EVENT_VALUE_TYPE_REFRESH count = " << count;

    // The client sends a single name as a plain string and any other number as an array.
    std::vector<std::string> names;
    if (count == 1) {
        names.push_back(JsonTypedValues::toString(msg[EVENT_REFRESH_TYPE_VARIABLES]));
    } else if (count != 0) {
        const Array& variables = asArray(msg[EVENT_REFRESH_TYPE_VARIABLES]);
        names.reserve(variables.size());
        for (const Value& name : variables)
            names.push_back(JsonTypedValues::toString(name));
    }

    WSB_LOG(gLogger, kLevel) << "Handling EVENT_VALUE_TYPE_REFRESH immediate update = "
                             << static_cast<int>(immediateUpdate)
                             << " with variables:" << describeRefresh(count, names);

    observers.forEach([&](VMObserver& o) { o.handleRefresh(names, immediateUpdate); });
}

void PubSubVMImpl::handlePropertySet(std::map<std::string, Value>& msg) {
    WSB_LOG(gLogger, kLevel) << "Handling EVENT_VALUE_TYPE_PROPERTY_SET";
    const std::string propertyName = JsonTypedValues::toString(msg[EVENT_PROPERTY_TYPE_NAME]);
    WSB_LOG(gLogger, kLevel) << "Handling EVENT_VALUE_TYPE_PROPERTY_SET: propertyName = "
                             << propertyName;

    if (propertyName == EVENT_PROPERTY_VALUE_TYPE_SELECTION) {
        WSB_LOG(gLogger, kLevel) << "Handling EVENT_PROPERTY_VALUE_TYPE_SELECTION";
        Object& value = asObject(msg[EVENT_PROPERTY_TYPE_VALUE]);
        // The client sends the ranges as JSON text inside a string, so it is parsed a second
        // time here.
        const std::string text =
            JsonTypedValues::toString(value[EVENT_PROPERTY_TYPE_SELECTED_ROWS]);
        Array elements;
        std::size_t failedAt = 0;
        const int code =
            JsonTypedValues::parseArray(text.data(), text.data() + text.size(), elements, failedAt);
        // The exception's text gives the code, line and column and marks the failing character,
        // so the log shows where the client's text went wrong.
        if (code != 0)
            throw foundation::json::ParserException(code, text, failedAt);
        std::vector<RowRange> ranges;
        ranges.reserve(elements.size());
        for (Value& element : elements) {
            Object& range = asObject(element);
            const std::int32_t start =
                JsonTypedValues::toInt32(range[EVENT_PROPERTY_VALUE_TYPE_SELECTION_START]);
            const std::int32_t end =
                JsonTypedValues::toInt32(range[EVENT_PROPERTY_VALUE_TYPE_SELECTION_END]);
            ranges.push_back(RowRange{start, end});
            WSB_LOG(gLogger, kLevel) << "Added Row Range (" << start << ", " << end << ")";
        }
        observers.forEach([&](VMObserver& o) { o.handleSelectionChanged(ranges); });
    } else if (propertyName == EVENT_PROPERTY_VALUE_TYPE_FOCUS) {
        // The flag sits at the top level under the property's own name, not under
        // "propertyValue"; that is how the client sends it.
        const bool focus = JsonTypedValues::toBool(msg[EVENT_PROPERTY_VALUE_TYPE_FOCUS]);
        WSB_LOG(gLogger, kLevel) << "Handling EVENT_PROPERTY_VALUE_TYPE_FOCUS "
                                 << static_cast<int>(focus);
        observers.forEach([&](VMObserver& o) { o.handleFocusChanged(focus); });
    } else if (propertyName == EVENT_PROPERTY_VALUE_TYPE_COL_MODEL_PROPERTY) {
        Object& value = asObject(msg[EVENT_PROPERTY_TYPE_VALUE]);
        const std::string property =
            JsonTypedValues::toString(value[EVENT_PROPERTY_VALUE_TYPE_PROPERTY]);
        const std::int32_t column =
            JsonTypedValues::toInt32(value[EVENT_PROPERTY_VALUE_TYPE_COLUMN]);
        if (property == EVENT_PROPERTY_VALUE_TYPE_COLUMN_WIDTH) {
            const double width = value[EVENT_PROPERTY_VALUE_TYPE_VALUE].get<double>();
            // The stored widths are served to every later page, so one absurd width would break
            // the grid everywhere; the comparison is false for NaN too.
            if (!(width >= kMinColumnWidth && width <= kMaxColumnWidth)) {
                WSB_LOG(gLogger, kLevel)
                    << "Refusing ColumnWidth of " << column << ": " << width << " is not between "
                    << kMinColumnWidth << " and " << kMaxColumnWidth;
                return;
            }
            WSB_LOG(gLogger, kLevel) << "Setting ColumnWidth of " << column << " to " << width;
            // The stored list is trusted to hold one width per column, so the index is not
            // checked against it; at() still turns a bad index into an ordinary failure instead
            // of a write out of bounds.
            settings::core::Settings columns =
                settings::standalone::getSettingsRoot().node(kColumnsNode);
            auto widths = columns.get<std::vector<double>>(kColumnWidths);
            widths.at(static_cast<std::uint32_t>(column)) = width;
            columns.set(kColumnWidths, widths, kUserLevel);
        }
    } else if (propertyName == EVENT_PROPERTY_VALUE_TYPE_GRID_SIZE_PROPERTY) {
        WSB_LOG(gLogger, kLevel) << "Updating selection after GridSize change";
        observers.forEach([&](VMObserver& o) { o.gridSizeChanged(); });
    } else {
        WSB_LOG(gLogger, kLevel) << "ERROR: Unknown message type: "
                                 << JsonTypedValues::toString(msg[EVENT_PROPERTY_TYPE]);
    }
}

void PubSubVMImpl::sendResponse(std::map<std::string, Value> message) {
    const std::string text = foundation::json::serialize(Value(std::move(message)));
    WSB_LOG(gLogger, kLevel) << "sendResponse " << text;
    detail::publishText(*messageService, channel, text);
}

void PubSubVMImpl::selectedRowsUpdated(std::vector<RowRange> ranges) {
    WSB_LOG(gLogger, kLevel) << "selectedRowsUpdated: " << ranges.size() << " row ranges selected";
    Array rows;
    rows.reserve(ranges.size());
    for (const RowRange& range : ranges) {
        WSB_LOG(gLogger, kLevel) << "selectedRowsUpdated adding range: start=" << range.start
                                 << " end=" << range.end;
        Object row;
        row[EVENT_PROPERTY_VALUE_TYPE_SELECTION_START] = range.start;
        row[EVENT_PROPERTY_VALUE_TYPE_SELECTION_END] = range.end;
        rows.emplace_back(std::move(row));
    }
    std::map<std::string, Value> message;
    message[EVENT_PROPERTY_TYPE] = EVENT_VALUE_SELECTED_ROWS_UPDATED;
    message[EVENT_PROPERTY_TYPE_SELECTED_ROWS] = std::move(rows);
    sendResponse(std::move(message));
}

void PubSubVMImpl::selectedVariablesUpdated(std::vector<std::string> names) {
    WSB_LOG(gLogger, kLevel) << "selectedVariablesUpdated: " << names.size()
                             << " variables selected";
    Array variables;
    variables.reserve(names.size());
    for (std::string& name : names)
        variables.emplace_back(std::move(name));
    std::map<std::string, Value> message;
    message[EVENT_PROPERTY_TYPE] = EVENT_VALUE_SELECTED_VARIABLES_UPDATED;
    message[EVENT_TYPE_SELECTED_VARIABLED_VARNAMES] = std::move(variables);
    sendResponse(std::move(message));
}

void PubSubVMImpl::variableRenamed(std::string oldName, std::string newName) {
    WSB_LOG(gLogger, kLevel) << "variableRenamed from: " << oldName << " to: " << newName;
    std::map<std::string, Value> message;
    message[EVENT_PROPERTY_TYPE] = EVENT_VALUE_VARIABLE_RENAMED;
    message[EVENT_TYPE_OLD_NAME] = std::move(oldName);
    message[EVENT_TYPE_NEW_NAME] = std::move(newName);
    sendResponse(std::move(message));
}

} // namespace workspace_browser_startup
