#pragma once

#include <workspace_browser/Export.hpp>

#include <functional>

namespace connector::message_service {

// A handle on one subscription; held by shared pointer, and releasing the last reference ends
// the subscription. With both services, the release waits for calls of the callback in progress
// on other threads, so what the callback touches may be destroyed right after; never release it
// while holding a lock the callback takes. Not copyable; destroying it is as thread-safe as its
// release action.
class WSB_EXPORT Subscription {
public:
    explicit Subscription(std::function<void()> onRelease = {});
    // Runs the release action once, if there is one. An exception from it is logged and
    // swallowed: a destructor has nowhere to report it.
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

private:
    std::function<void()> mOnRelease;
};

} // namespace connector::message_service
