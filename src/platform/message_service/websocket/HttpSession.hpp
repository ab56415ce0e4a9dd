#pragma once

#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace connector::message_service::websocket {

// The service's private implementation, declared by the public header.
using ServerCore = WebSocketMessageService::Impl;

// One HTTP connection before (or instead of) a WebSocket: checks Host, token and Origin, serves
// the web client's files, and hands an accepted upgrade over to a WsConnection.
// Not thread-safe: lives on the I/O thread.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(ServerCore& core, boost::asio::ip::tcp::socket socket, std::uint64_t id);
    void start();
    // Closes the socket at once (server shutdown).
    void shutdownNow();

private:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    void readRequest();
    void onRead(boost::beast::error_code ec);
    void handle(Request&& request);
    void upgrade(Request&& request);
    void serveFile(const Request& request, std::string_view host);
    // Answers with `status` and closes; the body is the status text, or `explanation`.
    void refuse(const Request* request, boost::beast::http::status status,
                std::string_view explanation = {});
    void send(Response&& response, bool close);
    void end();

    ServerCore& mCore;
    boost::beast::tcp_stream mStream;
    boost::beast::flat_buffer mBuffer;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> mParser;
    std::shared_ptr<Response> mResponse; // the response being written
    std::uint64_t mId;
    bool mEnded = false;
};

} // namespace connector::message_service::websocket
