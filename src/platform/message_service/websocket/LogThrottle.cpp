#include "platform/message_service/websocket/LogThrottle.hpp"

#include <iterator>

namespace connector::message_service::websocket {

namespace {

// The texts are a handful of fixed refusals and error messages; the bound only keeps a caller
// that puts changing details into them from growing the table.
constexpr std::size_t kMaxTexts = 64;

} // namespace

LogThrottle::LogThrottle(const foundation::log::basic_diagnostic_logger& logger, int level,
                         Clock::duration interval)
    : mLogger(logger), mLevel(level), mInterval(interval) {}

void LogThrottle::write(const std::string& text) {
    const auto now = Clock::now();
    auto found = mSeen.find(text);
    if (found != mSeen.end() && now - found->second.written < mInterval) {
        ++found->second.heldBack;
        return;
    }
    std::uint64_t heldBack = 0;
    if (found != mSeen.end()) {
        heldBack = found->second.heldBack;
        found->second = {now, 0};
    } else {
        if (mSeen.size() >= kMaxTexts) {
            // Texts quiet for a whole interval would be written at once anyway: forget them.
            for (auto it = mSeen.begin(); it != mSeen.end();)
                it = now - it->second.written >= mInterval ? mSeen.erase(it) : std::next(it);
        }
        if (mSeen.size() < kMaxTexts)
            mSeen.emplace(text, Seen{now, 0});
    }
    if (heldBack == 0) {
        WSB_LOG(mLogger, mLevel) << text;
    } else {
        WSB_LOG(mLogger, mLevel) << text << " (" << heldBack
                                 << " more times since the last such line)";
    }
}

} // namespace connector::message_service::websocket
