#include "ConsoleChannel.hpp"

#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

namespace wsbrowser {

namespace {

// A text from the host itself, as one run on stdout or stderr.
WorkspaceHost::ConsoleOutput hostText(const std::string& text, bool error) {
    return {text, error, {{error, text}}};
}

// The console's answer: the whole text, whether the code raised, and the text by stream.
foundation::json::Object answerOf(const WorkspaceHost::ConsoleOutput& output, bool notice) {
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
    return message;
}

} // namespace

ConsoleChannel::ConsoleChannel(connector::message_service::MessageService::Ptr service,
                               std::string channel, std::shared_ptr<WorkspaceHost> host)
    : mReplier(std::make_shared<ChannelReplier>(std::move(service), std::move(channel))) {
    std::weak_ptr<ChannelReplier> weak = mReplier;
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
            state->publish(answerOf(
                hostText("A console message must be {\"code\":\"...\"} or {\"interrupt\":true}.\n",
                         true),
                false));
            return;
        }
        host->runCode(code->second.get<std::string>(),
                      [weak](const WorkspaceHost::ConsoleOutput& output) {
                          if (auto alive = weak.lock())
                              alive->publish(answerOf(output, false));
                      });
    };
    mSubscription = mReplier->service()->subscribe(mReplier->channel(), onMessage).get();
}

ConsoleChannel::~ConsoleChannel() {
    close();
}

void ConsoleChannel::publish(const std::string& output, bool error) {
    mReplier->publish(answerOf(hostText(output, error), true));
}

void ConsoleChannel::close() {
    mReplier->close();
    mSubscription.reset();
}

} // namespace wsbrowser
