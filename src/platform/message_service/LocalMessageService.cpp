#include <workspace_browser/platform/message_service/LocalMessageService.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/message_service/Promise.hpp>

#include "platform/message_service/SubscriberRegistry.hpp"

#include <stdexcept>
#include <utility>

namespace connector::message_service {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::connector::LocalMessageService");
    return instance;
}

} // namespace

// Both sides' subscribers. Thread-safe: each side is a thread-safe registry.
class LocalMessageService::Registry {
public:
    std::shared_ptr<SubscriberRegistry> server =
        std::make_shared<SubscriberRegistry>(logger(), "server subscriber"); // publishFromClient
    std::shared_ptr<SubscriberRegistry> client =
        std::make_shared<SubscriberRegistry>(logger(), "client subscriber"); // publish
};

LocalMessageService::LocalMessageService() : mRegistry(std::make_shared<Registry>()) {}

LocalMessageService::~LocalMessageService() = default;

Future<std::shared_ptr<Subscription>> LocalMessageService::subscribe(const std::string& channel,
                                                                     Callback callback) {
    return mRegistry->server->subscribe(channel, std::move(callback));
}

Future<void> LocalMessageService::publish(const std::string& channel, const JsonMessage& message) {
    mRegistry->client->deliver(channel, message.text());
    return make_ready_future();
}

std::shared_ptr<Subscription> LocalMessageService::subscribeClient(const std::string& channel,
                                                                   Callback callback) {
    if (!callback)
        throw std::invalid_argument("subscribeClient: empty callback for channel " + channel);
    return mRegistry->client->add(channel, std::move(callback));
}

void LocalMessageService::publishFromClient(const std::string& channel, std::string_view text) {
    mRegistry->server->deliver(channel, text);
}

} // namespace connector::message_service
