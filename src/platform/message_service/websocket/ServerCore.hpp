#pragma once

#include "platform/message_service/SubscriberRegistry.hpp"
#include "platform/message_service/websocket/DeliveryQueue.hpp"
#include "platform/message_service/websocket/LogThrottle.hpp"
#include "platform/message_service/websocket/ServiceLog.hpp"

#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace connector::message_service {

namespace websocket {
class HttpSession;
class WsConnection;
} // namespace websocket

// The server behind WebSocketMessageService, which holds it as its private implementation: the
// listener and its connections on one I/O thread, the server subscriptions, and the delivery
// thread that calls them. The sessions and connections know it as websocket::ServerCore.
// Thread-safe for the public service operations; the members marked "I/O thread" are called only
// from the I/O thread (or by stop once that thread has ended).
class WebSocketMessageService::Impl {
public:
    using PageHandler = WebSocketMessageService::PageHandler;
    using HttpSession = websocket::HttpSession;
    using WsConnection = websocket::WsConnection;

    explicit Impl(WebSocketServerOptions options);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t port() const { return mPort.load(); }
    const std::string& token() const { return mToken; }
    std::string url() const;
    void setPageHandlers(PageHandler connected, PageHandler disconnected);
    void start();
    void stop();
    Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel,
                                                    MessageService::Callback callback);
    Future<void> publish(const std::string& channel, const JsonMessage& message);

    // For the sessions.
    const WebSocketServerOptions& options() const { return mOptions; }
    // The canonical static root; empty when no files are served.
    const std::filesystem::path& staticRoot() const { return mStaticRoot; }
    // I/O thread: the id of a new WebSocket connection, "page-N", unique for the service's life.
    std::string newPageId() { return "page-" + std::to_string(++mLastPage); }
    // I/O thread: the WebSocket handshake of a connection succeeded: its page is announced.
    void openPage(const std::string& pageId);
    // I/O thread: a connection is over; `wasOpen` when its page had been announced.
    void connectionEnded(const std::string& pageId, bool wasOpen);
    // I/O thread: an HTTP session is over (closed, failed or upgraded).
    void httpSessionEnded(std::uint64_t id);
    // I/O thread: an HTTP session upgrades to this WebSocket connection.
    void connectionStarted(const std::shared_ptr<WsConnection>& connection);
    // I/O thread: a page published; the message goes to the delivery thread, and the connection
    // hears back once it has been delivered.
    void deliverFromPage(std::string channel, std::string message,
                         const std::shared_ptr<WsConnection>& from);
    // I/O thread: the number of a new HTTP session (a request exchange, not yet a page).
    std::uint64_t nextSessionId() { return ++mLastSession; }
    // I/O thread: a warning that a client can provoke at will (a refusal, a failing accept);
    // repeats of the same text are held back for a while and counted.
    void warnThrottled(const std::string& text) { mWarnings.write(text); }

private:
    enum class State { Created, Running, Stopping, Stopped };

    void acceptNext();
    void onAccepted(boost::system::error_code ec, boost::asio::ip::tcp::socket socket);
    void acceptLater();
    bool hasRoomForConnection() const;
    void beginShutdown();
    void endShutdownIfIdle();
    void broadcast(const std::string& channel, const std::shared_ptr<const std::string>& frame);

    const WebSocketServerOptions mOptions;
    const std::string mToken;
    // Declared before everything that uses it, so that it is destroyed last: its pending
    // handlers own sessions whose sockets belong to it.
    boost::asio::io_context mIoc{1};
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> mWork;
    boost::asio::ip::tcp::acceptor mAcceptor;
    boost::asio::steady_timer mShutdownDeadline;
    boost::asio::steady_timer mAcceptRetry;
    std::thread mIoThread;

    std::shared_ptr<SubscriberRegistry> mRegistry =
        std::make_shared<SubscriberRegistry>(websocket::serviceLogger(), "subscriber");
    websocket::DeliveryQueue mDelivery;

    std::mutex mMutex; // guards mState and the page handlers
    State mState = State::Created;
    PageHandler mConnected;
    PageHandler mDisconnected;
    std::atomic<bool> mRunning{false};
    std::atomic<std::uint16_t> mPort;
    std::filesystem::path mStaticRoot;

    // I/O thread only.
    std::uint64_t mLastSession = 0;
    std::uint64_t mLastPage = 0;
    bool mShuttingDown = false;
    std::size_t mConnectionLimit = 0;         // set by start
    std::chrono::milliseconds mAcceptDelay{}; // 0 until accepting fails
    websocket::LogThrottle mWarnings;
    std::map<std::uint64_t, std::weak_ptr<HttpSession>> mHttpSessions;
    std::map<std::string, std::shared_ptr<WsConnection>> mConnections; // by page id
};

namespace websocket {
using ServerCore = WebSocketMessageService::Impl;
} // namespace websocket

} // namespace connector::message_service
