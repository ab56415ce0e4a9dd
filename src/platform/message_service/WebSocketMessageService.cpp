#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <stdexcept>

namespace connector::message_service {

class WebSocketMessageService::Impl {
public:
    explicit Impl(WebSocketServerOptions o) : options(std::move(o)) {}
    WebSocketServerOptions options;
};

WebSocketMessageService::WebSocketMessageService(WebSocketServerOptions options)
    : mImpl(std::make_shared<Impl>(std::move(options))) {}
WebSocketMessageService::~WebSocketMessageService() = default;
std::shared_ptr<WebSocketMessageService>
WebSocketMessageService::create(WebSocketServerOptions options) {
    return std::shared_ptr<WebSocketMessageService>(
        new WebSocketMessageService(std::move(options)));
}
std::uint16_t WebSocketMessageService::port() const {
    return mImpl->options.port;
}
const std::string& WebSocketMessageService::token() const {
    return mImpl->options.token;
}
std::string WebSocketMessageService::url() const {
    return {};
}
void WebSocketMessageService::setPageHandlers(PageHandler, PageHandler) {}
void WebSocketMessageService::start() {
    throw std::logic_error("not yet");
}
void WebSocketMessageService::stop() {}
Future<std::shared_ptr<Subscription>> WebSocketMessageService::subscribe(const std::string&,
                                                                         Callback) {
    return make_ready_future(std::make_shared<Subscription>());
}
Future<void> WebSocketMessageService::publish(const std::string&, const JsonMessage&) {
    return make_ready_future();
}
} // namespace connector::message_service
