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
                               const std::string& channel, std::vector<std::string> keys,
                               Statistics statistics) {
    namespace json = foundation::json;
    const auto listOf = [](std::vector<std::string>& texts) {
        json::Array list;
        for (std::string& text : texts)
            list.emplace_back(std::move(text));
        return list;
    };
    json::Object stats{{"on", json::Value(statistics.on)},
                       {"limit", json::Value(statistics.limit)},
                       {"columns", json::Value(listOf(statistics.columns))}};
    const std::string answer = json::serialize(json::Value(json::Object{
        {"columns", json::Value(listOf(keys))}, {"statistics", json::Value(std::move(stats))}}));
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
