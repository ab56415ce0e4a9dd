// Serializing one page of grid rows (100 rows of 13 text columns) with this library's
// serializer and, side by side, with RapidJSON's Writer over an equivalent document.
#include <workspace_browser/platform/json/Serialize.hpp>

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using foundation::json::Array;
using foundation::json::Object;
using foundation::json::Value;

const std::vector<std::string> kColumns = {"Name", "Value", "Size", "Class",  "Min",
                                           "Max",  "Range", "Mean", "Median", "Mode",
                                           "Var",  "Std",   "Bytes"};

std::string cellText(int row, std::size_t column) {
    switch (column) {
    case 0:
        return "variable_" + std::to_string(row);
    case 1:
        return "[" + std::to_string(row) + " 2.5 \"quoted\"]";
    case 2:
        return "1x" + std::to_string(row + 1);
    case 3:
        return "double";
    default:
        return std::to_string(row * 0.25 + static_cast<double>(column));
    }
}

Value makePage() {
    Array rows;
    rows.reserve(100);
    for (int row = 0; row < 100; ++row) {
        Object cells;
        for (std::size_t c = 0; c < kColumns.size(); ++c)
            cells.emplace(kColumns[c], cellText(row, c));
        rows.emplace_back(std::move(cells));
    }
    Object page;
    page.emplace("eventType", 2);
    page.emplace("startRow", 0);
    page.emplace("rows", std::move(rows));
    return Value(std::move(page));
}

rapidjson::Document makeRapidPage() {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value rows(rapidjson::kArrayType);
    for (int row = 0; row < 100; ++row) {
        rapidjson::Value cells(rapidjson::kObjectType);
        // Sorted keys, as the map-based value writes them.
        std::vector<std::size_t> order(kColumns.size());
        for (std::size_t c = 0; c < order.size(); ++c)
            order[c] = c;
        std::sort(order.begin(), order.end(),
                  [](std::size_t a, std::size_t b) { return kColumns[a] < kColumns[b]; });
        for (std::size_t c : order) {
            const std::string text = cellText(row, c);
            cells.AddMember(rapidjson::Value(kColumns[c].c_str(), alloc),
                            rapidjson::Value(text.c_str(), alloc), alloc);
        }
        rows.PushBack(cells, alloc);
    }
    doc.AddMember("eventType", 2, alloc);
    doc.AddMember("rows", rows, alloc);
    doc.AddMember("startRow", 0, alloc);
    return doc;
}

void BM_SerializeValue(benchmark::State& state) {
    const Value page = makePage();
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string text = foundation::json::serialize(page);
        bytes = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes * state.iterations()));
}
BENCHMARK(BM_SerializeValue);

void BM_SerializeValueReusedBuffer(benchmark::State& state) {
    const Value page = makePage();
    std::string text;
    for (auto _ : state) {
        text.clear();
        foundation::json::serialize(page, text);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(text.size() * state.iterations()));
}
BENCHMARK(BM_SerializeValueReusedBuffer);

void BM_RapidJsonWriter(benchmark::State& state) {
    const rapidjson::Document page = makeRapidPage();
    std::size_t bytes = 0;
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        page.Accept(writer);
        std::string text(buffer.GetString(), buffer.GetSize());
        bytes = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes * state.iterations()));
}
BENCHMARK(BM_RapidJsonWriter);

} // namespace
