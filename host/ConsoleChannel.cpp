#include "ConsoleChannel.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <mutex>

namespace wsbrowser {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::ConsoleChannel");
    return instance;
}

} // namespace

struct ConsoleChannel::State {
    std::mutex mutex; // guards open
    bool open = true;
    connector::message_service::MessageService::Ptr service;
    std::string channel;

    void publish(const std::string& output, bool error) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!open)
            return;
        foundation::json::Object message{{"output", foundation::json::Value(output)},
                                         {"error", foundation::json::Value(error)}};
        const std::string text = foundation::json::serialize(foundation::json::Value(message));
        try {
            service->publish(channel, connector::message_service::JsonMessage(text));
        } catch (const std::exception& e) {
            WSB_LOG(logger(), foundation::log::kWarning)
                << "Cannot answer on " << channel << ": " << e.what();
        }
    }
};

ConsoleChannel::ConsoleChannel(connector::message_service::MessageService::Ptr service,
                               std::string channel, std::shared_ptr<WorkspaceHost> host)
    : mState(std::make_shared<State>()) {
    mState->service = std::move(service);
    mState->channel = std::move(channel);
    std::weak_ptr<State> weak = mState;
    auto onMessage =
        [weak, host = std::move(host)](const connector::message_service::JsonMessage& message) {
            auto state = weak.lock();
            if (!state)
                return;
            foundation::json::Object object;
            const std::string_view text = message.text();
            const int result = workspace_browser_startup::JsonTypedValues::parseObject(
                text.data(), text.data() + text.size(), object);
            const auto code = object.find("code");
            if (result != 0 || code == object.end() || !code->second.is<std::string>()) {
                state->publish("A console message must be an object with a \"code\" text.\n", true);
                return;
            }
            host->runCode(code->second.get<std::string>(),
                          [weak](const std::string& output, bool failed) {
                              if (auto alive = weak.lock())
                                  alive->publish(output, failed);
                          });
        };
    mSubscription = mState->service->subscribe(mState->channel, onMessage).get();
}

ConsoleChannel::~ConsoleChannel() {
    close();
}

void ConsoleChannel::publish(const std::string& output, bool error) {
    mState->publish(output, error);
}

void ConsoleChannel::close() {
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        mState->open = false;
    }
    mSubscription.reset();
}

} // namespace wsbrowser
