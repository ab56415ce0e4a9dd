#pragma once

// A page as a browser would be, for tests over a real socket: a WebSocket client on Boost.Beast.
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

namespace wsb_test {

namespace page_client_detail {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace json = boost::json;
using tcp = asio::ip::tcp;
// Generous: the tests also run under sanitizers on a busy machine. Only a hang reaches it.
inline constexpr auto kPageTimeout = std::chrono::seconds(30);

// A page as a browser would be: a WebSocket client with its own io_context. Each operation waits
// for its completion, at most kPageTimeout. Not thread-safe.
class PageClient {
public:
    PageClient() : mWs(mIoc) {}

    beast::error_code connect(std::uint16_t port, const std::string& target,
                              const std::string& host, const std::optional<std::string>& origin,
                              int receiveBuffer = 0) {
        auto& socket = mWs.next_layer();
        socket.open(tcp::v4());
        if (receiveBuffer > 0)
            socket.set_option(asio::socket_base::receive_buffer_size(receiveBuffer));
        beast::error_code ec;
        socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port), ec);
        if (ec)
            return ec;
        mWs.set_option(websocket::stream_base::decorator([origin](websocket::request_type& req) {
            if (origin)
                req.set(http::field::origin, *origin);
        }));
        return run([&](auto handler) { mWs.async_handshake(mResponse, host, target, handler); });
    }

    std::optional<std::string> read() {
        beast::flat_buffer buffer;
        mLastError = run([&](auto handler) { mWs.async_read(buffer, handler); });
        if (mLastError)
            return std::nullopt;
        return beast::buffers_to_string(buffer.data());
    }
    json::value readJson() {
        auto text = read();
        if (!text) {
            ADD_FAILURE() << "no frame: " << mLastError.message();
            return {};
        }
        return json::parse(*text);
    }
    void write(const std::string& text, bool binary = false) {
        mWs.binary(binary);
        const auto ec = run([&](auto handler) { mWs.async_write(asio::buffer(text), handler); });
        EXPECT_FALSE(ec) << ec.message();
    }
    void subscribe(const std::string& channel) {
        write(R"({"op":"subscribe","channel":")" + channel + "\"}");
    }
    void publish(const std::string& channel, const std::string& message) {
        write(R"({"op":"publish","channel":")" + channel + R"(","message":)" + message + "}");
    }
    void close() {
        run([&](auto handler) { mWs.async_close(websocket::close_code::normal, handler); });
    }

    const beast::error_code& lastError() const { return mLastError; }
    const websocket::response_type& response() const { return mResponse; }
    websocket::close_reason reason() const { return mWs.reason(); }

private:
    template <class Start> beast::error_code run(Start&& start) {
        std::optional<beast::error_code> result;
        start([&result](beast::error_code ec, auto&&...) { result = ec; });
        mIoc.restart();
        mIoc.run_for(kPageTimeout);
        if (!result) {
            ADD_FAILURE() << "a page operation did not complete";
            beast::error_code ignored;
            mWs.next_layer().close(ignored);
            mIoc.restart();
            mIoc.run();
            return asio::error::timed_out;
        }
        return *result;
    }

    asio::io_context mIoc;
    websocket::stream<tcp::socket> mWs;
    websocket::response_type mResponse;
    beast::error_code mLastError;
};

} // namespace page_client_detail

using page_client_detail::PageClient;

} // namespace wsb_test
