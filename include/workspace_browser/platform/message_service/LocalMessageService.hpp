#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>

#include <memory>
#include <string>
#include <string_view>

namespace connector::message_service {

// The embedded message service: server and clients live in one process. `subscribe` (server)
// receives what clients send with `publishFromClient`; `publish` (server) reaches the callbacks
// registered with `subscribeClient`. Neither side hears itself. Delivery is synchronous, on the
// publishing thread, to every subscriber of the channel in subscription order; a callback that
// throws is logged and skipped, the others still receive the message.
// Thread-safe: any thread may subscribe, release or publish at any time, also from inside a
// callback. Once a subscription's release has returned, no delivery that starts afterwards
// calls its callback. Subscriptions may outlive the service.
class WSB_EXPORT LocalMessageService : public MessageService {
public:
    LocalMessageService();
    ~LocalMessageService() override;
    LocalMessageService(const LocalMessageService&) = delete;
    LocalMessageService& operator=(const LocalMessageService&) = delete;

    // Server side. An empty callback yields a future holding std::invalid_argument.
    Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel,
                                                    Callback callback) override;
    Future<void> publish(const std::string& channel, const JsonMessage& message) override;

    // Client side. An empty callback throws std::invalid_argument.
    std::shared_ptr<Subscription> subscribeClient(const std::string& channel, Callback callback);
    void publishFromClient(const std::string& channel, std::string_view text);

private:
    class Registry;
    std::shared_ptr<Registry> mRegistry;
};

} // namespace connector::message_service
