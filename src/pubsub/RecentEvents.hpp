#pragma once

#include <workspace_browser/pubsub/DSEvent.hpp>

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

namespace workspace_browser_startup::detail {

// Keeps the paging endpoint's most recent decoded requests alive for a while after their
// dispatch, so an observer that keeps a plain reference to the event it was handed (while its
// work waits in a queue, say) can still read it; an observer that must keep one for longer
// shares it instead. Bounded by count and by the bytes of edit texts, so a page that sends
// requests for as long as it is open holds no more memory after a million than after a
// thousand. Thread-safe.
class RecentEvents {
public:
    static constexpr std::size_t kMaxEvents = 256;
    static constexpr std::size_t kMaxTextBytes = std::size_t{8} << 20;

    void keep(std::shared_ptr<DSEvent> event);
    std::size_t size() const;

private:
    struct Kept {
        std::shared_ptr<DSEvent> event;
        std::size_t textBytes;
    };
    mutable std::mutex mMutex;
    std::deque<Kept> mKept;     // oldest first
    std::size_t mTextBytes = 0; // the sum of mKept's textBytes
};

} // namespace workspace_browser_startup::detail
