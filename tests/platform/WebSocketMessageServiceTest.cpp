#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>

#include <gtest/gtest.h>

#include "support/LogCapture.hpp"
#include "support/PageClient.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

using namespace connector::message_service;
using wsb_test::PageClient;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace json = boost::json;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

const std::string kServiceLogger = "zentra::connector::WebSocketMessageService";

// The page client's bound: only a hang reaches it.
constexpr auto kTimeout = wsb_test::page_client_detail::kPageTimeout;

// Texts received in order, with a way to wait for them. Thread-safe.
class Recorder {
public:
    void add(std::string text) {
        {
            std::lock_guard lock(mMutex);
            mTexts.push_back(std::move(text));
        }
        mChanged.notify_all();
    }
    MessageService::Callback callback() {
        return [this](const JsonMessage& message) { add(std::string(message.text())); };
    }
    bool waitForCount(std::size_t count) {
        std::unique_lock lock(mMutex);
        return mChanged.wait_for(lock, kTimeout, [&] { return mTexts.size() >= count; });
    }
    bool waitFor(const std::string& text) {
        std::unique_lock lock(mMutex);
        return mChanged.wait_for(lock, kTimeout, [&] {
            return std::find(mTexts.begin(), mTexts.end(), text) != mTexts.end();
        });
    }
    bool contains(const std::string& text) const {
        std::lock_guard lock(mMutex);
        return std::find(mTexts.begin(), mTexts.end(), text) != mTexts.end();
    }
    std::vector<std::string> texts() const {
        std::lock_guard lock(mMutex);
        return mTexts;
    }

private:
    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<std::string> mTexts;
};

// Sends one raw request and reads the reply; raw, so that malformed and hostile requests can be
// written exactly.
http::response<http::string_body> exchange(std::uint16_t port, const std::string& request,
                                           bool head = false) {
    asio::io_context ioc;
    tcp::socket socket(ioc);
    socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    asio::write(socket, asio::buffer(request));
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.skip(head);
    beast::error_code ec;
    http::read(socket, buffer, parser, ec);
    EXPECT_FALSE(ec) << ec.message() << " for " << request;
    return parser.release();
}

std::string request(const std::string& method, const std::string& target,
                    const std::optional<std::string>& host) {
    std::string text = method + " " + target + " HTTP/1.1\r\n";
    if (host)
        text += "Host: " + *host + "\r\n";
    return text + "Connection: close\r\n\r\n";
}

// A client that writes bytes exactly as given and reads what comes back, for requests and frames
// that a well-behaved client library would never send. Each wait is bounded. Not thread-safe.
class RawClient {
public:
    explicit RawClient(std::uint16_t port) : mSocket(mIoc) {
        mSocket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    }

    beast::error_code write(std::string_view bytes) {
        return run(kTimeout, [&](auto handler) {
            asio::async_write(mSocket, asio::buffer(bytes.data(), bytes.size()), handler);
        });
    }
    // The status of the HTTP response, 0 when the connection ends without one.
    int readStatus() {
        http::response_parser<http::empty_body> parser;
        parser.skip(true); // a refusal's body is of no interest, and 101 has none
        const auto ec = run(kTimeout, [&](auto handler) {
            http::async_read_header(mSocket, mBuffer, parser, handler);
        });
        return ec ? 0 : parser.get().result_int();
    }
    // Completes a WebSocket upgrade and reads the hello; false when the server refused.
    bool upgrade(std::uint16_t port, const std::string& token) {
        const std::string host = "127.0.0.1:" + std::to_string(port);
        if (write(upgradeRequest("/ws?token=" + token,
                                 {"Host: " + host, "Origin: http://" + host})) ||
            readStatus() != 101)
            return false;
        const auto hello = readFrame();
        return hello && hello->first == 0x1;
    }
    // A masked client frame: `head` is the first byte (FIN, RSV bits and opcode).
    void sendFrame(std::uint8_t head, std::string_view payload, bool masked = true) {
        ASSERT_LT(payload.size(), 126u);
        std::string frame(1, static_cast<char>(head));
        frame.push_back(static_cast<char>((masked ? 0x80 : 0) | payload.size()));
        const char mask[4] = {0x11, 0x22, 0x33, 0x44};
        if (masked)
            frame.append(mask, 4);
        for (std::size_t i = 0; i < payload.size(); ++i)
            frame.push_back(static_cast<char>(payload[i] ^ (masked ? mask[i % 4] : 0)));
        EXPECT_FALSE(write(frame));
    }
    // One frame of the server: opcode and payload; nullopt when the connection ends.
    std::optional<std::pair<int, std::string>> readFrame() {
        std::string head;
        if (!readExactly(head, 2))
            return std::nullopt;
        std::size_t length = static_cast<unsigned char>(head[1]) & 0x7f;
        if (length >= 126) {
            std::string extended;
            if (!readExactly(extended, length == 126 ? 2 : 8))
                return std::nullopt;
            length = 0;
            for (char c : extended)
                length = length << 8 | static_cast<unsigned char>(c);
        }
        std::string payload;
        if (!readExactly(payload, length))
            return std::nullopt;
        return std::pair{static_cast<unsigned char>(head[0]) & 0x0f, payload};
    }
    // The code of the server's close frame, skipping the frames before it; 0 without one.
    int readCloseCode() {
        while (auto frame = readFrame()) {
            if (frame->first == 0x8 && frame->second.size() >= 2)
                return static_cast<unsigned char>(frame->second[0]) << 8 |
                       static_cast<unsigned char>(frame->second[1]);
        }
        return 0;
    }
    // Waits at most `wait` for the server to end the connection; what it sends meanwhile is
    // dropped.
    bool closedWithin(std::chrono::milliseconds wait) {
        char byte = 0;
        const auto ec = run(
            wait, [&](auto handler) { mSocket.async_read_some(asio::buffer(&byte, 1), handler); });
        return ec && ec != asio::error::operation_aborted && ec != asio::error::timed_out;
    }

    static std::string upgradeRequest(const std::string& target,
                                      const std::vector<std::string>& headers) {
        std::string text = "GET " + target + " HTTP/1.1\r\n";
        for (const auto& header : headers)
            text += header + "\r\n";
        return text + "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                      "Sec-WebSocket-Version: 13\r\n\r\n";
    }

private:
    bool readExactly(std::string& out, std::size_t size) {
        if (mBuffer.size() < size) {
            std::string missing(size - mBuffer.size(), '\0');
            const auto ec = run(kTimeout, [&](auto handler) {
                asio::async_read(mSocket, asio::buffer(missing), handler);
            });
            if (ec)
                return false;
            mBuffer.commit(
                asio::buffer_copy(mBuffer.prepare(missing.size()), asio::buffer(missing)));
        }
        out = beast::buffers_to_string(beast::buffers_prefix(size, mBuffer.data()));
        mBuffer.consume(size);
        return true;
    }
    template <class Start> beast::error_code run(std::chrono::milliseconds limit, Start&& start) {
        std::optional<beast::error_code> result;
        start([&result](beast::error_code ec, auto&&...) { result = ec; });
        mIoc.restart();
        mIoc.run_for(limit);
        if (result)
            return *result;
        mSocket.cancel();
        mIoc.restart();
        mIoc.run();
        return asio::error::timed_out;
    }

    asio::io_context mIoc;
    tcp::socket mSocket;
    beast::flat_buffer mBuffer;
};

std::size_t countLines(const wsb_test::LogCapture& log, const std::string& part) {
    const auto texts = log.texts();
    return std::count_if(texts.begin(), texts.end(), [&](const std::string& text) {
        return text.find(part) != std::string::npos;
    });
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

class WebSocketMessageServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        mDir =
            std::filesystem::temp_directory_path() / ("wsb-ws-test-" + std::to_string(::getpid()));
        std::filesystem::remove_all(mDir);
        mRoot = mDir / "client";
        writeFile(mRoot / "index.html", "<!doctype html><title>grid</title>");
        writeFile(mRoot / "app.js", "console.log('grid');");
        writeFile(mRoot / "style.css", "body{}");
        writeFile(mRoot / "sub" / "data.json", "{}");
        writeFile(mRoot / ".hidden", "hidden");
        writeFile(mDir / "outside" / "secret.txt", "SECRET");
        std::filesystem::create_symlink(mDir / "outside" / "secret.txt", mRoot / "escape.txt");
        std::filesystem::create_directory_symlink(mDir / "outside", mRoot / "linked");
    }
    void TearDown() override {
        mService.reset();
        std::filesystem::remove_all(mDir);
    }

    WebSocketMessageService& start(WebSocketServerOptions options = {}) {
        options.staticRoot = mRoot;
        mService = WebSocketMessageService::create(std::move(options));
        mService->setPageHandlers([this](const std::string& id) { mPages.add("+" + id); },
                                  [this](const std::string& id) { mPages.add("-" + id); });
        mService->start();
        return *mService;
    }
    std::uint16_t port() const { return mService->port(); }
    std::string host() const { return "127.0.0.1:" + std::to_string(port()); }
    std::string origin() const { return "http://" + host(); }
    std::string wsTarget() const { return "/ws?token=" + mService->token(); }

    // A page that has passed the handshake and read its hello; `pageId` receives its id.
    std::unique_ptr<PageClient> openPage(std::string* pageId = nullptr, int receiveBuffer = 0) {
        auto page = std::make_unique<PageClient>();
        const auto ec = page->connect(port(), wsTarget(), host(), origin(), receiveBuffer);
        EXPECT_FALSE(ec) << ec.message();
        const json::value hello = page->readJson();
        EXPECT_EQ(hello.at("op"), "hello");
        if (pageId)
            *pageId = json::value_to<std::string>(hello.at("page"));
        return page;
    }

    // Server subscription on `channel` whose messages land in `inbox`.
    std::shared_ptr<Subscription> listen(const std::string& channel, Recorder& inbox) {
        return mService->subscribe(channel, inbox.callback()).get();
    }

    std::filesystem::path mDir;
    std::filesystem::path mRoot;
    Recorder mPages; // "+page-1" when page-1 connects, "-page-1" when it leaves
    std::shared_ptr<WebSocketMessageService> mService;
};

TEST_F(WebSocketMessageServiceTest, CarriesMessagesBothWaysToSubscribedPagesOnly) {
    start();
    Recorder inbox;
    auto subscription = listen("/in", inbox);

    std::string idA, idB;
    auto pageA = openPage(&idA);
    auto pageB = openPage(&idB);
    EXPECT_NE(idA, idB);
    ASSERT_TRUE(mPages.waitFor("+" + idA));
    ASSERT_TRUE(mPages.waitFor("+" + idB));

    pageA->subscribe("/out");
    pageB->subscribe("/other");
    // Frames of one page are handled in order, so once these arrive the subscriptions stand.
    for (int i = 0; i < 10; ++i)
        pageA->publish("/in", R"({"from":"A","n":)" + std::to_string(i) + "}");
    pageB->publish("/in", R"({"from":"B"})");
    ASSERT_TRUE(inbox.waitForCount(11));
    std::vector<json::value> fromA;
    for (const auto& text : inbox.texts()) {
        const json::value value = json::parse(text);
        if (value.at("from") == "A")
            fromA.push_back(value);
    }
    ASSERT_EQ(fromA.size(), 10u);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(fromA[i].at("n"), i) << "page messages reach the server in arrival order";

    const std::string rows = R"({"rows":[[1,"a\"b"],[2,null]],"total":2})";
    mService->publish("/out", JsonMessage(rows)).get();
    mService->publish("/other", JsonMessage(std::string_view(R"([true])"))).get();

    const json::value atA = pageA->readJson();
    EXPECT_EQ(atA.at("op"), "message");
    EXPECT_EQ(atA.at("channel"), "/out");
    EXPECT_EQ(atA.at("message"), json::parse(rows));
    // B is not subscribed to "/out": the first thing it hears is the message of its own channel.
    const json::value atB = pageB->readJson();
    EXPECT_EQ(atB.at("channel"), "/other");
    EXPECT_EQ(atB.at("message"), json::parse("[true]"));

    // After an unsubscribe the page hears only what it still subscribes to.
    pageA->write(R"({"op":"unsubscribe","channel":"/out"})");
    pageA->subscribe("/later");
    pageA->publish("/in", R"({"from":"A","sync":true})");
    ASSERT_TRUE(inbox.waitForCount(12));
    mService->publish("/out", JsonMessage(std::string_view("1"))).get();
    mService->publish("/later", JsonMessage(std::string_view("2"))).get();
    EXPECT_EQ(pageA->readJson().at("channel"), "/later");

    pageA->close();
    ASSERT_TRUE(mPages.waitFor("-" + idA));
    EXPECT_FALSE(mPages.contains("-" + idB));
}

TEST_F(WebSocketMessageServiceTest, PublishedMessagesKeepThePagesOwnNumbers) {
    start();
    Recorder inbox;
    auto subscription = listen("/in", inbox);
    auto page = openPage();
    // Numbers a double cannot hold arrive as written, never rounded nor as non-JSON infinities;
    // white space between tokens goes, white space inside strings stays.
    const std::string compactMessage = R"({"":31866666673766667370,"z":0e380,"n":[-0.0,1E-400]})";
    page->write(R"({"op":"publish","channel":"/in","message":)" + compactMessage + "}");
    page->write(R"({"message":1,"op":"publish","channel":"/in","message" : { "a" : 0e400 ,)"
                "\n \"b\":[ 1e400,\t2 ], \"s\":\"x  \\\"y\" } }");
    ASSERT_TRUE(inbox.waitForCount(2));
    EXPECT_EQ(inbox.texts()[0], compactMessage);
    EXPECT_EQ(inbox.texts()[1], R"({"a":0e400,"b":[1e400,2],"s":"x  \"y"})");
}

TEST_F(WebSocketMessageServiceTest, ServerSubscriptionsEndWithTheirHandle) {
    start();
    Recorder kept, released;
    auto keep = listen("/in", kept);
    auto drop = listen("/in", released);
    auto page = openPage();
    page->publish("/in", "1");
    ASSERT_TRUE(kept.waitForCount(1));
    ASSERT_TRUE(released.waitForCount(1));

    drop.reset();
    page->publish("/in", "2");
    ASSERT_TRUE(kept.waitForCount(2));
    EXPECT_EQ(released.texts().size(), 1u);

    // A subscriber that throws does not keep the message from the next one.
    auto thrower =
        mService
            ->subscribe("/in",
                        [](const JsonMessage&) { throw std::runtime_error("subscriber failure"); })
            .get();
    Recorder after;
    auto afterSub = listen("/in", after);
    page->publish("/in", "3");
    ASSERT_TRUE(after.waitForCount(1));

    EXPECT_THROW(mService->subscribe("/in", {}).get(), std::invalid_argument);
    EXPECT_THROW(mService->publish("/out", JsonMessage(std::string_view("{broken"))).get(),
                 std::invalid_argument);
    EXPECT_THROW(mService->publish("/out", JsonMessage(std::string_view("1 2"))).get(),
                 std::invalid_argument);

    // Handles may outlive the service.
    page.reset();
    mService.reset();
    keep.reset();
    thrower.reset();
}

TEST_F(WebSocketMessageServiceTest, TokenIsLongRandomAndChecked) {
    auto first = WebSocketMessageService::create({});
    auto second = WebSocketMessageService::create({});
    EXPECT_GE(first->token().size(), 48u);
    EXPECT_NE(first->token(), second->token());
    for (const std::string& bad : {std::string("short"), std::string(30, 'a') + "&x"}) {
        WebSocketServerOptions options;
        options.token = bad;
        EXPECT_THROW(WebSocketMessageService::create(options), std::invalid_argument) << bad;
    }

    start();
    const std::string url = mService->url();
    EXPECT_EQ(url, "http://" + host() + "/?token=" + mService->token());
}

TEST_F(WebSocketMessageServiceTest, RefusesUpgradesWithoutTokenRightHostOrOrigin) {
    std::ostringstream log;
    auto sink =
        foundation::log::addConsoleSink(9, "zentra::connector::WebSocketMessageService", &log);
    start();
    const std::string token = mService->token();
    const std::string p = std::to_string(port());
    const std::string wrongPort = std::to_string(port() == 65535 ? 1 : port() + 1);
    struct Case {
        std::string target;
        std::string host;
        std::optional<std::string> origin;
    };
    const std::string good = origin();
    std::vector<Case> cases = {
        {"/ws", host(), good},
        {"/ws?token=", host(), good},
        {"/ws?token=" + token.substr(0, token.size() - 1), host(), good},
        {"/ws?token=" + token + "0", host(), good},
        {"/ws?other=" + token, host(), good},
        {"/wsx?token=" + token, host(), good},
        {wsTarget(), host(), std::nullopt},
        {wsTarget(), host(), "http://attacker.example"},
        {wsTarget(), host(), "http://127.0.0.1:" + wrongPort},
        {wsTarget(), host(), "https://" + host()},
        {wsTarget(), host(), "null"},
    };
    for (const std::string& badHost :
         {"attacker.example:" + p, "localhost6:" + p, "127.1:" + p, "2130706433:" + p,
          "0177.0.0.1:" + p, std::string("127.0.0.1"), std::string("localhost"),
          "127.0.0.1:" + wrongPort, "127.0.0.1:" + p + "0", "127.0.0.1.:" + p})
        cases.push_back({wsTarget(), badHost, "http://" + badHost});

    for (const Case& c : cases) {
        PageClient page;
        const auto ec = page.connect(port(), c.target, c.host, c.origin);
        EXPECT_EQ(ec, websocket::error::upgrade_declined)
            << "host " << c.host << " origin " << c.origin.value_or("(none)");
        const auto status = page.response().result_int();
        EXPECT_TRUE(status == 403 || status == 400 || status == 404) << status;
        EXPECT_EQ(page.response().body().find(token), std::string::npos);
    }

    // The loopback spellings with the right port are all accepted.
    for (const std::string& goodHost : {host(), "localhost:" + p}) {
        PageClient page;
        EXPECT_FALSE(page.connect(port(), wsTarget(), goodHost, "http://" + goodHost)) << goodHost;
    }
    EXPECT_TRUE(mPages.waitForCount(2));

    // The requests above were logged, the token never.
    mService->stop();
    sink.reset();
    EXPECT_NE(log.str().find("/ws?token=<redacted>"), std::string::npos) << log.str();
    EXPECT_EQ(log.str().find(token), std::string::npos) << log.str();
    // Each kind of refusal is written once, not once per attempt: a client retrying in a loop
    // must not flood the log (the repeats are counted into the next line of that kind).
    for (const std::string refusal :
         {"unexpected Host header", "foreign or missing Origin", "without the right token"}) {
        std::size_t lines = 0;
        for (auto at = log.str().find(refusal); at != std::string::npos;
             at = log.str().find(refusal, at + 1))
            ++lines;
        EXPECT_GE(lines, 1u) << refusal;
        EXPECT_LE(lines, 2u) << refusal;
    }
}

TEST_F(WebSocketMessageServiceTest, RefusesAbsentOrRepeatedHostAndOriginHeaders) {
    start();
    const std::string p = std::to_string(port());
    const std::string hostLine = "Host: " + host();
    const std::string originLine = "Origin: " + origin();
    struct Case {
        std::vector<std::string> headers;
        int status;
    };
    const Case cases[] = {
        {{originLine}, 400},
        {{hostLine, hostLine, originLine}, 400},
        {{hostLine, "Host: attacker.example:" + p, originLine}, 400},
        {{"Host: attacker.example:" + p, hostLine, originLine}, 400},
        {{"Host:", originLine}, 403},
        {{hostLine, originLine, originLine}, 403},
        {{hostLine, originLine, "Origin: http://attacker.example"}, 403},
        {{hostLine, "Origin:"}, 403},
    };
    for (const Case& c : cases) {
        RawClient client(port());
        ASSERT_FALSE(client.write(RawClient::upgradeRequest(wsTarget(), c.headers)));
        std::string described;
        for (const auto& header : c.headers)
            described += header + "; ";
        EXPECT_EQ(client.readStatus(), c.status) << described;
    }
    // The same request with one of each is accepted: the refusals above are the headers' doing.
    RawClient accepted(port());
    EXPECT_TRUE(accepted.upgrade(port(), mService->token()));
}

TEST_F(WebSocketMessageServiceTest, ClosesAPageThatBreaksTheFrameProtocol) {
    start();
    Recorder inbox;
    auto subscription = listen("/in", inbox);
    struct Case {
        const char* what;
        std::vector<std::pair<std::uint8_t, std::string>> frames;
        bool masked;
        int closeCode;
    };
    const Case cases[] = {
        {"text that is not UTF-8", {{0x81, "\"\xc3\x28\""}}, true, 1007},
        {"UTF-8 broken across fragments", {{0x01, "\"\xe2\x82"}, {0x80, "(\""}}, true, 1007},
        {"a continuation with nothing to continue", {{0x80, "{}"}}, true, 1002},
        {"an unmasked frame", {{0x81, "{}"}}, false, 1002},
        {"a reserved opcode", {{0x83, "{}"}}, true, 1002},
        {"a reserved bit", {{0xc1, "{}"}}, true, 1002},
        {"a fragmented ping", {{0x09, "p"}}, true, 1002},
    };
    for (const Case& c : cases) {
        RawClient page(port());
        ASSERT_TRUE(page.upgrade(port(), mService->token())) << c.what;
        for (const auto& [head, payload] : c.frames)
            page.sendFrame(head, payload, c.masked);
        EXPECT_EQ(page.readCloseCode(), c.closeCode) << c.what;
    }
    // The others are untouched by all this.
    auto page = openPage();
    page->publish("/in", "1");
    EXPECT_TRUE(inbox.waitForCount(1));
}

TEST_F(WebSocketMessageServiceTest, EndsConnectionsThatDoNotCompleteTheirRequestInTime) {
    WebSocketServerOptions options;
    options.handshakeTimeout = 1s;
    start(options);
    const std::string head = "GET " + wsTarget() + " HTTP/1.1\r\nHost: " + host() + "\r\n";
    struct Case {
        const char* what;
        std::string atOnce;
        std::string dripped; // one byte at a time, for as long as the connection lasts
    };
    const Case cases[] = {
        {"a client that sends nothing", "", ""},
        {"a client that sends its headers very slowly", head, std::string(4096, 'x')},
        {"an upgrade whose last line never ends",
         RawClient::upgradeRequest(wsTarget(), {"Host: " + host(), "Origin: " + origin()})
             .substr(0, 150),
         std::string(4096, 'x')},
    };
    // Far beyond the server's own timeout; reached only when the connection is never ended.
    constexpr int kPolls = 200;
    for (const Case& c : cases) {
        RawClient client(port());
        if (!c.atOnce.empty()) {
            ASSERT_FALSE(client.write(c.atOnce)) << c.what;
        }
        bool closed = false;
        for (int i = 0; i < kPolls && !closed; ++i) {
            if (i < static_cast<int>(c.dripped.size()) && client.write(c.dripped.substr(i, 1)))
                closed = true;
            else
                closed = client.closedWithin(100ms);
        }
        EXPECT_TRUE(closed) << c.what;
    }
    // A page that completes its handshake in time stays.
    Recorder inbox;
    auto subscription = listen("/in", inbox);
    auto page = openPage();
    page->publish("/in", "1");
    EXPECT_TRUE(inbox.waitForCount(1));
}

TEST_F(WebSocketMessageServiceTest, RefusesConnectionsBeyondTheLimitAndSaysSoOnce) {
    wsb_test::LogCapture log(kServiceLogger, foundation::log::kWarning);
    WebSocketServerOptions options;
    options.maxConnections = 2;
    start(options);
    std::string firstId;
    auto first = openPage(&firstId);
    auto second = openPage();

    constexpr int kAttempts = 20;
    for (int i = 0; i < kAttempts; ++i) {
        RawClient extra(port());
        extra.write(request("GET", "/app.js", host())); // may fail: the server closes at once
        EXPECT_EQ(extra.readStatus(), 0) << "attempt " << i << " was answered";
    }
    // A connection that ends makes room for the next.
    first->close();
    ASSERT_TRUE(mPages.waitFor("-" + firstId));
    EXPECT_EQ(exchange(port(), request("GET", "/app.js", host())).result_int(), 200);

    second->close();
    mService->stop();
    const std::size_t lines = countLines(log, "Refused a connection");
    EXPECT_GE(lines, 1u);
    EXPECT_LE(lines, 2u) << "one line per attempt";
}

// Without a free file descriptor accepting fails, and the waiting connection stays queued, so
// accepting again fails at once. The listener must pause between attempts instead of spinning,
// say so once rather than per attempt, and take the connection once a descriptor is free again.
// Runs in a child process: its descriptor limit is lowered, and every descriptor is taken.
[[noreturn]] void serveWithoutFreeDescriptors() {
    auto fail = [](const std::string& why) {
        std::fprintf(stderr, "%s\n", why.c_str());
        std::_Exit(1);
    };
    auto cpuSeconds = [] {
        timespec now{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    };
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, 256);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
        fail("cannot lower the descriptor limit");

    auto log = std::make_unique<wsb_test::LogCapture>(kServiceLogger, foundation::log::kWarning);
    auto service = WebSocketMessageService::create({});
    service->start();
    const std::uint16_t port = service->port();

    // Every descriptor but one taken; the client's socket gets that one, the server none.
    asio::io_context ioc;
    tcp::socket client(ioc);
    std::vector<int> taken;
    for (int fd = ::dup(STDERR_FILENO); fd >= 0; fd = ::dup(STDERR_FILENO))
        taken.push_back(fd);
    ::close(taken.back());
    taken.pop_back();
    boost::system::error_code ec;
    client.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port), ec);
    if (ec)
        fail("cannot connect: " + ec.message());
    asio::write(client, asio::buffer(request("GET", "/", "127.0.0.1:" + std::to_string(port))), ec);

    const double cpuBefore = cpuSeconds();
    const auto wallBefore = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(1s);
    const double cpu = cpuSeconds() - cpuBefore;
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
    if (cpu > wall / 2)
        fail("the listener kept retrying: " + std::to_string(cpu) + " s of processor time in " +
             std::to_string(wall) + " s");

    for (int fd : taken)
        ::close(fd);
    // The waiting connection is taken and answered (404: this service serves no files).
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    std::optional<beast::error_code> read;
    http::async_read(client, buffer, response, [&](beast::error_code e, std::size_t) { read = e; });
    ioc.run_for(kTimeout);
    if (!read || *read)
        fail("the waiting connection was never answered");
    if (response.result_int() != 404)
        fail("unexpected answer " + std::to_string(response.result_int()));

    service->stop();
    const std::size_t lines = countLines(*log, "Accepting a connection failed");
    if (lines < 1 || lines > 2)
        fail(std::to_string(lines) + " lines about failing to accept");
    std::_Exit(0);
}

TEST(WebSocketMessageServiceLimits, BacksOffWhileOutOfFileDescriptors) {
#if defined(__SANITIZE_ADDRESS__)
    // With every descriptor taken, Asio's reactor in this test's own client trips UBSan's
    // dynamic-type check; the back-off is checked by the plain and ThreadSanitizer builds.
    GTEST_SKIP() << "not run under AddressSanitizer + UBSan";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(serveWithoutFreeDescriptors(), ::testing::ExitedWithCode(0), "");
}

TEST_F(WebSocketMessageServiceTest, ServesClientFilesWithTypesAndPolicy) {
    start();
    const auto page = exchange(port(), request("GET", "/?token=" + mService->token(), host()));
    ASSERT_EQ(page.result_int(), 200);
    EXPECT_EQ(page[http::field::content_type], "text/html; charset=utf-8");
    EXPECT_EQ(page["Content-Security-Policy"],
              "default-src 'self'; connect-src 'self' ws://" + host() +
                  "; object-src 'none'; frame-ancestors 'none'; base-uri 'none'");
    EXPECT_EQ(page["X-Content-Type-Options"], "nosniff");
    EXPECT_EQ(page[http::field::cache_control], "no-store");
    EXPECT_EQ(page.body(), "<!doctype html><title>grid</title>");

    const std::pair<const char*, const char*> types[] = {
        {"/app.js", "text/javascript; charset=utf-8"},
        {"/style.css", "text/css; charset=utf-8"},
        {"/sub/data.json", "application/json"},
    };
    for (const auto& [path, type] : types) {
        const auto reply = exchange(port(), request("GET", path, host()));
        EXPECT_EQ(reply.result_int(), 200) << path;
        EXPECT_EQ(reply[http::field::content_type], type) << path;
        EXPECT_EQ(reply["X-Content-Type-Options"], "nosniff");
    }
    const auto head = exchange(port(), request("HEAD", "/app.js", host()), true);
    EXPECT_EQ(head.result_int(), 200);
    EXPECT_EQ(head[http::field::content_length], "20");
    EXPECT_TRUE(head.body().empty());

    EXPECT_EQ(exchange(port(), request("GET", "/missing.js", host())).result_int(), 404);
    EXPECT_EQ(exchange(port(), request("POST", "/app.js", host())).result_int(), 405);
    // The page needs the right Host, like the WebSocket, and no token or the right one: without
    // one it is served (a reloaded tab connects with the token it kept), a wrong one is refused.
    EXPECT_EQ(exchange(port(), request("GET", "/", host())).result_int(), 200);
    const auto refused = exchange(port(), request("GET", "/index.html?token=x", host()));
    EXPECT_EQ(refused.result_int(), 403);
    EXPECT_NE(refused.body().find("printed the page's address"), std::string::npos)
        << "says where to look";
    EXPECT_EQ(exchange(port(), request("GET", "/?token=", host())).result_int(), 403);
    EXPECT_EQ(exchange(port(), request("GET", "/?token=" + mService->token(),
                                       "attacker.example:" + std::to_string(port())))
                  .result_int(),
              403);
    EXPECT_EQ(exchange(port(), request("GET", "/app.js", std::nullopt)).result_int(), 400);
}

TEST_F(WebSocketMessageServiceTest, NeverServesAPathOutsideTheFolder) {
    start();
    const char* attempts[] = {
        "/../outside/secret.txt",
        "/%2e%2e/outside/secret.txt",
        "/%2E%2E%2Foutside%2Fsecret.txt",
        "/sub/..%2f..%2f..%2foutside/secret.txt",
        "/sub/%2e%2e/%2e%2e/outside/secret.txt",
        "/..\\outside\\secret.txt",
        "/%5c..%5coutside%5csecret.txt",
        "/escape.txt",
        "/linked/secret.txt",
        "/.hidden",
        "/%00index.html",
        "/%zz",
        "//etc/passwd",
    };
    for (const char* path : attempts) {
        const auto reply = exchange(port(), request("GET", path, host()));
        EXPECT_TRUE(reply.result_int() == 404 || reply.result_int() == 400)
            << path << " -> " << reply.result_int();
        EXPECT_EQ(reply.body().find("SECRET"), std::string::npos) << path;
    }
}

TEST_F(WebSocketMessageServiceTest, OversizeMessageClosesOnlyItsConnection) {
    WebSocketServerOptions options;
    options.maxMessageBytes = 1024;
    start(options);
    Recorder inbox;
    auto subscription = listen("/in", inbox);
    auto big = openPage();
    auto other = openPage();

    big->publish("/in", "\"" + std::string(2048, 'x') + "\"");
    // The rest of the oversize frame is never read, so the socket may end with a reset right
    // after the close frame; the close code is what counts.
    EXPECT_FALSE(big->read());
    EXPECT_EQ(big->reason().code, websocket::close_code::too_big);

    other->publish("/in", R"("still here")");
    ASSERT_TRUE(inbox.waitForCount(1));
    EXPECT_EQ(inbox.texts().front(), R"("still here")");
}

TEST_F(WebSocketMessageServiceTest, DropsAPageThatDoesNotReadOnceItsQueueIsFull) {
    WebSocketServerOptions options;
    options.maxQueuedBytesPerConnection = 256 * 1024;
    start(options);
    Recorder inbox;
    auto subscription = listen("/sync", inbox);
    std::string stuckId;
    auto stuck = openPage(&stuckId, 4096);
    stuck->subscribe("/flood");
    stuck->publish("/sync", "0");
    ASSERT_TRUE(inbox.waitForCount(1));

    // The page never reads again. Kernel buffers absorb a few megabytes; beyond them the
    // server's queue must hit its bound and drop the page rather than grow.
    const std::string chunk = "\"" + std::string(1 << 20, 'y') + "\"";
    for (int i = 0; i < 256 && !mPages.contains("-" + stuckId); ++i)
        mService->publish("/flood", JsonMessage(chunk)).get();
    ASSERT_TRUE(mPages.waitFor("-" + stuckId));

    auto fresh = openPage();
    fresh->subscribe("/flood");
    fresh->publish("/sync", "1");
    ASSERT_TRUE(inbox.waitForCount(2));
    mService->publish("/flood", JsonMessage(std::string_view("\"small\""))).get();
    EXPECT_EQ(fresh->readJson().at("message"), "small");
}

TEST_F(WebSocketMessageServiceTest, AnswersBadEnvelopesWithErrorsAndStaysOpen) {
    start();
    Recorder inbox;
    auto subscription = listen("/in", inbox);
    auto page = openPage();
    const char* bad[] = {
        "not json",
        "[1,2]",
        "{}",
        R"({"op":5,"channel":"/in"})",
        R"({"op":"dance","channel":"/in"})",
        R"({"op":"publish","message":1})",
        R"({"op":"subscribe","channel":""})",
        R"({"op":"subscribe","channel":7})",
        R"({"op":"publish","channel":"/in"})",
        R"({"op":"publish","channel":"/in","message":1)",
    };
    const std::string longName(1025, 'c');
    const std::string tooLong[] = {
        R"({"op":"subscribe","channel":")" + longName + R"("})",
        R"({"op":"publish","message":1,"channel":")" + longName + R"("})",
    };
    for (const std::string& frame : tooLong) {
        page->write(frame);
        EXPECT_EQ(page->readJson().at("error"), "A \"channel\" may be at most 1024 bytes.");
    }
    for (const char* frame : bad) {
        page->write(frame);
        const json::value reply = page->readJson();
        EXPECT_EQ(reply.at("op"), "error") << frame;
        EXPECT_TRUE(reply.at("error").is_string()) << frame;
    }
    page->write(R"({"op":"publish","channel":"/in","message":1})", true);
    EXPECT_EQ(page->readJson().at("op"), "error");

    page->publish("/in", R"({"ok":true})");
    ASSERT_TRUE(inbox.waitForCount(1));
    EXPECT_EQ(inbox.texts(), std::vector<std::string>{R"({"ok":true})"});
}

TEST_F(WebSocketMessageServiceTest, StopClosesPagesAndReportsThem) {
    start();
    std::string id;
    auto page = openPage(&id);
    mService->stop();
    // stop ran the pending handlers before returning.
    EXPECT_TRUE(mPages.contains("-" + id));
    EXPECT_FALSE(page->read());
    EXPECT_EQ(page->reason().code, websocket::close_code::going_away);
    mService->publish("/any", JsonMessage(std::string_view("1"))).get();
    mService->stop();
    EXPECT_THROW(mService->start(), std::logic_error);
}

} // namespace
