#pragma once

#include "WorkspaceHost.hpp"

#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>

#include <memory>
#include <string>

namespace wsbrowser {

// Gives one page's cell editor the full text of a value. The grid's cells carry a shortened
// display text, and an editor that started from it would write the shortening back; so the page
// asks here with {"get":"editText","name":"x","id":n} and is answered
// {"id":n,"name":"x","editable":true,"text":"..."} with the Python text that recreates the value
// exactly, or {"id":n,"name":"x","editable":false,"reason":"..."}. A malformed request is
// answered {"error":"..."}.
// Thread-safe: requests arrive on the service's delivery thread, answers leave from the host's
// delivery thread, and close() may come from any thread; after close() nothing more is sent.
class EditChannel {
public:
    EditChannel(connector::message_service::MessageService::Ptr service, std::string channel,
                std::shared_ptr<WorkspaceHost> host);
    ~EditChannel();
    EditChannel(const EditChannel&) = delete;
    EditChannel& operator=(const EditChannel&) = delete;

    void close();

private:
    struct State;
    std::shared_ptr<State> mState;
    std::shared_ptr<connector::message_service::Subscription> mSubscription;
};

} // namespace wsbrowser
