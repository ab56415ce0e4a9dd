#pragma once

// A page connected to a WebSocket service on loopback, as the browser client connects: the
// Origin the served page would send, the token, and its hello read. Not thread-safe: one
// benchmark thread drives it.
#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <cstddef>
#include <string>

namespace wsb_bench {

class LoopbackPage {
public:
    explicit LoopbackPage(connector::message_service::WebSocketMessageService& service)
        : mWs(mIoc) {
        namespace beast = boost::beast;
        namespace websocket = beast::websocket;
        using tcp = boost::asio::ip::tcp;
        const std::string host = "127.0.0.1:" + std::to_string(service.port());
        mWs.next_layer().connect(
            tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), service.port()));
        mWs.next_layer().set_option(tcp::no_delay(true));
        mWs.set_option(websocket::stream_base::decorator([host](websocket::request_type& req) {
            req.set(beast::http::field::origin, "http://" + host);
        }));
        mWs.handshake(host, "/ws?token=" + service.token());
        const std::string hello = read();
        const auto mark = hello.find("\"page\":\"");
        mPageId = hello.substr(mark + 8, hello.find('"', mark + 8) - mark - 8);
        mWs.text(true);
    }
    ~LoopbackPage() {
        boost::beast::error_code ignored;
        mWs.close(boost::beast::websocket::close_code::normal, ignored);
    }
    LoopbackPage(const LoopbackPage&) = delete;
    LoopbackPage& operator=(const LoopbackPage&) = delete;

    const std::string& pageId() const { return mPageId; }
    void write(const std::string& frame) { mWs.write(boost::asio::buffer(frame)); }
    std::string read() {
        mBuffer.clear();
        mWs.read(mBuffer);
        return boost::beast::buffers_to_string(mBuffer.data());
    }
    // Reads the next frame and returns its size, without copying it.
    std::size_t readSize() {
        mBuffer.clear();
        return mWs.read(mBuffer);
    }

private:
    boost::asio::io_context mIoc;
    boost::beast::websocket::stream<boost::asio::ip::tcp::socket> mWs;
    boost::beast::flat_buffer mBuffer;
    std::string mPageId;
};

} // namespace wsb_bench
