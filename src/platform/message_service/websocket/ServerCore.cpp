#include "platform/message_service/websocket/ServerCore.hpp"

#include "platform/message_service/websocket/Envelope.hpp"
#include "platform/message_service/websocket/HttpRules.hpp"
#include "platform/message_service/websocket/HttpSession.hpp"
#include "platform/message_service/websocket/ServiceLog.hpp"
#include "platform/message_service/websocket/WsConnection.hpp"

#include <workspace_browser/platform/ThreadName.hpp>
#include <workspace_browser/platform/message_service/Promise.hpp>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/resource.h>

namespace connector::message_service {

// The server's parts (sessions, connections, the delivery queue) live in the websocket
// namespace; the core itself is the service's private implementation.
using namespace websocket;

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

// How long stop waits for pages to answer the close handshake before it cuts them off.
constexpr std::chrono::seconds kShutdownGrace{2};

// Pauses between attempts while accepting fails (typically: no file descriptor left). The pending
// connection stays queued, so an immediate retry would fail again at once, over and over.
constexpr std::chrono::milliseconds kFirstAcceptRetry{50};
constexpr std::chrono::milliseconds kLongestAcceptRetry{1000};

// A warning that a client can provoke is written at most once in this period.
constexpr std::chrono::seconds kWarningInterval{10};

// The connections the listener may hold at once: as many as asked, but never more than half the
// process's open-file limit, so that the host still has descriptors for its own files.
std::size_t connectionLimit(std::size_t wanted) {
    wanted = std::max<std::size_t>(wanted, 1);
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return wanted;
    return std::clamp<std::size_t>(static_cast<std::size_t>(limit.rlim_cur / 2), 1, wanted);
}

std::string chooseToken(const std::string& given) {
    if (given.empty())
        return generateToken();
    if (!isUsableToken(given))
        throw std::invalid_argument("WebSocketMessageService: the token must have at least 24 "
                                    "characters, each a letter, a digit, '-', '_', '.' or '~'");
    return given;
}

} // namespace

ServerCore::Impl(WebSocketServerOptions options)
    : mOptions(std::move(options)), mToken(chooseToken(mOptions.token)), mAcceptor(mIoc),
      mShutdownDeadline(mIoc), mAcceptRetry(mIoc), mDelivery("wsb-ws-deliver"),
      mPort(mOptions.port),
      mWarnings(serviceLogger(), foundation::log::kWarning, kWarningInterval) {}

ServerCore::~Impl() {
    // Nothing may leave a destructor; a failure to stop cleanly still ends the service.
    try {
        stop();
    } catch (...) {
    }
}

std::string ServerCore::url() const {
    std::string host = mOptions.address;
    if (host.empty() || host == "0.0.0.0")
        host = "127.0.0.1";
    else if (host == "::")
        host = "[::1]";
    else if (host.find(':') != std::string::npos)
        host = "[" + host + "]";
    return "http://" + host + ":" + std::to_string(port()) + "/?token=" + mToken;
}

void ServerCore::setPageHandlers(PageHandler connected, PageHandler disconnected) {
    std::lock_guard lock(mMutex);
    mConnected = std::move(connected);
    mDisconnected = std::move(disconnected);
}

void ServerCore::start() {
    std::lock_guard lock(mMutex);
    if (mState != State::Created)
        throw std::logic_error("WebSocketMessageService: start() may be called only once");

    if (!mOptions.staticRoot.empty()) {
        std::error_code ec;
        mStaticRoot = std::filesystem::canonical(mOptions.staticRoot, ec);
        if (ec || !std::filesystem::is_directory(mStaticRoot, ec)) {
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "The web client folder " << mOptions.staticRoot
                << " is not a readable folder; no files are served";
            mStaticRoot.clear();
        }
    }

    const std::string where = mOptions.address + ":" + std::to_string(mOptions.port);
    boost::system::error_code ec;
    const auto address = asio::ip::make_address(mOptions.address, ec);
    if (ec)
        throw std::system_error(ec.value(), std::generic_category(),
                                "WebSocketMessageService: bad address " + mOptions.address);
    const tcp::endpoint endpoint(address, mOptions.port);
    mAcceptor.open(endpoint.protocol(), ec);
    if (!ec)
        mAcceptor.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec)
        mAcceptor.bind(endpoint, ec);
    if (!ec)
        mAcceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        boost::system::error_code ignored;
        mAcceptor.close(ignored);
        throw std::system_error(ec.value(), std::generic_category(),
                                "WebSocketMessageService: cannot listen on " + where);
    }
    mPort.store(mAcceptor.local_endpoint().port());
    mConnectionLimit = connectionLimit(mOptions.maxConnections);
    if (mConnectionLimit < mOptions.maxConnections)
        WSB_LOG(serviceLogger(), foundation::log::kInfo)
            << "At most " << mConnectionLimit
            << " connections at once: half the limit of open files";

    mWork.emplace(asio::make_work_guard(mIoc));
    acceptNext();
    mIoThread = std::thread([this] {
        try {
            foundation::core::diag::setCurrentThreadName("wsb-ws-io");
        } catch (const std::exception&) {
            // A thread without a name works the same.
        }
        while (true) {
            try {
                mIoc.run();
                return;
            } catch (const std::exception& e) {
                // Handlers do not throw by design; if one does, keep serving the others.
                WSB_LOG(serviceLogger(), foundation::log::kError)
                    << "Unexpected error on the network thread: " << e.what();
            }
        }
    });
    mState = State::Running;
    mRunning.store(true);
    WSB_LOG(serviceLogger(), foundation::log::kInfo)
        << "Listening on " << mOptions.address << ":" << port();
}

void ServerCore::stop() {
    bool wasRunning = false;
    {
        std::lock_guard lock(mMutex);
        if (mState == State::Stopping || mState == State::Stopped)
            return;
        wasRunning = mState == State::Running;
        mState = State::Stopping;
    }
    mRunning.store(false);
    if (wasRunning) {
        asio::post(mIoc, [this] { beginShutdown(); });
        mWork.reset();
        mIoThread.join();
        // What the grace period cut off is closed here: the pages must see the end, and still
        // get their disconnect handlers.
        const auto left = mConnections;
        for (const auto& entry : left)
            entry.second->closeNow();
        for (const auto& entry : mHttpSessions) {
            if (auto session = entry.second.lock())
                session->shutdownNow();
        }
        mConnections.clear();
        mHttpSessions.clear();
    }
    mDelivery.stop();
    {
        std::lock_guard lock(mMutex);
        mState = State::Stopped;
    }
    if (wasRunning)
        WSB_LOG(serviceLogger(), foundation::log::kInfo) << "Stopped";
}

void ServerCore::acceptNext() {
    mAcceptor.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
        onAccepted(ec, std::move(socket));
    });
}

void ServerCore::onAccepted(boost::system::error_code ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || mShuttingDown)
        return;
    if (ec) {
        std::string text = "Accepting a connection failed: ";
        text += ec.message();
        warnThrottled(text);
        acceptLater();
        return;
    }
    mAcceptDelay = {};
    boost::system::error_code ignored;
    if (!hasRoomForConnection()) {
        std::string text = "Refused a connection: ";
        text += std::to_string(mConnectionLimit);
        text += " are open already, the most allowed at once";
        warnThrottled(text);
        socket.close(ignored);
    } else {
        // Frames are small and interactive; waiting to coalesce them only adds latency.
        socket.set_option(tcp::no_delay(true), ignored);
        const std::uint64_t id = nextSessionId();
        auto session = std::make_shared<HttpSession>(*this, std::move(socket), id);
        mHttpSessions.emplace(id, session);
        session->start();
    }
    acceptNext();
}

void ServerCore::acceptLater() {
    mAcceptDelay = mAcceptDelay == std::chrono::milliseconds::zero()
                       ? kFirstAcceptRetry
                       : std::min(mAcceptDelay * 2, kLongestAcceptRetry);
    mAcceptRetry.expires_after(mAcceptDelay);
    mAcceptRetry.async_wait([this](boost::system::error_code ec) {
        if (!ec && !mShuttingDown)
            acceptNext();
    });
}

bool ServerCore::hasRoomForConnection() const {
    return mHttpSessions.size() + mConnections.size() < mConnectionLimit;
}

void ServerCore::beginShutdown() {
    mShuttingDown = true;
    boost::system::error_code ignored;
    mAcceptor.close(ignored);
    mAcceptRetry.cancel();
    std::vector<std::shared_ptr<HttpSession>> sessions;
    for (const auto& entry : mHttpSessions) {
        if (auto session = entry.second.lock())
            sessions.push_back(std::move(session));
    }
    for (const auto& session : sessions)
        session->shutdownNow();
    const auto connections = mConnections;
    for (const auto& entry : connections)
        entry.second->close();
    if (mConnections.empty() && mHttpSessions.empty())
        return;
    mShutdownDeadline.expires_after(kShutdownGrace);
    mShutdownDeadline.async_wait([this](boost::system::error_code ec) {
        if (ec)
            return;
        WSB_LOG(serviceLogger(), foundation::log::kWarning)
            << "Pages did not answer the close handshake in time; their connections are cut";
        mIoc.stop();
    });
}

void ServerCore::endShutdownIfIdle() {
    if (mShuttingDown && mConnections.empty() && mHttpSessions.empty())
        mShutdownDeadline.cancel();
}

void ServerCore::openPage(const std::string& pageId) {
    WSB_LOG(serviceLogger(), foundation::log::kInfo) << "Page " << pageId << " connected";
    PageHandler handler;
    {
        std::lock_guard lock(mMutex);
        handler = mConnected;
    }
    if (handler)
        mDelivery.post(pageId, [handler = std::move(handler), pageId] { handler(pageId); });
}

void ServerCore::connectionStarted(const std::shared_ptr<WsConnection>& connection) {
    mConnections.emplace(connection->pageId(), connection);
}

void ServerCore::connectionEnded(const std::string& pageId, bool wasOpen) {
    mConnections.erase(pageId);
    if (wasOpen) {
        WSB_LOG(serviceLogger(), foundation::log::kInfo) << "Page " << pageId << " disconnected";
        PageHandler handler;
        {
            std::lock_guard lock(mMutex);
            handler = mDisconnected;
        }
        if (handler)
            mDelivery.post(pageId, [handler = std::move(handler), pageId] { handler(pageId); });
    }
    endShutdownIfIdle();
}

void ServerCore::httpSessionEnded(std::uint64_t id) {
    mHttpSessions.erase(id);
    endShutdownIfIdle();
}

void ServerCore::deliverFromPage(std::string channel, std::string message,
                                 const std::shared_ptr<WsConnection>& from) {
    const std::size_t bytes = WsConnection::inboundCost(channel, message);
    std::weak_ptr<WsConnection> weakFrom = from;
    // The task must not touch this object: it may run while the service is being destroyed.
    // In the page's own lane, after its connect handler and before its disconnect handler.
    mDelivery.post(from->pageId(), [registry = mRegistry, channel = std::move(channel),
                                    message = std::move(message), weakFrom, bytes] {
        registry->deliver(channel, message);
        if (auto connection = weakFrom.lock())
            connection->inboundDelivered(bytes);
    });
}

void ServerCore::broadcast(const std::string& channel,
                           const std::shared_ptr<const std::string>& frame) {
    std::vector<std::shared_ptr<WsConnection>> targets;
    for (const auto& entry : mConnections) {
        if (entry.second->isSubscribed(channel))
            targets.push_back(entry.second);
    }
    // Sending may drop a connection, which changes the map; hence the separate list.
    for (const auto& connection : targets)
        connection->send(frame);
}

Future<std::shared_ptr<Subscription>> ServerCore::subscribe(const std::string& channel,
                                                            MessageService::Callback callback) {
    return mRegistry->subscribe(channel, std::move(callback));
}

Future<void> ServerCore::publish(const std::string& channel, const JsonMessage& message) {
    const std::string_view text = message.text();
    if (!text.empty() && !isSingleJsonValue(text)) {
        Promise<void> promise;
        auto future = promise.get_future();
        promise.set_exception(std::make_exception_ptr(std::invalid_argument(
            "publish: the message on channel " + channel + " is not one JSON value")));
        return future;
    }
    if (!mRunning.load())
        return make_ready_future();
    // Serialized once, whatever the number of pages it goes to.
    auto frame = std::make_shared<const std::string>(messageEnvelope(channel, text));
    asio::post(mIoc, [this, channel, frame = std::move(frame)] { broadcast(channel, frame); });
    return make_ready_future();
}

} // namespace connector::message_service
