#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include "platform/message_service/websocket/ServerCore.hpp"

#include <utility>

namespace connector::message_service {

WebSocketMessageService::WebSocketMessageService(WebSocketServerOptions options)
    : mImpl(std::make_shared<Impl>(std::move(options))) {}

WebSocketMessageService::~WebSocketMessageService() {
    mImpl->stop();
}

std::shared_ptr<WebSocketMessageService>
WebSocketMessageService::create(WebSocketServerOptions options) {
    return std::shared_ptr<WebSocketMessageService>(
        new WebSocketMessageService(std::move(options)));
}

std::uint16_t WebSocketMessageService::port() const {
    return mImpl->port();
}

const std::string& WebSocketMessageService::token() const {
    return mImpl->token();
}

std::string WebSocketMessageService::url() const {
    return mImpl->url();
}

void WebSocketMessageService::setPageHandlers(PageHandler connected, PageHandler disconnected) {
    mImpl->setPageHandlers(std::move(connected), std::move(disconnected));
}

void WebSocketMessageService::start() {
    mImpl->start();
}

void WebSocketMessageService::stop() {
    mImpl->stop();
}

Future<std::shared_ptr<Subscription>> WebSocketMessageService::subscribe(const std::string& channel,
                                                                         Callback callback) {
    return mImpl->subscribe(channel, std::move(callback));
}

Future<void> WebSocketMessageService::publish(const std::string& channel,
                                              const JsonMessage& message) {
    return mImpl->publish(channel, message);
}

} // namespace connector::message_service
