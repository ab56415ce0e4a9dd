// The host's side of a grid page through the real interpreter: describing the 50 rows of one
// page of a 100,000-variable workspace, and the change scan that follows every command on
// workspaces of 100,000 and 1,000,000 variables.

#include "PythonInterpreter.hpp"
#include "WorkspaceHost.hpp"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kVariables = 100000;
constexpr int kPageRows = 50;

const std::vector<std::string> kFields = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                                          "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};

std::string nameOf(int i) {
    char name[16];
    std::snprintf(name, sizeof name, "v%06d", i);
    return name;
}

// One interpreter for the whole run (numpy loads once per process); a mixed workspace: small
// arrays, scalars, text and lists. It grows to the size a benchmark asks for.
struct Workspace {
    Workspace()
        : interpreter(std::make_shared<wsbrowser::PythonInterpreter>()),
          host(std::make_shared<wsbrowser::WorkspaceHost>(interpreter,
                                                          wsbrowser::WorkspaceHost::Options{})) {
        host->execute("import numpy as _np\n");
    }
    ~Workspace() {
        host->close();
        interpreter->stop();
    }
    void growTo(int count) {
        if (count <= size)
            return;
        host->execute("for _i in range(" + std::to_string(size) + ", " + std::to_string(count) +
                      "):\n"
                      "    _k = _i % 4\n"
                      "    globals()['v%06d' % _i] = (_np.arange(_i % 50, dtype=float) if _k == 0\n"
                      "        else _i * 0.5 if _k == 1 else 'text %d' % _i if _k == 2\n"
                      "        else [_i, str(_i)])\n");
        size = count;
    }
    std::shared_ptr<wsbrowser::PythonInterpreter> interpreter;
    std::shared_ptr<wsbrowser::WorkspaceHost> host;
    int size = 0;
};

wsbrowser::WorkspaceHost& workspace(int variables) {
    static Workspace instance;
    instance.growTo(variables);
    return *instance.host;
}

void BM_FetchPageOf50Rows(benchmark::State& state) {
    auto& host = workspace(kVariables);
    int start = 0;
    for (auto _ : state) {
        std::vector<std::string> names;
        for (int i = 0; i < kPageRows; ++i)
            names.push_back(nameOf((start + i) % kVariables));
        start = (start + 7919) % kVariables;
        std::promise<std::size_t> done;
        host.displayFunction()(
            names, kFields, true, 100000,
            [&done](const std::vector<workspace_browser_startup::WSVariable>& records) {
                done.set_value(records.size());
            });
        benchmark::DoNotOptimize(done.get_future().get());
    }
    state.SetItemsProcessed(state.iterations() * kPageRows);
}
BENCHMARK(BM_FetchPageOf50Rows)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Every console command is followed by a scan of the whole workspace for changes; the argument
// is the number of variables.
void BM_CommandWithChangeScan(benchmark::State& state) {
    auto& host = workspace(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(host.execute("v000001 = v000001"));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CommandWithChangeScan)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace
