#pragma once

#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <boost/asio/any_io_executor.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

namespace connector::message_service::websocket {

// The service's private implementation, declared by the public header.
using ServerCore = WebSocketMessageService::Impl;

// One page's WebSocket: reads its envelopes, keeps its channel subscriptions, and writes the
// frames meant for it, one write in flight and a bounded queue behind it.
// Not thread-safe: lives on the I/O thread, except inboundDelivered (any thread).
class WsConnection : public std::enable_shared_from_this<WsConnection> {
public:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;

    // A connection is named by its page id from the start; the page opens (its connect handler
    // runs and it gets its hello) only once the WebSocket handshake succeeds.
    WsConnection(ServerCore& core, boost::beast::tcp_stream&& stream, std::string pageId);

    const std::string& pageId() const { return mPageId; }
    // Completes the WebSocket handshake for this upgrade request.
    void accept(Request request);
    // Queues a text frame; a page whose queue would pass the bound is disconnected instead.
    void send(std::shared_ptr<const std::string> frame);
    bool isSubscribed(const std::string& channel) const;
    // Closing a page, the one verb: close() politely, with a close handshake ("going away"; an
    // abrupt close before the page is open), as the service stops; closeNow() at once, as for a
    // page that broke the protocol. Either way the connection then ends.
    void close();
    void closeNow();
    // The connection's life in the server is over: runs once, tells the core.
    void end();
    // The delivery thread has handed `bytes` of this page's messages to the subscribers.
    void inboundDelivered(std::size_t bytes);

    // What one queued message costs besides its own bytes: the string headers, the queue or task
    // slot and the shared control block. Counted so that a flood of tiny messages is bounded as
    // surely as a few large ones.
    static constexpr std::size_t kQueueEntryOverhead = 256;
    // What a page's publish of `message` on `channel` counts against its inbound bound.
    static std::size_t inboundCost(std::string_view channel, std::string_view message) {
        return channel.size() + message.size() + kQueueEntryOverhead;
    }

private:
    void onAccept(boost::beast::error_code ec);
    void readNext();
    void onRead(boost::beast::error_code ec);
    void handleFrame(std::string_view frame);
    void resumeReading();
    void writeNext();
    void onWrite(boost::beast::error_code ec);

    ServerCore& mCore;
    boost::beast::websocket::stream<boost::beast::tcp_stream> mWs;
    const boost::asio::any_io_executor mExecutor;
    boost::beast::flat_buffer mBuffer;
    Request mUpgrade;
    const std::string mPageId;
    const std::size_t mQueueBound; // a copy: inboundDelivered runs off the I/O thread
    bool mOpen = false;            // the handshake succeeded and the page was announced
    std::unordered_set<std::string> mChannels;
    std::deque<std::shared_ptr<const std::string>> mQueue; // the front one is being written
    std::size_t mQueuedBytes = 0;
    bool mClosing = false;
    bool mEnded = false;
    // Bytes read from this page and not yet delivered; reading pauses above the bound.
    std::atomic<std::size_t> mPendingInbound{0};
    std::atomic<bool> mPaused{false};
};

} // namespace connector::message_service::websocket
