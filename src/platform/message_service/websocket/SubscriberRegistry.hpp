#pragma once

#include <workspace_browser/platform/message_service/MessageService.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace connector::message_service::websocket {

// The server-side subscriptions of the WebSocket service, by channel. Handles reach it through a
// weak pointer, so a handle released after the service is gone finds nothing to do.
// Thread-safe: one mutex guards the lists; callbacks are called with it released.
class SubscriberRegistry : public std::enable_shared_from_this<SubscriberRegistry> {
public:
    using Callback = MessageService::Callback;

    std::shared_ptr<Subscription> add(const std::string& channel, Callback callback);
    // Calls every subscriber of `channel` with `text`, in subscription order; a subscriber that
    // throws is logged and the others still get the message.
    void deliver(const std::string& channel, std::string_view text) const;

private:
    struct Entry {
        std::uint64_t id;
        std::shared_ptr<const Callback> callback;
    };

    void remove(const std::string& channel, std::uint64_t id);

    mutable std::mutex mMutex;
    std::uint64_t mLastId = 0;
    std::map<std::string, std::vector<Entry>, std::less<>> mLists;
};

} // namespace connector::message_service::websocket
