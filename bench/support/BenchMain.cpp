// Benchmark entry point. A sink that keeps nothing stands in for a host that logs only
// warnings: without any sink Boost.Log prints every record, and the timings would measure the
// console.
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    auto quiet = foundation::log::addConsoleSink(0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
