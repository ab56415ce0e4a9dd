#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace connector::message_service {

// How the WebSocket service listens and what it tolerates from a page.
struct WebSocketServerOptions {
    std::string address = "127.0.0.1";      // loopback by default
    std::uint16_t port = 0;                 // 0 = any free port
    std::filesystem::path staticRoot;       // web client files; empty = serve none
    std::string token;                      // empty = generate (32 random bytes, hex)
    std::size_t maxMessageBytes = 4u << 20; // larger inbound message: close 1009
    std::size_t maxQueuedBytesPerConnection = 16u
                                              << 20; // past this a non-reading client is dropped
    std::chrono::seconds handshakeTimeout{10};
    std::chrono::seconds idleTimeout{60}; // pings keep live connections open
    // Connections open at once (HTTP requests and pages together); one more is closed at once.
    // Never more than half the process's open-file limit, so the host keeps files of its own.
    std::size_t maxConnections = 256;
};

// Carries the channels to browser pages over WebSocket, and serves the web client's files on the
// same loopback port. Every page must present the token; see docs/protocol.md for the envelope
// protocol and the security rules.
// Thread-safe: any thread may subscribe, release, publish or stop; callbacks and page handlers
// run on the service's own delivery thread, one at a time, in arrival order.
class WSB_EXPORT WebSocketMessageService : public MessageService {
public:
    using PageHandler = std::function<void(const std::string& pageId)>;

    // Throws std::invalid_argument for a given token shorter than 24 characters or holding
    // anything but letters, digits, '-', '_', '.' and '~'.
    static std::shared_ptr<WebSocketMessageService> create(WebSocketServerOptions options);
    ~WebSocketMessageService() override; // stops the server
    WebSocketMessageService(const WebSocketMessageService&) = delete;
    WebSocketMessageService& operator=(const WebSocketMessageService&) = delete;

    // The bound port once start() has returned (the requested one before).
    std::uint16_t port() const;
    const std::string& token() const;
    // "http://127.0.0.1:<port>/?token=<token>": what the browser opens.
    std::string url() const;
    // Called on the delivery thread when a page's WebSocket opens / closes. Set before start().
    void setPageHandlers(PageHandler connected, PageHandler disconnected);
    // Listens; returns once bound. Throws std::system_error when the address cannot be bound and
    // std::logic_error when called twice.
    void start();
    // Closes the connections, runs the pending deliveries and the disconnect handlers, joins the
    // threads. Idempotent.
    void stop();

    // An empty callback yields a future holding std::invalid_argument.
    Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel,
                                                    Callback callback) override;
    // Text that is not one JSON value yields a future holding std::invalid_argument. Before
    // start() and after stop() the message reaches nobody.
    Future<void> publish(const std::string& channel, const JsonMessage& message) override;

    class Impl;

private:
    explicit WebSocketMessageService(WebSocketServerOptions options);

    std::shared_ptr<Impl> mImpl;
};

} // namespace connector::message_service
