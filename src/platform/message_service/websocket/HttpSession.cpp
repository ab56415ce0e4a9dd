#include "platform/message_service/websocket/HttpSession.hpp"

#include "platform/message_service/websocket/HttpRules.hpp"
#include "platform/message_service/websocket/ServerCore.hpp"
#include "platform/message_service/websocket/ServiceLog.hpp"
#include "platform/message_service/websocket/WsConnection.hpp"

#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <fstream>
#include <iterator>
#include <string>
#include <utility>

namespace connector::message_service::websocket {

namespace beast = boost::beast;
namespace http = beast::http;

namespace {

constexpr std::uint32_t kHeaderLimit = 16 * 1024;
constexpr std::uint64_t kBodyLimit = 1024;

// Refusals say no more than their status; they are not pages, so nothing may run in them.
constexpr const char* kRefusalPolicy = "default-src 'none'; frame-ancestors 'none'";

bool isParseError(const beast::error_code& ec) {
    return ec.category() == http::make_error_code(http::error::bad_target).category() &&
           ec != http::error::end_of_stream;
}

bool tokenMatches(std::string_view query, const std::string& token) {
    const auto given = queryParameter(query, "token");
    return given && constantTimeEquals(*given, token);
}

// A page asked for with no token at all is served: it holds nothing secret, and without one it
// connects with the token its tab kept (after a reload) or says where to find its address. A
// token that is there but wrong, even empty, is refused.
bool pageMayBeServed(std::string_view query, const std::string& token) {
    return !queryParameter(query, "token") || tokenMatches(query, token);
}

} // namespace

HttpSession::HttpSession(ServerCore& core, boost::asio::ip::tcp::socket socket, std::uint64_t id)
    : mCore(core), mStream(std::move(socket)), mId(id) {}

void HttpSession::start() {
    readRequest();
}

void HttpSession::shutdownNow() {
    beast::error_code ignored;
    mStream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    mStream.close();
}

void HttpSession::readRequest() {
    mParser.emplace();
    mParser->header_limit(kHeaderLimit);
    mParser->body_limit(kBodyLimit);
    mStream.expires_after(mCore.options().handshakeTimeout);
    http::async_read(
        mStream, mBuffer, *mParser,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onRead(ec); });
}

void HttpSession::onRead(beast::error_code ec) {
    if (mEnded)
        return;
    if (ec) {
        if (isParseError(ec)) {
            WSB_LOG(serviceLogger(), foundation::log::kDetail)
                << "Malformed HTTP request: " << ec.message();
            refuse(nullptr, http::status::bad_request);
            return;
        }
        end();
        return;
    }
    handle(mParser->release());
}

void HttpSession::handle(Request&& request) {
    WSB_LOG(serviceLogger(), foundation::log::kDetail)
        << request.method_string() << ' ' << redactTarget(request.target());

    if (request.count(http::field::host) != 1) {
        refuse(&request, http::status::bad_request);
        return;
    }
    const std::string host(request[http::field::host]);
    // A page of another site may reach this port through a name that resolves to loopback (DNS
    // rebinding); its requests then carry that name, so only the loopback spellings pass.
    if (!isAllowedHost(host, mCore.port())) {
        mCore.warnThrottled("Refused a request with an unexpected Host header");
        refuse(&request, http::status::forbidden);
        return;
    }
    if (beast::websocket::is_upgrade(request)) {
        upgrade(std::move(request));
        return;
    }
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        refuse(&request, http::status::method_not_allowed);
        return;
    }
    serveFile(request, host);
}

void HttpSession::upgrade(Request&& request) {
    const std::string host(request[http::field::host]);
    const Target target = splitTarget(request.target());
    if (target.path != "/ws") {
        refuse(&request, http::status::not_found);
        return;
    }
    if (!tokenMatches(target.query, mCore.token())) {
        mCore.warnThrottled("Refused a WebSocket upgrade without the right token");
        refuse(&request, http::status::forbidden);
        return;
    }
    // Browsers always send the Origin of the page that opens a WebSocket; only the page served
    // here may connect, even with the token.
    if (request.count(http::field::origin) != 1 ||
        request[http::field::origin] != "http://" + host) {
        mCore.warnThrottled("Refused a WebSocket upgrade from a foreign or missing Origin");
        refuse(&request, http::status::forbidden);
        return;
    }
    mEnded = true;
    mCore.httpSessionEnded(mId);
    mStream.expires_never();
    auto connection = std::make_shared<WsConnection>(mCore, std::move(mStream), mCore.newPageId());
    mCore.connectionStarted(connection);
    connection->accept(std::move(request));
}

void HttpSession::serveFile(const Request& request, std::string_view host) {
    const Target target = splitTarget(request.target());
    if (mCore.staticRoot().empty()) {
        refuse(&request, http::status::not_found);
        return;
    }
    const StaticFile found = resolveStaticFile(mCore.staticRoot(), target.path);
    if (found.status == StaticLookup::Malformed) {
        refuse(&request, http::status::bad_request);
        return;
    }
    if (found.status != StaticLookup::Found) {
        refuse(&request, http::status::not_found);
        return;
    }
    const bool page = isPage(found.file);
    if (page && !pageMayBeServed(target.query, mCore.token())) {
        mCore.warnThrottled("Refused a page request without the right token");
        refuse(&request, http::status::forbidden,
               "Forbidden: this address does not carry the right access token.\n\n"
               "The server printed the page's address, with its token, when it started: open "
               "that address (it ends in ?token=...). A server started again has a new token.\n");
        return;
    }
    std::ifstream in(found.file, std::ios::binary);
    std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in && !in.eof()) {
        refuse(&request, http::status::not_found);
        return;
    }

    Response response(http::status::ok, request.version());
    response.set(http::field::content_type, contentTypeFor(found.file));
    response.set("Content-Security-Policy",
                 "default-src 'self'; connect-src 'self' ws://" + std::string(host) +
                     "; object-src 'none'; frame-ancestors 'none'; base-uri 'none'");
    response.set("X-Content-Type-Options", "nosniff");
    // The page's address holds the token: it must not travel on in a Referer header.
    response.set("Referrer-Policy", "no-referrer");
    response.set(http::field::cache_control, page ? "no-store" : "no-cache");
    response.keep_alive(request.keep_alive());
    if (request.method() == http::verb::head) {
        response.content_length(body.size());
    } else {
        response.body() = std::move(body);
        response.prepare_payload();
    }
    send(std::move(response), !request.keep_alive());
}

void HttpSession::refuse(const Request* request, http::status status,
                         std::string_view explanation) {
    Response response(status, request ? request->version() : 11);
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    response.set("Content-Security-Policy", kRefusalPolicy);
    response.set("X-Content-Type-Options", "nosniff");
    response.set(http::field::cache_control, "no-store");
    if (status == http::status::method_not_allowed)
        response.set(http::field::allow, "GET, HEAD");
    response.keep_alive(false);
    if (!request || request->method() != http::verb::head)
        response.body() = explanation.empty() ? std::string(http::obsolete_reason(status)) + "\n"
                                              : std::string(explanation);
    response.prepare_payload();
    send(std::move(response), true);
}

void HttpSession::send(Response&& response, bool close) {
    mResponse = std::make_shared<Response>(std::move(response));
    mStream.expires_after(mCore.options().handshakeTimeout);
    http::async_write(mStream, *mResponse,
                      [self = shared_from_this(), close](beast::error_code ec, std::size_t) {
                          self->mResponse.reset();
                          if (self->mEnded)
                              return;
                          if (ec || close) {
                              beast::error_code ignored;
                              self->mStream.socket().shutdown(
                                  boost::asio::ip::tcp::socket::shutdown_send, ignored);
                              self->end();
                              return;
                          }
                          self->readRequest();
                      });
}

void HttpSession::end() {
    if (mEnded)
        return;
    mEnded = true;
    mStream.close();
    mCore.httpSessionEnded(mId);
}

} // namespace connector::message_service::websocket
