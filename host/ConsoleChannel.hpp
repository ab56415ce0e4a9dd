#pragma once

#include "ChannelReplier.hpp"
#include "WorkspaceHost.hpp"

#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>

#include <memory>
#include <string>

namespace wsbrowser {

// One page's console: code the page publishes on its channel as {"code":"..."} runs in the
// workspace with its output captured, and the page receives
// {"output":"...","error":bool,"runs":[{"stream":"stdout"|"stderr","text":"..."},...]}: the
// whole output, whether the code raised, and the same output by stream in the order written.
// The host's own notices (a refused rename) come the same way with "notice":true.
// {"interrupt":true} breaks into the code running now with KeyboardInterrupt. A message that
// is neither is answered with an error and runs nothing.
// Thread-safe: messages arrive on the service's delivery thread, answers leave from the
// host's delivery thread, and close() may come from any thread; after close() nothing more is
// published.
class ConsoleChannel {
public:
    ConsoleChannel(connector::message_service::MessageService::Ptr service, std::string channel,
                   std::shared_ptr<WorkspaceHost> host);
    ~ConsoleChannel();
    ConsoleChannel(const ConsoleChannel&) = delete;
    ConsoleChannel& operator=(const ConsoleChannel&) = delete;

    // Sends the host's own text to the page as console output, marked "notice": true so that
    // the page does not take it for the answer to a command.
    void publish(const std::string& output, bool error);
    void close();

private:
    std::shared_ptr<ChannelReplier> mReplier;
    std::shared_ptr<connector::message_service::Subscription> mSubscription;
};

} // namespace wsbrowser
