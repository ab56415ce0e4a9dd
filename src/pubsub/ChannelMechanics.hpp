#pragma once

#include <workspace_browser/platform/message_service/MessageService.hpp>

#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

// What the paging and view-model endpoints share: how they subscribe and how they publish.
namespace workspace_browser_startup::detail {

// Subscribes `callback` to the channel and waits for the service's handle. Throws
// std::runtime_error "Future state isn't valid!" when the service returns no valid future, and
// whatever the future holds when subscribing failed.
inline std::shared_ptr<connector::message_service::Subscription>
subscribeChannel(connector::message_service::MessageService& service, const std::string& channel,
                 connector::message_service::MessageService::Callback callback) {
    auto future = service.subscribe(channel, std::move(callback));
    if (!future.valid())
        throw std::runtime_error("Future state isn't valid!");
    future.wait();
    return future.get();
}

// Copies the text into a buffer of exactly its length and publishes it on the channel; the
// buffer is released once the service has taken its own copy. The returned future is dropped on
// purpose: a publish that fails later inside the service goes unnoticed.
// Throws std::runtime_error "Out of memory!" when the buffer cannot be allocated.
inline void publishText(connector::message_service::MessageService& service,
                        const std::string& channel, const std::string& text) {
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[text.size()]);
    if (!buffer)
        throw std::runtime_error("Out of memory!");
    std::memcpy(buffer.get(), text.data(), text.size());
    service.publish(channel, connector::message_service::JsonMessage(buffer.get(), text.size()));
}

} // namespace workspace_browser_startup::detail
