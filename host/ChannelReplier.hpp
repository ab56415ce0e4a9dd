#pragma once

#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>

#include <functional>
#include <mutex>
#include <string>

namespace wsbrowser {

// Answers one page on one of its channels until the page's session closes: answers often come
// late, from the host's delivery thread, and must not reach a page that has gone. A failed
// publish is logged, never thrown.
// Thread-safe: publish(), whileOpen() and close() may be called from any thread.
class ChannelReplier {
public:
    ChannelReplier(connector::message_service::MessageService::Ptr service, std::string channel)
        : mService(std::move(service)), mChannel(std::move(channel)) {}

    const std::string& channel() const { return mChannel; }
    const connector::message_service::MessageService::Ptr& service() const { return mService; }

    // Publishes `message` unless closed.
    void publish(const foundation::json::Object& message);
    // Runs `action` unless closed, under the lock close() takes: once close() has returned,
    // nothing the session owns is touched any more.
    void whileOpen(const std::function<void()>& action);
    void close();

private:
    std::mutex mMutex; // guards mOpen
    bool mOpen = true;
    const connector::message_service::MessageService::Ptr mService;
    const std::string mChannel;
};

} // namespace wsbrowser
