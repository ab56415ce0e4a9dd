#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/message_service/Future.hpp>
#include <workspace_browser/platform/message_service/JsonMessage.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>

#include <functional>
#include <memory>
#include <string>

namespace connector::message_service {

// The server side of a JSON publish/subscribe service with named channels. Implementations
// state their own thread-safety; the library calls them from any thread.
class WSB_EXPORT MessageService {
public:
    using Ptr = std::shared_ptr<MessageService>;
    using Callback = std::function<void(const JsonMessage&)>;

    virtual ~MessageService();

    // Messages that clients publish on `channel` reach `callback`, on the service's delivery
    // thread. The message's text lives only for the duration of the call.
    virtual Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel,
                                                            Callback callback) = 0;
    // Sends `message` to the clients subscribed to `channel`. The text is copied before the call
    // returns.
    virtual Future<void> publish(const std::string& channel, const JsonMessage& message) = 0;

protected:
    MessageService() = default;
    MessageService(const MessageService&) = default;
    MessageService& operator=(const MessageService&) = default;
};

} // namespace connector::message_service
