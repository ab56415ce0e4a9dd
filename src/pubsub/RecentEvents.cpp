#include "RecentEvents.hpp"

#include <utility>

namespace workspace_browser_startup::detail {

namespace {

std::size_t textBytesOf(const DSEvent& event) {
    std::size_t bytes = 0;
    for (const auto& value : event.data)
        if (value.is<std::string>())
            bytes += value.get<std::string>().size();
    return bytes;
}

} // namespace

void RecentEvents::keep(std::shared_ptr<DSEvent> event) {
    const std::size_t bytes = textBytesOf(*event);
    // Released outside the lock: freeing a large edit text need not hold up another delivery.
    std::deque<Kept> dropped;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mKept.push_back({std::move(event), bytes});
        mTextBytes += bytes;
        // The newest event always stays, however large its text.
        while (mKept.size() > kMaxEvents || (mTextBytes > kMaxTextBytes && mKept.size() > 1)) {
            mTextBytes -= mKept.front().textBytes;
            dropped.push_back(std::move(mKept.front()));
            mKept.pop_front();
        }
    }
}

std::size_t RecentEvents::size() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mKept.size();
}

} // namespace workspace_browser_startup::detail
