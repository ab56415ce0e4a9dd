#pragma once

#include "ChannelReplier.hpp"
#include "WorkspaceHost.hpp"

#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace wsbrowser {

// One page's requests to the workspace itself, beside the grid's own channels:
// - {"get":"editText","name":"x","id":n}: the grid's cells carry a shortened display text, and
//   an editor that started from it would write the shortening back; the answer is
//   {"answer":"editText","id":n,"name":"x","editable":true,"text":"..."} with the Python text
//   that recreates the value exactly, or the same with "editable":false and a "reason".
// - {"do":"delete","names":[...]}: deletes those variables (names that are not variables are
//   skipped) and answers {"answer":"delete","deleted":n}; the grid follows the change batch.
// - {"do":"filter","text":"..."}: the page's grid lists only the variables whose names contain
//   the text, ignoring case ("" lists all); no answer, the grid's usual updates follow.
// - {"do":"refresh"}: re-reads the whole workspace (every variable is described again, also one
//   whose change no scan could see); the grid's usual updates follow, no answer.
// Anything else is answered {"error":"..."}.
// Thread-safe: requests arrive on the service's delivery thread, answers leave from the host's
// delivery thread, and close() may come from any thread; after close() nothing more is sent.
class WorkspaceChannel {
public:
    using FilterHandler = std::function<void(const std::string& text)>;
    // The longest filter text taken; a longer one is cut.
    static constexpr std::size_t kMaxFilterChars = 256;

    WorkspaceChannel(connector::message_service::MessageService::Ptr service, std::string channel,
                     const std::shared_ptr<WorkspaceHost>& host, FilterHandler onFilter);
    ~WorkspaceChannel();
    WorkspaceChannel(const WorkspaceChannel&) = delete;
    WorkspaceChannel& operator=(const WorkspaceChannel&) = delete;

    void close();

private:
    std::shared_ptr<ChannelReplier> mReplier;
    std::shared_ptr<connector::message_service::Subscription> mSubscription;
};

} // namespace wsbrowser
