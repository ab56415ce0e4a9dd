// How long a stream of column widths from one page holds up another page's request: page A sends
// 1,000 width messages, then page B asks for data and waits for the reply. Both go through the
// one delivery thread, which also saves the widths to the user settings; pages take turns there,
// so B waits for at most one of A's messages, not for all of them. The time is B's wait.
// Argument 0: A repeats one width (what a page that only reports finished drags sends at most);
// argument 1: every width differs, so every message rewrites the settings file.
#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>
#include <workspace_browser/pubsub/PubSubDSImpl.hpp>
#include <workspace_browser/pubsub/PubSubVMImpl.hpp>

#include "support/IgnoringObserver.hpp"
#include "support/LoopbackPage.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

using namespace connector::message_service;

namespace {

// Answers every data request at once with a size reply.
class Answering : public wsb_bench::IgnoringObserver {
public:
    explicit Answering(PubSubDSImpl& endpoint) : mEndpoint(endpoint) {}
    void handleClientGetData(const DSEvent&) override { mEndpoint.sizeUpdated(1, 1); }

private:
    PubSubDSImpl& mEndpoint;
};

void BM_WidthStreamDelaysOtherPage(benchmark::State& state) {
    // The user settings go to a folder of their own, on the same disk as the system's temp.
    std::string folder = (std::filesystem::temp_directory_path() / "wsb-bench-XXXXXX").string();
    if (!::mkdtemp(folder.data())) {
        state.SkipWithError("no temporary folder");
        return;
    }
    ::setenv("WSB_SETTINGS_DIR", folder.c_str(), 1);
    {
        auto service = WebSocketMessageService::create({});
        service->start();
        workspace_browser_startup::PubSubVMImpl viewModel(service, "/vm");
        PubSubDSImpl paging(service, "/ds");
        Answering answering(paging);
        paging.addDSObserver(&answering);

        wsb_bench::LoopbackPage widths(*service);
        wsb_bench::LoopbackPage reader(*service);
        reader.write(R"({"op":"subscribe","channel":"/ds"})");
        const std::string request =
            R"({"op":"publish","channel":"/ds","message":{"eventType":11,"startRow":0,"endRow":49}})";
        const bool distinct = state.range(0) != 0;
        int step = 0;
        for (auto _ : state) {
            for (int i = 0; i < 1000; ++i) {
                const int width = distinct ? 100 + (step++ % 200) : 150;
                widths.write(R"({"op":"publish","channel":"/vm","message":{"type":"propertySet",)"
                             R"("propertyName":"ColumnModelProperty","propertyValue":{"property":)"
                             R"("ColumnWidth","column":2,"value":)" +
                             std::to_string(width) + "}}}");
            }
            const auto start = std::chrono::steady_clock::now();
            reader.write(request);
            reader.read();
            state.SetIterationTime(
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        paging.removeDSObserver(&answering);
        service->stop();
    }
    std::filesystem::remove_all(folder);
}

} // namespace

BENCHMARK(BM_WidthStreamDelaysOtherPage)
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
