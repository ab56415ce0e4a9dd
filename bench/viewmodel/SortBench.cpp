// Sorting the grid's rows: names by the text order against the plain byte order of
// std::less<std::string> on the same names, and variable records by a numeric column.
#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>
#include <workspace_browser/viewmodel/WSVariableAlphabeticalSortComparator.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace workspace_browser_startup;

namespace {

constexpr std::size_t kNameCount = 1'000'000;
constexpr std::size_t kRecordCount = 100'000;

// Names as people write them: words in lower, Capitalised or UPPER case, joined by camel case
// or underscores, often with a number; lengths from one to about thirty bytes.
std::vector<std::string> makeNames(std::size_t count) {
    static const char* const words[] = {
        "data",   "x",     "y",      "z",     "result", "temp",   "signal", "matrix", "idx",
        "count",  "value", "train",  "test",  "img",    "a",      "b",      "k",      "n",
        "filter", "raw",   "out",    "in",    "sensor", "model",  "params", "opts",   "t",
        "time",   "freq",  "coeffs", "error", "mean",   "weight", "label",  "input",  "buffer"};
    constexpr std::size_t wordCount = sizeof words / sizeof words[0];
    std::mt19937_64 rng(2024);
    std::vector<std::string> names;
    names.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        std::string name;
        const std::size_t parts = 1 + rng() % 3;
        for (std::size_t p = 0; p < parts; ++p) {
            std::string word = words[rng() % wordCount];
            const auto style = rng() % 8;
            if (style < 3 || (p > 0 && style < 6)) {
                word[0] = static_cast<char>(word[0] - 'a' + 'A');
            } else if (style == 6) {
                for (char& c : word) {
                    c = static_cast<char>(c - 'a' + 'A');
                }
            }
            if (p > 0 && rng() % 2 == 0) {
                name += '_';
            }
            name += word;
        }
        if (rng() % 4 != 0) {
            name += (rng() % 3 == 0 ? "_" : "") + std::to_string(rng() % 100000);
        }
        names.push_back(std::move(name));
    }
    return names;
}

const std::vector<std::string>& names() {
    static const std::vector<std::string> all = makeNames(kNameCount);
    return all;
}

std::vector<WSVariable> makeRecords(std::size_t count) {
    static const char* const specials[] = {"NaN", "Inf", "-Inf", ""};
    std::mt19937_64 rng(77);
    std::vector<WSVariable> records;
    records.reserve(count);
    char buffer[64];
    for (std::size_t i = 0; i < count; ++i) {
        WSVariable r;
        r.name = "var" + std::to_string(i);
        r.className = "double";
        const auto rows = 1 + rng() % 2000;
        const auto cols = 1 + rng() % 50;
        r.size = rng() % 5 == 0 ? std::to_string(rows) + "×" + std::to_string(cols) + "×" +
                                      std::to_string(1 + rng() % 4)
                                : std::to_string(rows) + "×" + std::to_string(cols);
        if (rng() % 20 == 0) {
            r.mean = specials[rng() % 4];
        } else {
            std::snprintf(buffer, sizeof buffer, "%.4f",
                          std::uniform_real_distribution<double>(-1e6, 1e6)(rng));
            r.mean = buffer;
        }
        records.push_back(std::move(r));
    }
    return records;
}

const std::vector<WSVariable>& records() {
    static const std::vector<WSVariable> all = makeRecords(kRecordCount);
    return all;
}

template <class Less> void sortNames(benchmark::State& state, Less less) {
    const auto& source = names();
    for (auto _ : state) {
        state.PauseTiming();
        auto copy = source;
        state.ResumeTiming();
        std::sort(copy.begin(), copy.end(), less);
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * source.size()));
}

void BM_SortNames_StdLess(benchmark::State& state) {
    sortNames(state, std::less<std::string>());
}
void BM_SortNames_TextAlphabetical(benchmark::State& state) {
    sortNames(state, TextAlphabeticalSortComparator{true});
}
void BM_SortNames_TextAlphabeticalDescending(benchmark::State& state) {
    sortNames(state, TextAlphabeticalSortComparator{false});
}

void sortRecords(benchmark::State& state, const char* column) {
    const auto& source = records();
    const WSVariableAlphabeticalSortComparator less{true, column};
    for (auto _ : state) {
        state.PauseTiming();
        auto copy = source;
        state.ResumeTiming();
        std::sort(copy.begin(), copy.end(), less);
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * source.size()));
}

void BM_SortRecords_Size(benchmark::State& state) {
    sortRecords(state, "Size");
}
void BM_SortRecords_Mean(benchmark::State& state) {
    sortRecords(state, "Mean");
}
void BM_SortRecords_Class(benchmark::State& state) {
    sortRecords(state, "Class"); // all equal: the cost of moving records around
}

BENCHMARK(BM_SortNames_StdLess)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_SortNames_TextAlphabetical)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_SortNames_TextAlphabeticalDescending)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_SortRecords_Size)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_SortRecords_Mean)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_SortRecords_Class)->Unit(benchmark::kMillisecond)->Iterations(10);

// Prints as usual and remembers each run's CPU time (steadier than wall time on a shared machine),
// so the name sorts can be put side by side.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            times[run.benchmark_name()] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    const auto find = [&](const char* prefix) {
        for (const auto& [name, time] : reporter.times) {
            if (name.rfind(prefix, 0) == 0) {
                return time;
            }
        }
        return 0.0;
    };
    const double reference = find("BM_SortNames_StdLess");
    const double text = find("BM_SortNames_TextAlphabetical/");
    if (reference > 0 && text > 0) {
        std::printf("TextAlphabeticalSortComparator / std::less<std::string> (CPU time): %.2fx "
                    "(goal <= 1.5x)\n",
                    text / reference);
    }
    return 0;
}
