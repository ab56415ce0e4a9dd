// Parsing client messages and serialising data pages, side by side with two widely used JSON
// libraries as yardsticks: RapidJSON's DOM parser and writer, and nlohmann::json.

#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

using workspace_browser_startup::JsonTypedValues;
namespace json = foundation::json;

// Typical traffic from the grid client, 100 to 600 bytes each.
const std::vector<std::string>& clientMessages() {
    static const std::vector<std::string> messages = [] {
        std::vector<std::string> m;
        m.push_back(R"({"eventType":11,"startRow":0,"endRow":49,"startColumn":0,"endColumn":12,)"
                    R"("fullStartRow":0,"fullEndRow":49,"fullStartColumn":0,"fullEndColumn":12,)"
                    R"("source":"client"})");
        m.push_back(R"({"eventType":10,"startRow":120,"endRow":168,"startColumn":0,"endColumn":8,)"
                    R"("source":"client","requestId":"viewport-000417"})");
        m.push_back(R"({"eventType":12,"row":5,"column":2,"startRow":5,"endRow":5,)"
                    R"("data":"[1 2 3; 4 5 6] * magic(3) + \"offset\"\t% edited value",)"
                    R"("source":"client","requestId":"edit-000012"})");
        m.push_back(R"({"eventType":24,"column":3,"ascending":false,"source":"client",)"
                    R"("startRow":0,"endRow":0,"startColumn":0,"endColumn":0})");
        m.push_back(R"({"type":"propertySet","propertyName":"Selection","propertyValue":)"
                    R"({"selectedRows":"[{\"start\":2,\"end\":4},{\"start\":10,\"end\":15},)"
                    R"({\"start\":40,\"end\":40}]","anchorRow":2,"leadRow":40}})");
        m.push_back(R"({"type":"propertySet","propertyName":"ColumnModelProperty","propertyValue":)"
                    R"({"property":"ColumnWidth","column":3,"value":120.5}})");
        m.push_back(R"({"type":"refresh","count":12,"immediateUpdate":true,"variables":)"
                    R"(["alpha","beta","gammaMatrix","deltaTable","x","y","resultStruct",)"
                    R"("temporaryArray","sensorReadings2024","calibrationOffsets","ans",)"
                    R"("modelParameters"]})");
        m.push_back(
            R"({"type":"doubleClickedOnMetaData","data":{"variableName":"sensorReadings2024"}})");
        m.push_back(R"({"eventType":11,"source":"client","startColumn":0,"endColumn":12,)"
                    R"("rows":{"vxtype":"int64","vxdata":[0,1,2,3,1024,65536,4294967296,)"
                    R"(9007199254740993,-9007199254740993,123456789012345678,-1,-2,-3,)"
                    R"(9223372036854775807,-9223372036854775808,42]},"fullStartRow":0})");
        m.push_back(R"({"eventType":11,"source":"client","rows":{"vxdata":[0,1,2,3,4,5,6,7,8,)"
                    R"(9,10,11,12,13,14,15],"vxtype":"uint64"},"startColumn":2,"endColumn":9,)"
                    R"("meta":{"client":"grid","version":"2.4.1","locale":"en_US","dpi":1.25}})");
        return m;
    }();
    return messages;
}

std::int64_t totalBytes(const std::vector<std::string>& texts) {
    std::int64_t n = 0;
    for (const auto& t : texts)
        n += static_cast<std::int64_t>(t.size());
    return n;
}

// One message of about 1 MB: a typed int64 array of large values.
const std::string& largeTypedMessage() {
    static const std::string text = [] {
        std::string t = R"({"eventType":11,"vxtype":"int64","vxdata":[)";
        std::uint64_t x = 88172645463325252ULL;
        bool first = true;
        while (t.size() < (1u << 20)) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            if (!first)
                t += ',';
            first = false;
            t += std::to_string(static_cast<std::int64_t>(x) >> (x % 40));
        }
        t += "]}";
        return t;
    }();
    return text;
}

void checkOurs(int code) {
    if (code != 0) {
        std::cerr << "parse failed with code " << code << '\n';
        std::abort();
    }
}

void BM_Parse_Messages_Ours(benchmark::State& state) {
    const auto& messages = clientMessages();
    for (auto _ : state) {
        for (const auto& m : messages) {
            json::Object object;
            checkOurs(JsonTypedValues::parseObject(m.data(), m.data() + m.size(), object));
            benchmark::DoNotOptimize(object);
        }
    }
    state.SetBytesProcessed(state.iterations() * totalBytes(messages));
}

void BM_Parse_Messages_RapidJSON(benchmark::State& state) {
    const auto& messages = clientMessages();
    for (auto _ : state) {
        for (const auto& m : messages) {
            rapidjson::Document document;
            document.Parse(m.data(), m.size());
            if (document.HasParseError())
                std::abort();
            benchmark::DoNotOptimize(document);
        }
    }
    state.SetBytesProcessed(state.iterations() * totalBytes(messages));
}

void BM_Parse_Messages_Nlohmann(benchmark::State& state) {
    const auto& messages = clientMessages();
    for (auto _ : state) {
        for (const auto& m : messages) {
            auto document = nlohmann::json::parse(m);
            benchmark::DoNotOptimize(document);
        }
    }
    state.SetBytesProcessed(state.iterations() * totalBytes(messages));
}

void BM_Parse_LargeTyped_Ours(benchmark::State& state) {
    const auto& m = largeTypedMessage();
    for (auto _ : state) {
        json::Object object;
        checkOurs(JsonTypedValues::parseObject(m.data(), m.data() + m.size(), object));
        benchmark::DoNotOptimize(object);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(m.size()));
}

void BM_Parse_LargeTyped_RapidJSON(benchmark::State& state) {
    const auto& m = largeTypedMessage();
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(m.data(), m.size());
        if (document.HasParseError())
            std::abort();
        benchmark::DoNotOptimize(document);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(m.size()));
}

void BM_Parse_LargeTyped_Nlohmann(benchmark::State& state) {
    const auto& m = largeTypedMessage();
    for (auto _ : state) {
        auto document = nlohmann::json::parse(m);
        benchmark::DoNotOptimize(document);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(m.size()));
}

// A page of 100 rows as the paging channel sends it: each row an array of 13 cells, each cell
// the JSON text of the cell's record, carried as a string (so its quotes need escaping).
std::vector<std::vector<std::string>> pageCells() {
    static const char* const columns[] = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                                          "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};
    std::vector<std::vector<std::string>> rows;
    for (int r = 0; r < 100; ++r) {
        std::vector<std::string> row;
        for (const char* column : columns) {
            const std::string value = std::string(column) == "Name"
                                          ? "variable_" + std::to_string(r)
                                          : std::to_string(r * 13 + 7) + ".25";
            row.push_back(R"({"class":"double","editable":)" +
                          std::string(std::string(column) == "Value" ? "true" : "false") +
                          R"(,"editorValue":")" + value + R"(","isMetaData":false,"value":")" +
                          value + R"("})");
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::int64_t pageTextSize() {
    static const std::int64_t size = [] {
        json::Array page;
        for (const auto& row : pageCells()) {
            json::Array cells(row.begin(), row.end());
            page.emplace_back(std::move(cells));
        }
        return static_cast<std::int64_t>(json::serialize(json::Value(std::move(page))).size());
    }();
    return size;
}

void BM_Serialize_Page_Ours(benchmark::State& state) {
    json::Array page;
    for (const auto& row : pageCells()) {
        json::Array cells;
        for (const auto& cell : row)
            cells.emplace_back(cell);
        page.emplace_back(std::move(cells));
    }
    const json::Value value(std::move(page));
    for (auto _ : state) {
        std::string text = json::serialize(value);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * pageTextSize());
}

void BM_Serialize_Page_RapidJSON(benchmark::State& state) {
    rapidjson::Document document;
    auto& allocator = document.GetAllocator();
    document.SetArray();
    for (const auto& row : pageCells()) {
        rapidjson::Value cells(rapidjson::kArrayType);
        for (const auto& cell : row)
            cells.PushBack(rapidjson::Value(cell.data(),
                                            static_cast<rapidjson::SizeType>(cell.size()),
                                            allocator),
                           allocator);
        document.PushBack(std::move(cells), allocator);
    }
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        document.Accept(writer);
        std::string text(buffer.GetString(), buffer.GetSize());
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * pageTextSize());
}

void BM_Serialize_Page_Nlohmann(benchmark::State& state) {
    nlohmann::json page = nlohmann::json::array();
    for (const auto& row : pageCells())
        page.push_back(row);
    for (auto _ : state) {
        std::string text = page.dump();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * pageTextSize());
}

BENCHMARK(BM_Parse_Messages_Ours);
BENCHMARK(BM_Parse_Messages_RapidJSON);
BENCHMARK(BM_Parse_Messages_Nlohmann);
BENCHMARK(BM_Parse_LargeTyped_Ours);
BENCHMARK(BM_Parse_LargeTyped_RapidJSON);
BENCHMARK(BM_Parse_LargeTyped_Nlohmann);
BENCHMARK(BM_Serialize_Page_Ours);
BENCHMARK(BM_Serialize_Page_RapidJSON);
BENCHMARK(BM_Serialize_Page_Nlohmann);

} // namespace
