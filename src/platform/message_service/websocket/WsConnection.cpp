#include "platform/message_service/websocket/WsConnection.hpp"

#include "platform/message_service/websocket/Envelope.hpp"
#include "platform/message_service/websocket/ServerCore.hpp"
#include "platform/message_service/websocket/ServiceLog.hpp"

#include <boost/asio/post.hpp>
#include <boost/beast/websocket.hpp>

#include <utility>

namespace connector::message_service::websocket {

namespace beast = boost::beast;
namespace ws = beast::websocket;

namespace {

// A page has a handful of channels; the bound only keeps a faulty one from growing the set
// without end.
constexpr std::size_t kMaxChannelsPerPage = 1024;

} // namespace

WsConnection::WsConnection(ServerCore& core, beast::tcp_stream&& stream, std::string pageId)
    : mCore(core), mWs(std::move(stream)), mExecutor(mWs.get_executor()),
      mPageId(std::move(pageId)), mQueueBound(core.options().maxQueuedBytesPerConnection) {}

void WsConnection::accept(Request request) {
    const WebSocketServerOptions& options = mCore.options();
    ws::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = options.handshakeTimeout;
    timeouts.idle_timeout = options.idleTimeout;
    timeouts.keep_alive_pings = true;
    mWs.set_option(timeouts);
    ws::permessage_deflate deflate;
    deflate.server_enable = false;
    deflate.client_enable = false;
    mWs.set_option(deflate);
    mWs.read_message_max(options.maxMessageBytes);
    mWs.auto_fragment(false);
    // Beast builds the handshake response from the request; it is kept until the handshake ends.
    mUpgrade = std::move(request);
    mWs.async_accept(mUpgrade,
                     [self = shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
}

void WsConnection::onAccept(beast::error_code ec) {
    mUpgrade = {};
    if (mEnded)
        return;
    if (ec) {
        WSB_LOG(serviceLogger(), foundation::log::kDetail)
            << "WebSocket handshake failed: " << ec.message();
        end();
        return;
    }
    mCore.openPage(mPageId);
    mOpen = true;
    mWs.text(true);
    send(std::make_shared<const std::string>(helloEnvelope(mPageId)));
    readNext();
}

void WsConnection::readNext() {
    mWs.async_read(mBuffer, [self = shared_from_this()](beast::error_code ec, std::size_t) {
        self->onRead(ec);
    });
}

void WsConnection::onRead(beast::error_code ec) {
    if (mEnded)
        return;
    if (ec) {
        if (ec == ws::error::message_too_big) {
            // Beast has already sent the close frame with code 1009.
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "Page " << mPageId << " sent a message over the limit of "
                << mCore.options().maxMessageBytes << " bytes; its connection is closed";
        } else if (ec != ws::error::closed) {
            WSB_LOG(serviceLogger(), foundation::log::kDetail)
                << "Page " << mPageId << " connection ended: " << ec.message();
        }
        end();
        return;
    }
    if (!mWs.got_text()) {
        send(std::make_shared<const std::string>(
            errorEnvelope("Binary frames are not accepted; send JSON text.")));
    } else {
        const auto data = mBuffer.data();
        handleFrame(std::string_view(static_cast<const char*>(data.data()), data.size()));
    }
    mBuffer.consume(mBuffer.size());
    if (mEnded || mClosing)
        return;

    // A page that publishes faster than the subscribers consume must not grow the delivery queue
    // without bound: stop reading from it until its backlog is delivered.
    if (mPendingInbound.load() > mQueueBound) {
        mPaused.store(true);
        if (mPendingInbound.load() > mQueueBound)
            return;
        // Everything was delivered meanwhile; whoever clears the flag reads next.
        if (!mPaused.exchange(false))
            return;
    }
    readNext();
}

void WsConnection::handleFrame(std::string_view frame) {
    PageEnvelope envelope = parsePageEnvelope(frame);
    switch (envelope.op) {
    case PageEnvelope::Op::Subscribe:
        if (mChannels.size() >= kMaxChannelsPerPage && !mChannels.count(envelope.channel)) {
            send(std::make_shared<const std::string>(
                errorEnvelope("Too many subscriptions on one page.")));
            return;
        }
        mChannels.insert(std::move(envelope.channel));
        return;
    case PageEnvelope::Op::Unsubscribe:
        mChannels.erase(envelope.channel);
        return;
    case PageEnvelope::Op::Publish:
        mPendingInbound.fetch_add(inboundCost(envelope.channel, envelope.message));
        mCore.deliverFromPage(std::move(envelope.channel), std::move(envelope.message),
                              shared_from_this());
        return;
    case PageEnvelope::Op::Invalid:
        WSB_LOG(serviceLogger(), foundation::log::kDetail)
            << "Page " << mPageId << " sent a bad envelope: " << envelope.error;
        send(std::make_shared<const std::string>(errorEnvelope(envelope.error)));
        return;
    }
}

void WsConnection::inboundDelivered(std::size_t bytes) {
    const std::size_t left = mPendingInbound.fetch_sub(bytes) - bytes;
    if (left <= mQueueBound && mPaused.load()) {
        boost::asio::post(mExecutor, [self = shared_from_this()] { self->resumeReading(); });
    }
}

void WsConnection::resumeReading() {
    if (mPaused.exchange(false) && !mEnded && !mClosing)
        readNext();
}

bool WsConnection::isSubscribed(const std::string& channel) const {
    return !mEnded && mChannels.count(channel) != 0;
}

void WsConnection::send(std::shared_ptr<const std::string> frame) {
    if (mEnded || mClosing)
        return;
    // The frame being written counts too; a single frame is always accepted on an empty queue,
    // so the bound limits the backlog, not the size of one message.
    const std::size_t cost = frame->size() + kQueueEntryOverhead;
    if (!mQueue.empty() && mQueuedBytes + cost > mQueueBound) {
        WSB_LOG(serviceLogger(), foundation::log::kWarning)
            << "Page " << mPageId << " does not read its messages (" << mQueuedBytes
            << " bytes waiting); its connection is dropped";
        closeNow();
        return;
    }
    mQueuedBytes += cost;
    mQueue.push_back(std::move(frame));
    if (mQueue.size() == 1)
        writeNext();
}

void WsConnection::writeNext() {
    // The handler holds the frame: finish may clear the queue while the write is still pending.
    std::shared_ptr<const std::string> frame = mQueue.front();
    const auto buffer = boost::asio::buffer(frame->data(), frame->size());
    mWs.async_write(buffer, [self = shared_from_this(), frame = std::move(frame)](
                                beast::error_code ec, std::size_t) { self->onWrite(ec); });
}

void WsConnection::onWrite(beast::error_code ec) {
    if (mEnded)
        return;
    if (ec) {
        closeNow();
        return;
    }
    mQueuedBytes -= mQueue.front()->size() + kQueueEntryOverhead;
    mQueue.pop_front();
    if (!mQueue.empty() && !mClosing)
        writeNext();
}

void WsConnection::close() {
    if (mEnded || mClosing)
        return;
    if (!mOpen) {
        closeNow();
        return;
    }
    mClosing = true;
    mWs.async_close(ws::close_code::going_away, [self = shared_from_this()](beast::error_code ec) {
        if (ec)
            self->closeNow();
        self->end();
    });
}

void WsConnection::closeNow() {
    beast::error_code ignored;
    auto& socket = beast::get_lowest_layer(mWs).socket();
    socket.shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    beast::get_lowest_layer(mWs).close();
    end();
}

void WsConnection::end() {
    if (mEnded)
        return;
    mEnded = true;
    mQueue.clear();
    mQueuedBytes = 0;
    mChannels.clear();
    mCore.connectionEnded(mPageId, mOpen);
}

} // namespace connector::message_service::websocket
