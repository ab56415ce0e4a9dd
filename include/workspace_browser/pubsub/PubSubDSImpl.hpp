#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/pubsub/DSEvent.hpp>
#include <workspace_browser/pubsub/DSModelEvent.hpp>
#include <workspace_browser/pubsub/ObserverList.hpp>
#include <workspace_browser/viewmodel/DSObserver.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace workspace_browser_startup::detail {
class RecentEvents;
}

// The server end of the paging channel: decodes the grid's requests (sizes, pages, metadata,
// edits, sorting, viewport) into DSEvents for its observers, and publishes sizes, pages and
// metadata back on the same channel.
// Thread-safety: delivery may run on any thread the service uses, the publishing operations and
// adding or removing observers on any thread at any time; once removeDSObserver returns, the
// observer is not called again.
class WSB_EXPORT PubSubDSImpl {
public:
    static const std::string MESSAGE_SERVICE_INSTANCE_NAME;
    static const std::string PARSE_SUCCESS_FLAG;
    static const std::string EVENT_PROPERTY_TYPE;
    static const std::string EVENT_PROPERTY_STATUS;
    static const std::string EVENT_PROPERTY_SOURCE;
    static const std::string EVENT_PROPERTY_START_ROW;
    static const std::string EVENT_PROPERTY_START_COLUMN;
    static const std::string EVENT_PROPERTY_END_ROW;
    static const std::string EVENT_PROPERTY_END_COLUMN;
    static const std::string EVENT_PROPERTY_FULL_START_ROW;
    static const std::string EVENT_PROPERTY_FULL_START_COLUMN;
    static const std::string EVENT_PROPERTY_FULL_END_ROW;
    static const std::string EVENT_PROPERTY_FULL_END_COLUMN;
    static const std::string EVENT_PROPERTY_PARTIAL_DATA;
    static const std::string EVENT_PROPERTY_ROW_COUNT;
    static const std::string EVENT_PROPERTY_COLUMN_COUNT;
    static const std::string EVENT_PROPERTY_SIZE_CHANGED;
    static const std::string EVENT_VALUE_STATUS_SUCCESS;
    static const std::string EVENT_VALUE_STATUS_FAILURE;
    static const std::string EVENT_VALUE_SOURCE_SERVER;
    static const std::string EVENT_VALUE_SOURCE_CLIENT;
    static const std::string EVENT_TYPE_EDIT_DATA;
    static const std::string EVENT_TYPE_EDIT_ROW;
    static const std::string EVENT_TYPE_EDIT_COLUMN;
    static const std::string EVENT_TYPE_SORT_COLUMN;
    static const std::string EVENT_TYPE_SORT_ASCENDING;
    static const std::string DEFAULT_PAGING_CHANNEL;
    static std::int32_t CURRENT_DS_OFFSET;

    // Subscribes to `channel` at once. Throws std::runtime_error "Future state isn't valid!" when
    // the service hands back no usable future, or whatever waiting for the subscription raises.
    PubSubDSImpl(std::shared_ptr<connector::message_service::MessageService> service,
                 std::string channel);
    ~PubSubDSImpl();
    PubSubDSImpl(const PubSubDSImpl&) = delete;
    PubSubDSImpl& operator=(const PubSubDSImpl&) = delete;

    void setupSubscription();

    // Duplicates are allowed: an observer added twice is called twice per message.
    void addDSObserver(DSObserver* observer);
    // Removes every registration of `observer`; an unknown pointer is ignored. Waits for a call
    // to it in progress on another thread to return.
    void removeDSObserver(DSObserver* observer);

    // Parses the message's text. Never throws for malformed text: "parseSuccess" tells, and the
    // members read before the failure stay.
    foundation::json::Object convertMessageToJson(const connector::message_service::JsonMessage&);
    // Decodes one client message and calls the observers. Conversion failures and observers'
    // exceptions propagate to the caller; the endpoint stays usable. The event handed to the
    // observers stays valid after the dispatch while it is among the endpoint's most recent
    // requests (the last 256, fewer when they carry megabytes of edit text), and for as long
    // as an observer shares it (shareEvent); then it is freed.
    void martialMessage(const connector::message_service::JsonMessage& message);

    // Shared ownership of an event an observer is being handed, for an observer that must keep
    // that very event beyond its call: the event is freed once nothing holds it. Given any other
    // event, a shared copy of it.
    static std::shared_ptr<const DSEvent> shareEvent(const DSEvent& event);

    static std::vector<std::string> getMapKeys(std::map<std::string, std::string> map);

    void sendResponse(std::map<std::string, foundation::json::Value> message);
    void sendArrayResponse(std::vector<foundation::json::Value> message);
    void dataUpdated(const DSEvent& event);
    void sizeUpdated(int rowCount, int columnCount);
    // Throws std::bad_variant_access when the event's data holds the wrong list kind for its type.
    void metaDataUpdated(const DSModelEvent& event);
    // Placeholder page of "row_column" labels, for owners exercising a client.
    std::string generateJsonData(int startRow, int endRow, int startColumn, int endColumn);

private:
    std::shared_ptr<connector::message_service::MessageService> messageService;
    std::string channel;
    std::shared_ptr<connector::message_service::Subscription> subscription;
    workspace_browser_startup::ObserverList<DSObserver> observers;
    std::unique_ptr<workspace_browser_startup::detail::RecentEvents> recentEvents;
};
