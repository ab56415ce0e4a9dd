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

// A text from the host itself, as one run on stdout or stderr.
WorkspaceHost::ConsoleOutput hostText(const std::string& text, bool error) {
    return {text, error, {{error, text}}};
}

} // namespace

struct ConsoleChannel::State {
    std::mutex mutex; // guards open
    bool open = true;
    connector::message_service::MessageService::Ptr service;
    std::string channel;

    void publish(const WorkspaceHost::ConsoleOutput& output, bool notice = false) {
        namespace json = foundation::json;
        json::Array runs;
        for (const auto& [toStderr, text] : output.runs) {
            runs.emplace_back(json::Object{{"stream", json::Value(toStderr ? "stderr" : "stdout")},
                                           {"text", json::Value(text)}});
        }
        json::Object message{{"output", json::Value(output.text)},
                             {"error", json::Value(output.failed)},
                             {"runs", json::Value(std::move(runs))}};
        if (notice)
            message.emplace("notice", json::Value(true));
        std::lock_guard<std::mutex> lock(mutex);
        if (!open)
            return;
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
    auto onMessage = [weak, host = std::move(host)](
                         const connector::message_service::JsonMessage& message) {
        auto state = weak.lock();
        if (!state)
            return;
        foundation::json::Object object;
        const std::string_view text = message.text();
        const int result = workspace_browser_startup::JsonTypedValues::parseObject(
            text.data(), text.data() + text.size(), object);
        const auto code = object.find("code");
        const auto interrupt = object.find("interrupt");
        if (result == 0 && interrupt != object.end() && interrupt->second.is<bool>() &&
            interrupt->second.get<bool>()) {
            // Ctrl+C in the page: with nothing running there is nothing to say.
            host->interrupt();
            return;
        }
        if (result != 0 || code == object.end() || !code->second.is<std::string>()) {
            state->publish(hostText(
                "A console message must be {\"code\":\"...\"} or {\"interrupt\":true}.\n", true));
            return;
        }
        host->runCode(code->second.get<std::string>(),
                      [weak](const WorkspaceHost::ConsoleOutput& output) {
                          if (auto alive = weak.lock())
                              alive->publish(output);
                      });
    };
    mSubscription = mState->service->subscribe(mState->channel, onMessage).get();
}

ConsoleChannel::~ConsoleChannel() {
    close();
}

void ConsoleChannel::publish(const std::string& output, bool error) {
    mState->publish(hostText(output, error), true);
}

void ConsoleChannel::close() {
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        mState->open = false;
    }
    mSubscription.reset();
}

} // namespace wsbrowser
