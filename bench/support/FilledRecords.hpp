#pragma once

#include <workspace_browser/datamodel/WSVariable.hpp>

#include <string>
#include <vector>

namespace wsb_bench {

// Records whose texts look like a numeric row vector's, as a host would describe them: what the
// benchmarks' hosts answer every fetch with.
inline std::vector<workspace_browser_startup::WSVariable>
filledRecords(const std::vector<std::string>& names) {
    std::vector<workspace_browser_startup::WSVariable> records;
    records.reserve(names.size());
    for (const auto& name : names) {
        records.push_back({.name = name,
                           .size = "1\xC3\x97"
                                   "10",
                           .className = "double",
                           .value = "[1,2,3,4,5,6,7,8,9,10]",
                           .iconClass = "double",
                           .min = "1",
                           .max = "10",
                           .range = "9",
                           .mean = "5.5000",
                           .median = "5.5000",
                           .mode = "1",
                           .std = "3.0277",
                           .var = "9.1667",
                           .bytes = "80"});
    }
    return records;
}

} // namespace wsb_bench
