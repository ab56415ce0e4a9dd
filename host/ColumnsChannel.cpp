#include "ColumnsChannel.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

namespace wsbrowser {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::ColumnsChannel");
    return instance;
}

bool isColumnsRequest(std::string_view text) {
    foundation::json::Object object;
    if (workspace_browser_startup::JsonTypedValues::parseObject(
            text.data(), text.data() + text.size(), object) != 0)
        return false;
    const auto get = object.find("get");
    return get != object.end() && get->second.is<std::string>() &&
           get->second.get<std::string>() == "columns";
}

} // namespace

ColumnsChannel::ColumnsChannel(const connector::message_service::MessageService::Ptr& service,
                               const std::string& channel, std::vector<std::string> keys) {
    foundation::json::Array list;
    for (std::string& key : keys)
        list.emplace_back(std::move(key));
    const std::string answer = foundation::json::serialize(
        foundation::json::Value(foundation::json::Object{{"columns", std::move(list)}}));
    // The service owns the subscription's handler; a weak pointer keeps the two from holding
    // each other alive.
    std::weak_ptr<connector::message_service::MessageService> weakService = service;
    auto onMessage = [weakService, channel,
                      answer](const connector::message_service::JsonMessage& message) {
        if (!isColumnsRequest(message.text())) {
            WSB_LOG(logger(), foundation::log::kWarning)
                << "Ignoring a message on " << channel << " that is not {\"get\":\"columns\"}";
            return;
        }
        auto service = weakService.lock();
        if (!service)
            return;
        try {
            service->publish(channel, connector::message_service::JsonMessage(answer));
        } catch (const std::exception& e) {
            WSB_LOG(logger(), foundation::log::kWarning)
                << "Cannot answer on " << channel << ": " << e.what();
        }
    };
    mSubscription = service->subscribe(channel, onMessage).get();
}

ColumnsChannel::~ColumnsChannel() {
    close();
}

void ColumnsChannel::close() {
    mSubscription.reset();
}

} // namespace wsbrowser
