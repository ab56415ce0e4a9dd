// Cost of one client request through the paging endpoint (parse, decode, dispatch), and the
// memory each dispatched request leaves behind: the endpoint keeps every event record it
// creates for as long as it lives, so that figure grows with the length of a session.
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/pubsub/DSEvent.hpp>
#include <workspace_browser/pubsub/PubSubDSImpl.hpp>
#include <workspace_browser/viewmodel/DSObserver.hpp>

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <memory>
#include <string>

namespace {

// Counts the requests it receives and does nothing else.
class CountingObserver : public DSObserver {
public:
    long calls = 0;
    void handleClientReady() override { ++calls; }
    void handleSetViewportRange(const DSEvent&) override { ++calls; }
    void handleClientGetSize() override { ++calls; }
    void handleClientGetData(const DSEvent&) override { ++calls; }
    void handleClientSetData(const DSEvent&) override { ++calls; }
    void handleClientGetMetaData(const DSEvent&) override { ++calls; }
    void handleClientGetTableMetaData(const DSEvent&) override { ++calls; }
    void handleClientGetColumnMetaData(const DSEvent&) override { ++calls; }
    void handleClientGetRowMetaData(const DSEvent&) override { ++calls; }
    void handleClientGetCellMetaData(const DSEvent&) override { ++calls; }
    void handleClientSetTableMetaData(const DSModelEvent&) override { ++calls; }
    void handleClientSetColumnMetaData(const DSModelEvent&) override { ++calls; }
    void handleClientSetRowMetaData(const DSModelEvent&) override { ++calls; }
    void handleClientSetCellMetaData(const DSModelEvent&) override { ++calls; }
    void handleSortChanged(int, bool) override { ++calls; }
};

const std::string kChannel = "/bench_who";

const std::string& messageFor(int kind) {
    static const std::string getData =
        R"({"eventType":11,"startRow":200,"endRow":249,"startColumn":0,"endColumn":12})";
    static const std::string setData =
        R"({"eventType":12,"row":17,"column":1,"data":"reshape(1:24, 4, 6) * 2.5"})";
    return kind == 0 ? getData : setData;
}

void dispatch(benchmark::State& state) {
    auto service = std::make_shared<connector::message_service::LocalMessageService>();
    CountingObserver observer;
    auto endpoint = std::make_unique<PubSubDSImpl>(service, kChannel);
    endpoint->addDSObserver(&observer);
    const std::string& text = messageFor(static_cast<int>(state.range(0)));

    const std::size_t before = mallinfo2().uordblks;
    for (auto _ : state)
        service->publishFromClient(kChannel, text);
    const std::size_t after = mallinfo2().uordblks;

    state.counters["retained_bytes_per_message"] =
        static_cast<double>(after - before) / static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    if (observer.calls != state.iterations())
        state.SkipWithError("an observer call went missing");
}
BENCHMARK(dispatch)->Arg(0)->ArgName("getData")->Iterations(200000);
BENCHMARK(dispatch)->Arg(1)->ArgName("setData")->Iterations(200000);

} // namespace
