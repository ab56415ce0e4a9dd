#include "EditChannel.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <mutex>

namespace wsbrowser {

namespace json = foundation::json;

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::EditChannel");
    return instance;
}

} // namespace

struct EditChannel::State {
    std::mutex mutex; // guards open
    bool open = true;
    connector::message_service::MessageService::Ptr service;
    std::string channel;

    void publish(const json::Object& message) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!open)
            return;
        try {
            service->publish(channel, connector::message_service::JsonMessage(
                                          json::serialize(json::Value(message))));
        } catch (const std::exception& e) {
            WSB_LOG(logger(), foundation::log::kWarning)
                << "Cannot answer on " << channel << ": " << e.what();
        }
    }
};

EditChannel::EditChannel(connector::message_service::MessageService::Ptr service,
                         std::string channel, std::shared_ptr<WorkspaceHost> host)
    : mState(std::make_shared<State>()) {
    mState->service = std::move(service);
    mState->channel = std::move(channel);
    std::weak_ptr<State> weak = mState;
    std::weak_ptr<WorkspaceHost> weakHost = host;
    auto onMessage = [weak, weakHost](const connector::message_service::JsonMessage& message) {
        auto state = weak.lock();
        auto host = weakHost.lock();
        if (!state || !host)
            return;
        json::Object request;
        const std::string_view text = message.text();
        const int parsed = workspace_browser_startup::JsonTypedValues::parseObject(
            text.data(), text.data() + text.size(), request);
        const auto get = request.find("get");
        const auto name = request.find("name");
        if (parsed != 0 || get == request.end() || !get->second.is<std::string>() ||
            get->second.get<std::string>() != "editText" || name == request.end() ||
            !name->second.is<std::string>()) {
            state->publish(json::Object{
                {"error", json::Value("an edit-text request is "
                                      "{\"get\":\"editText\",\"name\":\"...\",\"id\":n}")}});
            return;
        }
        json::Object answer{{"name", name->second}};
        if (const auto id = request.find("id");
            id != request.end() &&
            (id->second.is<double>() || id->second.is<long>() || id->second.is<unsigned long>()))
            answer.emplace("id", id->second);
        host->editText(name->second.get<std::string>(),
                       [weak, answer](bool editable, std::string textOrReason) mutable {
                           auto alive = weak.lock();
                           if (!alive)
                               return;
                           answer.emplace("editable", json::Value(editable));
                           answer.emplace(editable ? "text" : "reason",
                                          json::Value(std::move(textOrReason)));
                           alive->publish(answer);
                       });
    };
    mSubscription = mState->service->subscribe(mState->channel, onMessage).get();
}

EditChannel::~EditChannel() {
    close();
}

void EditChannel::close() {
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        mState->open = false;
    }
    mSubscription.reset();
}

} // namespace wsbrowser
