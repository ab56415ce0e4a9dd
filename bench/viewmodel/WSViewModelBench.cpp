// End-to-end timings of the workspace view model, measured as a client sees them: from the
// message that asks (or the workspace event that changes things) to the page published back,
// through the in-process message service, with a host that answers fetches at once.

#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include "support/FilledRecords.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace workspace_browser_startup;
using Clock = std::chrono::steady_clock;

namespace {

using Names = std::vector<std::string>;

Names makeNames(std::size_t count, std::size_t first, std::size_t step) {
    Names names;
    names.reserve(count);
    char buffer[32];
    for (std::size_t i = 0; i < count; ++i) {
        std::snprintf(buffer, sizeof buffer, "var_%07zu", first + i * step);
        names.emplace_back(buffer);
    }
    return names;
}

// The client end of the paging channel, reduced to counting pages: it wakes the benchmark when
// a page matching the awaited one arrives. Thread-safe.
class PageWaiter {
public:
    PageWaiter(connector::message_service::LocalMessageService& service, const std::string& channel)
        : mSubscription(service.subscribeClient(
              channel, [this](const connector::message_service::JsonMessage& message) {
                  const std::string_view text = message.text();
                  if (text.find("\"eventType\":2") == std::string_view::npos)
                      return;
                  {
                      std::lock_guard<std::mutex> lock(mMutex);
                      if (!mMarker.empty() && text.find(mMarker) == std::string_view::npos)
                          return;
                      ++mPages;
                  }
                  mArrived.notify_all();
              })) {}

    // Pages count only when their text holds `marker` (all pages when empty).
    void expect(std::string marker) {
        std::lock_guard<std::mutex> lock(mMutex);
        mMarker = std::move(marker);
    }
    std::size_t pages() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mPages;
    }
    void waitBeyond(std::size_t pages) {
        std::unique_lock<std::mutex> lock(mMutex);
        mArrived.wait(lock, [&] { return mPages > pages; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mArrived;
    std::string mMarker;
    std::size_t mPages = 0;
    std::shared_ptr<connector::message_service::Subscription> mSubscription;
};

std::vector<std::u16string> u16(const Names& names) {
    std::vector<std::u16string> result;
    for (const auto& name : names)
        result.emplace_back(name.begin(), name.end());
    return result;
}

struct NoHandle : ConnectionInterface {
    std::unique_ptr<ConnectionInterface> clone() const override {
        return std::make_unique<NoHandle>();
    }
    void disconnect() override {}
};

// A host that raises events when told and answers every fetch at once, on the fetching thread.
struct Rig {
    std::shared_ptr<connector::message_service::LocalMessageService> service =
        std::make_shared<connector::message_service::LocalMessageService>();
    WSListenersSubscriptionCallback raise;
    std::shared_ptr<WSDataModel> model;
    std::unique_ptr<PageWaiter> pages;
    std::unique_ptr<WSViewModel> vm;

    explicit Rig(const Names& names) {
        model = std::make_shared<WSDataModel>(
            [this](WSListenersSubscriptionCallback listener) {
                raise = std::move(listener);
                return Connection(std::make_unique<NoHandle>());
            },
            [](const Names& fetched, Names, bool, double,
               const WorkspaceDisplayResultCallback& onResult) {
                onResult(wsb_bench::filledRecords(fetched));
            },
            [] {});
        raise({EventInfo{EventType::VARIABLE_CHANGED, names}});
        pages = std::make_unique<PageWaiter>(*service, "/Bench/Grid_who");
        vm = page("/Bench/Grid");
    }
    // A view model for one more page, as a host makes when a page connects.
    std::unique_ptr<WSViewModel> page(const std::string& channel) const {
        const Names keys = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                            "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};
        return std::make_unique<WSViewModel>(
            service, channel, model, u16({"Name", "Value", "Size", "Class"}), u16(keys),
            std::vector<double>(keys.size(), 80.0), false, 0.0, nullptr, nullptr, nullptr, nullptr);
    }
    ~Rig() {
        vm->onPreShutdown();
        vm.reset();
    }
};

std::string getData(int startRow, int endRow) {
    return "{\"eventType\":11,\"startRow\":" + std::to_string(startRow) +
           ",\"endRow\":" + std::to_string(endRow) + ",\"startColumn\":0,\"endColumn\":3}";
}

void reportLatencies(benchmark::State& state, std::vector<double> seconds) {
    if (seconds.empty())
        return;
    std::sort(seconds.begin(), seconds.end());
    state.counters["median_us"] = seconds[seconds.size() / 2] * 1e6;
    state.counters["p90_us"] = seconds[seconds.size() * 9 / 10] * 1e6;
    state.counters["max_us"] = seconds.back() * 1e6;
}

// One get-data request for 50 clean rows in the middle of a 1,000,000-variable workspace.
void BM_GetDataCleanPage(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    Rig rig(makeNames(count, 0, 1));
    const int first = static_cast<int>(count / 2);
    const std::string request = getData(first, first + 49);
    // The first request fetches the rows from the host; from then on they are clean.
    std::size_t before = rig.pages->pages();
    rig.service->publishFromClient("/Bench/Grid_who", request);
    rig.pages->waitBeyond(before + 1);

    std::vector<double> latencies;
    for (auto _ : state) {
        before = rig.pages->pages();
        const auto start = Clock::now();
        rig.service->publishFromClient("/Bench/Grid_who", request);
        rig.pages->waitBeyond(before);
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        state.SetIterationTime(elapsed.count());
        latencies.push_back(elapsed.count());
    }
    reportLatencies(state, std::move(latencies));
}
BENCHMARK(BM_GetDataCleanPage)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(2.0);

// One changed-variables batch bringing 100,000 new names into a 100,000-variable workspace,
// until the new size and the visible page are published. The new names fall between the old
// ones, as they would in a real workspace.
void BM_ChangedBatchAddsNames(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const Names existing = makeNames(count, 0, 2);
    const Names added = makeNames(count, 1, 2);
    std::vector<double> latencies;
    for (auto _ : state) {
        state.PauseTiming();
        auto rig = std::make_unique<Rig>(existing);
        rig->pages->expect("\"fullEndRow\":" + std::to_string(2 * count - 1) + ",");
        const std::size_t before = rig->pages->pages();
        state.ResumeTiming();

        const auto start = Clock::now();
        rig->raise({EventInfo{EventType::VARIABLE_CHANGED, added}});
        rig->pages->waitBeyond(before);
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        state.SetIterationTime(elapsed.count());
        latencies.push_back(elapsed.count());

        state.PauseTiming();
        rig.reset();
        state.ResumeTiming();
    }
    reportLatencies(state, std::move(latencies));
}
BENCHMARK(BM_ChangedBatchAddsNames)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(8);

// A page connecting to a 1,000,000-variable workspace: its view model takes the names from the
// data model and sorts them before it can answer the page's first size request.
void BM_NewPageOnLargeWorkspace(benchmark::State& state) {
    const Rig rig(makeNames(static_cast<std::size_t>(state.range(0)), 0, 1));
    for (auto _ : state) {
        auto vm = rig.page("/Bench/Page");
        state.PauseTiming();
        vm->onPreShutdown();
        vm.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_NewPageOnLargeWorkspace)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace
