#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include "support/FilledRecords.hpp"

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace workspace_browser_startup;

namespace {

using Names = std::vector<std::string>;

Names makeNames(std::size_t count) {
    Names names;
    names.reserve(count);
    char buffer[32];
    for (std::size_t i = 0; i < count; ++i) {
        std::snprintf(buffer, sizeof buffer, "var_%07zu", i);
        names.emplace_back(buffer);
    }
    return names;
}

std::unique_ptr<WSDataModel> makeModel() {
    return std::make_unique<WSDataModel>(
        [](const WSListenersSubscriptionCallback&) { return Connection(); },
        [](const Names& names, Names, bool, double, WorkspaceDisplayResultCallback onResult) {
            onResult(wsb_bench::filledRecords(names));
        },
        [] {});
}

const Names kFields = {"Class", "Name", "Size", "Value"};

void BM_ChangedBatchOfNewNames(benchmark::State& state) {
    const Names names = makeNames(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        auto model = makeModel();
        WSListenersSubscriptionCallbackArg batch{{EventType::VARIABLE_CHANGED, names}};
        state.ResumeTiming();
        model->handleWSEvent(std::move(batch));
        state.PauseTiming();
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ChangedBatchOfNewNames)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_GetVariablesOfCleanNames(benchmark::State& state) {
    const std::size_t cacheSize = static_cast<std::size_t>(state.range(0));
    const Names names = makeNames(cacheSize);
    auto model = makeModel();
    model->handleWSEvent({{EventType::VARIABLE_CHANGED, names}});
    model->getVariables(names, kFields, false, 0, nullptr, false); // every record clean now

    // Pages of 50 rows spread over the whole workspace.
    std::vector<Names> pages;
    for (std::size_t start = 0; start + 50 <= cacheSize; start += cacheSize / 64)
        pages.emplace_back(names.begin() + static_cast<std::ptrdiff_t>(start),
                           names.begin() + static_cast<std::ptrdiff_t>(start + 50));
    std::size_t delivered = 0;
    const WSVariablesCallback callback = [&delivered](std::vector<WSVariable> records) {
        delivered += records.size();
    };
    std::size_t page = 0;
    for (auto _ : state) {
        model->getVariables(pages[page], kFields, false, 0, callback, false);
        page = (page + 1) % pages.size();
    }
    if (delivered != 50 * static_cast<std::size_t>(state.iterations()))
        state.SkipWithError("clean records were fetched again or not delivered");
    state.SetItemsProcessed(state.iterations() * 50);
}
BENCHMARK(BM_GetVariablesOfCleanNames)->Arg(1000000)->Unit(benchmark::kMicrosecond);

std::size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Heap bytes per cached variable: right after a changed-variables event (name only) and after
// the host filled every record with typical texts.
void BM_MemoryPerCachedVariable(benchmark::State& state) {
    const std::size_t count = static_cast<std::size_t>(state.range(0));
    const Names names = makeNames(count);
    double namesOnly = 0;
    double filled = 0;
    for (auto _ : state) {
        auto model = makeModel();
        const std::size_t before = heapInUse();
        model->handleWSEvent({{EventType::VARIABLE_CHANGED, names}});
        const std::size_t afterEvent = heapInUse();
        model->getVariables(names, kFields, false, 0, nullptr, false);
        const std::size_t afterFetch = heapInUse();
        namesOnly = static_cast<double>(afterEvent - before) / static_cast<double>(count);
        filled = static_cast<double>(afterFetch - before) / static_cast<double>(count);
    }
    state.counters["bytes_per_variable_name_only"] = namesOnly;
    state.counters["bytes_per_variable_filled"] = filled;
}
BENCHMARK(BM_MemoryPerCachedVariable)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
