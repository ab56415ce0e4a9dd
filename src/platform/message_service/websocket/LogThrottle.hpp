#pragma once

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace connector::message_service::websocket {

// Writes a repeated log line at most once per interval: the first line of a text goes out at
// once, repeats within the interval are only counted, and the next line written after it says
// how many were held back. A client that retries a refused request in a loop, or a listener that
// keeps failing to accept, then costs one line per interval instead of one per attempt.
// Not thread-safe: used on the I/O thread only.
class LogThrottle {
public:
    using Clock = std::chrono::steady_clock;

    LogThrottle(const foundation::log::basic_diagnostic_logger& logger, int level,
                Clock::duration interval);

    // Writes `text`, unless the same text was written less than the interval ago.
    void write(const std::string& text);

private:
    struct Seen {
        Clock::time_point written;
        std::uint64_t heldBack = 0;
    };

    const foundation::log::basic_diagnostic_logger& mLogger;
    const int mLevel;
    const Clock::duration mInterval;
    std::map<std::string, Seen, std::less<>> mSeen;
};

} // namespace connector::message_service::websocket
