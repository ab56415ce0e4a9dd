// Loopback cost of the WebSocket service: a page asking for 100 rows and getting them back,
// against a plain echo of a message of the same size through the same server. The difference is
// what the envelope handling costs beyond moving the bytes.
#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include "support/LoopbackPage.hpp"

#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

using namespace connector::message_service;

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
    Harness() : mService(WebSocketMessageService::create({})) {
        mService->start();
        mPage.emplace(*mService);
    }
    ~Harness() {
        mPage.reset();
        mService->stop();
    }

    WebSocketMessageService& service() { return *mService; }
    const std::string& pageId() const { return mPage->pageId(); }
    void write(const std::string& frame) { mPage->write(frame); }
    std::size_t readSize() { return mPage->readSize(); }

private:
    std::shared_ptr<WebSocketMessageService> mService;
    std::optional<wsb_bench::LoopbackPage> mPage;
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
