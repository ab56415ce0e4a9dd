#pragma once

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace connector::message_service {

// The subscribers of one side of a message service, by channel. Handles reach it through a weak
// pointer, so a handle released after the service is gone finds nothing to do. Releasing a
// handle waits for calls of its callback in progress on other threads, so that whatever the
// callback touches may be destroyed right after; a callback may release its own handle.
// Thread-safe: one mutex guards the lists; callbacks are called with it released.
class SubscriberRegistry : public std::enable_shared_from_this<SubscriberRegistry> {
public:
    using Callback = MessageService::Callback;

    // `logger` and `what` name the service and side in the warning about a throwing subscriber.
    SubscriberRegistry(const foundation::log::basic_diagnostic_logger& logger, std::string what);

    std::shared_ptr<Subscription> add(const std::string& channel, Callback callback);
    // `add` in the shape of the service interface's subscribe: an empty callback yields a
    // future holding std::invalid_argument.
    Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel, Callback callback);
    // Calls every subscriber of `channel` with `text`, in subscription order; a subscriber that
    // throws is logged and the others still get the message.
    void deliver(const std::string& channel, std::string_view text) const;

private:
    struct Slot;
    struct Entry {
        std::uint64_t id;
        std::shared_ptr<Slot> slot;
    };

    void remove(const std::string& channel, std::uint64_t id);

    const foundation::log::basic_diagnostic_logger& mLogger;
    const std::string mWhat;
    mutable std::mutex mMutex;
    std::uint64_t mLastId = 0;
    std::map<std::string, std::vector<Entry>, std::less<>> mLists;
};

} // namespace connector::message_service
