#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/pubsub/ObserverList.hpp>
#include <workspace_browser/viewmodel/RowRange.hpp>
#include <workspace_browser/viewmodel/VMObserver.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace workspace_browser_startup {

// The server end of the view-model channel: decodes the grid's user-interface events
// (double-click, drop, refresh, focus, selection, column width, grid size) for its observers and
// announces selection changes and renames to the client.
// Thread-safety: delivery runs on the service's thread, the senders and adding or removing
// observers on any thread at any time; once removeVMObserver returns, the observer is not called
// again.
class WSB_EXPORT PubSubVMImpl {
public:
    static const std::string DEFAULT_CHANNEL;
    static const std::string MESSAGE_SERVICE_INSTANCE_NAME;
    static const std::string PARSE_SUCCESS_FLAG;
    static const std::string EVENT_PROPERTY_TYPE;
    static const std::string EVENT_TYPE_DATA;
    static const std::string EVENT_DOUBLE_CLICK_TYPE_VARIABLE_NAME;
    static const std::string EVENT_DROP_TYPE_DATA;
    static const std::string EVENT_DROP_TYPE_WORKSPACE;
    static const std::string EVENT_VALUE_TYPE_DOUBLE_CLICK;
    static const std::string EVENT_VALUE_TYPE_DROP;
    static const std::string EVENT_VALUE_TYPE_PROPERTY_SET;
    static const std::string EVENT_VALUE_TYPE_REFRESH;
    static const std::string EVENT_PROPERTY_TYPE_NAME;
    static const std::string EVENT_PROPERTY_TYPE_VALUE;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_SELECTION;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_FOCUS;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_COL_MODEL_PROPERTY;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_PROPERTY;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_COLUMN;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_COLUMN_WIDTH;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_VALUE;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_GRID_SIZE_PROPERTY;
    static const std::string EVENT_REFRESH_TYPE_VARIABLES;
    static const std::string EVENT_REFRESH_TYPE_VARIABLE_COUNT;
    static const std::string EVENT_REFRESH_TYPE_IMMEDIATE_UPDATE;
    static const std::string EVENT_PROPERTY_TYPE_SELECTED_ROWS;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_SELECTION_START;
    static const std::string EVENT_PROPERTY_VALUE_TYPE_SELECTION_END;
    static const std::string EVENT_VALUE_SELECTED_VARIABLES_UPDATED;
    static const std::string EVENT_VALUE_SELECTED_ROWS_UPDATED;
    static const std::string EVENT_TYPE_SELECTED_VARIABLED_VARNAMES;
    static const std::string EVENT_VALUE_VARIABLE_RENAMED;
    static const std::string EVENT_TYPE_OLD_NAME;
    static const std::string EVENT_TYPE_NEW_NAME;

    // Subscribes to `channel` at once. Throws std::runtime_error "Future state isn't valid!" when
    // the service hands back no usable future, or whatever waiting for the subscription raises.
    PubSubVMImpl(std::shared_ptr<connector::message_service::MessageService> service,
                 std::string channel);
    ~PubSubVMImpl();
    PubSubVMImpl(const PubSubVMImpl&) = delete;
    PubSubVMImpl& operator=(const PubSubVMImpl&) = delete;

    void setupSubscription();

    void addVMObserver(VMObserver* observer);
    // Removes every registration of `observer`; an unknown pointer is ignored.
    void removeVMObserver(VMObserver* observer);

    // Parses the message's text. Never throws for malformed text: "parseSuccess" tells.
    std::map<std::string, foundation::json::Value>
    convertMessageToJson(const connector::message_service::JsonMessage& message);
    // Decodes one client message and calls the observers. Never throws: every failure, an
    // observer's included, is logged and the message dropped.
    void martialMessage(const connector::message_service::JsonMessage& message);

    void sendResponse(std::map<std::string, foundation::json::Value> message);

    void selectedRowsUpdated(std::vector<RowRange> ranges);
    void selectedVariablesUpdated(std::vector<std::string> names);
    void variableRenamed(std::string oldName, std::string newName);

private:
    void handleMessage(std::map<std::string, foundation::json::Value>& msg);
    void handleRefresh(std::map<std::string, foundation::json::Value>& msg);
    void handlePropertySet(std::map<std::string, foundation::json::Value>& msg);

    std::shared_ptr<connector::message_service::MessageService> messageService;
    std::string channel;
    std::shared_ptr<connector::message_service::Subscription> subscription;
    ObserverList<VMObserver> observers;
};

} // namespace workspace_browser_startup
