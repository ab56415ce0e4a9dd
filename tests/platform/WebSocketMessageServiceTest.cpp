#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>

#include <gtest/gtest.h>

#include "support/PageClient.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

using namespace connector::message_service;
using wsb_test::PageClient;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace json = boost::json;
using tcp = asio::ip::tcp;

namespace {

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
    // The page itself needs the token and the right Host, like the WebSocket.
    EXPECT_EQ(exchange(port(), request("GET", "/", host())).result_int(), 403);
    EXPECT_EQ(exchange(port(), request("GET", "/index.html?token=x", host())).result_int(), 403);
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
