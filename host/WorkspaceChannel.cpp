#include "WorkspaceChannel.hpp"

#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <vector>

namespace wsbrowser {

namespace json = foundation::json;

WorkspaceChannel::WorkspaceChannel(connector::message_service::MessageService::Ptr service,
                                   std::string channel, const std::shared_ptr<WorkspaceHost>& host,
                                   FilterHandler onFilter)
    : mReplier(std::make_shared<ChannelReplier>(std::move(service), std::move(channel))) {
    std::weak_ptr<ChannelReplier> weak = mReplier;
    std::weak_ptr<WorkspaceHost> weakHost = host;
    auto onMessage = [weak, weakHost, onFilter = std::move(onFilter)](
                         const connector::message_service::JsonMessage& message) {
        auto state = weak.lock();
        auto host = weakHost.lock();
        if (!state || !host)
            return;
        json::Object request;
        const std::string_view text = message.text();
        const int parsed = workspace_browser_startup::JsonTypedValues::parseObject(
            text.data(), text.data() + text.size(), request);
        const auto field = [&request](const char* key) -> const std::string* {
            const auto found = request.find(key);
            return found != request.end() && found->second.is<std::string>()
                       ? &found->second.get<std::string>()
                       : nullptr;
        };
        const std::string* get = field("get");
        const std::string* name = field("name");
        const std::string* action = field("do");
        if (parsed == 0 && action && *action == "filter") {
            const std::string* text = field("text");
            // Once closed, the page's view model may be gone.
            if (onFilter)
                state->whileOpen(
                    [&] { onFilter(text ? text->substr(0, kMaxFilterChars) : std::string()); });
            return;
        }
        if (parsed == 0 && action && *action == "refresh") {
            host->refresh();
            return;
        }
        if (parsed == 0 && action && *action == "delete") {
            std::vector<std::string> names;
            if (const auto list = request.find("names");
                list != request.end() && list->second.is<json::Array>()) {
                for (const json::Value& name : list->second.get<json::Array>()) {
                    if (name.is<std::string>())
                        names.push_back(name.get<std::string>());
                }
            }
            host->deleteVariables(std::move(names), [weak](std::size_t deleted) {
                if (auto alive = weak.lock())
                    alive->publish(
                        json::Object{{"answer", json::Value("delete")},
                                     {"deleted", json::Value(static_cast<double>(deleted))}});
            });
            return;
        }
        if (parsed != 0 || !get || *get != "editText" || !name) {
            state->publish(json::Object{
                {"error", json::Value("a workspace request is {\"get\":\"editText\","
                                      "\"name\":\"...\",\"id\":n}, {\"do\":\"refresh\"} or "
                                      "{\"do\":\"delete\",\"names\":[...]}")}});
            return;
        }
        json::Object answer{{"answer", json::Value("editText")}, {"name", json::Value(*name)}};
        if (const auto id = request.find("id");
            id != request.end() &&
            (id->second.is<double>() || id->second.is<long>() || id->second.is<unsigned long>()))
            answer.emplace("id", id->second);
        host->editText(*name, [weak, answer](bool editable, std::string textOrReason) mutable {
            auto alive = weak.lock();
            if (!alive)
                return;
            answer.emplace("editable", json::Value(editable));
            answer.emplace(editable ? "text" : "reason", json::Value(std::move(textOrReason)));
            alive->publish(answer);
        });
    };
    mSubscription = mReplier->service()->subscribe(mReplier->channel(), onMessage).get();
}

WorkspaceChannel::~WorkspaceChannel() {
    close();
}

void WorkspaceChannel::close() {
    mReplier->close();
    mSubscription.reset();
}

} // namespace wsbrowser
