#pragma once

#include <workspace_browser/Export.hpp>

#include <cstdint>
#include <string_view>

namespace workspace_browser_startup {

// Reads the number a grid cell shows (a size such as "3×4", a statistic such as "5.5000",
// "NaN", "Inf") as a signed 32-bit integer, so that numeric columns sort by value: sizes by
// their element count, statistics by their integer part. Thread-safe: static functions only.
class WSB_EXPORT DisplayedNumber {
public:
    // U+00D7 MULTIPLICATION SIGN in UTF-8, between the dimensions of a size ("3×4").
    static constexpr std::string_view kTimes = "\xC3\x97";

    enum class Status { ok, invalidArgument, outOfRange };

    struct Result {
        Status status = Status::ok;
        std::int32_t value = 0; // meaningful only when status is ok
    };

    // Never throws and never allocates; meant for use inside sort comparisons.
    static Result parse(std::string_view text) noexcept;

    // As parse, but a text that cannot be read throws std::invalid_argument or
    // std::out_of_range, as the standard decimal conversion does.
    static std::int32_t toInt(std::string_view text);
};

} // namespace workspace_browser_startup
