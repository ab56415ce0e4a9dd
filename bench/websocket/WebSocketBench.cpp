// Loopback cost of the WebSocket service: a page asking for 100 rows and getting them back,
// against a plain echo of a message of the same size through the same server. The difference is
// what the envelope handling costs beyond moving the bytes.
#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>

using namespace connector::message_service;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

// A page of 100 rows as the view model sends it: name, kind, shape, a value preview, type, bytes.
std::string hundredRowPage() {
    std::string text = R"({"start":0,"count":100,"total":2500,"rows":[)";
    for (int i = 0; i < 100; ++i) {
        if (i)
            text += ',';
        const std::string n = std::to_string(i);
        text += R"({"name":"measurement_)" + n + R"(","kind":"ndarray","shape":"100x)" + n +
                R"x(","value":"array([[0.1234, 1.5e-3, )x" + n +
                R"x(.75, ...], ...])","type":"float64","bytes":)x" + std::to_string(800 * (i + 1)) +
                R"(,"editable":false})";
    }
    return text + "]}";
}

// One server and one connected page on loopback.
class Harness {
public:
    Harness() : mService(WebSocketMessageService::create({})), mWs(mIoc) {
        mService->start();
        const std::string host = "127.0.0.1:" + std::to_string(mService->port());
        mWs.next_layer().connect(
            tcp::endpoint(asio::ip::make_address("127.0.0.1"), mService->port()));
        mWs.next_layer().set_option(tcp::no_delay(true));
        mWs.set_option(websocket::stream_base::decorator([host](websocket::request_type& req) {
            req.set(beast::http::field::origin, "http://" + host);
        }));
        mWs.handshake(host, "/ws?token=" + mService->token());
        const std::string hello = read();
        const auto mark = hello.find("\"page\":\"");
        mPageId = hello.substr(mark + 8, hello.find('"', mark + 8) - mark - 8);
        mWs.text(true);
    }
    ~Harness() {
        beast::error_code ignored;
        mWs.close(websocket::close_code::normal, ignored);
        mService->stop();
    }

    WebSocketMessageService& service() { return *mService; }
    const std::string& pageId() const { return mPageId; }
    void write(const std::string& frame) { mWs.write(asio::buffer(frame)); }
    std::string read() {
        mBuffer.clear();
        mWs.read(mBuffer);
        return beast::buffers_to_string(mBuffer.data());
    }
    // Reads the next frame and returns its size, without copying it.
    std::size_t readSize() {
        mBuffer.clear();
        return mWs.read(mBuffer);
    }

private:
    std::shared_ptr<WebSocketMessageService> mService;
    asio::io_context mIoc;
    websocket::stream<tcp::socket> mWs;
    beast::flat_buffer mBuffer;
    std::string mPageId;
};

void BM_PageRequestRoundTrip(benchmark::State& state) {
    Harness harness;
    const std::string page = hundredRowPage();
    const std::string channel = "/WorkspaceBrowser/" + harness.pageId();
    auto answer = harness.service()
                      .subscribe(channel + "_who",
                                 [&](const JsonMessage&) {
                                     harness.service().publish(channel, JsonMessage(page));
                                 })
                      .get();
    harness.write(R"({"op":"subscribe","channel":")" + channel + "\"}");
    const std::string request =
        R"({"op":"publish","channel":")" + channel +
        R"(_who","message":{"method":"getData","id":17,"args":{"start":0,"count":100,"sort":[]}}})";
    std::size_t bytes = 0;
    for (auto _ : state) {
        harness.write(request);
        bytes += harness.readSize();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    state.counters["reply_bytes"] = static_cast<double>(bytes) / state.iterations();
}

void BM_RawEchoSameSize(benchmark::State& state) {
    Harness harness;
    const std::string page = hundredRowPage();
    auto echo = harness.service()
                    .subscribe("/echo",
                               [&](const JsonMessage& message) {
                                   harness.service().publish("/echoed", message);
                               })
                    .get();
    harness.write(R"({"op":"subscribe","channel":"/echoed"})");
    const std::string request = R"({"op":"publish","channel":"/echo","message":)" + page + "}";
    std::size_t bytes = 0;
    for (auto _ : state) {
        harness.write(request);
        bytes += harness.readSize();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    state.counters["reply_bytes"] = static_cast<double>(bytes) / state.iterations();
}

} // namespace

BENCHMARK(BM_PageRequestRoundTrip)->UseRealTime();
BENCHMARK(BM_RawEchoSameSize)->UseRealTime();
