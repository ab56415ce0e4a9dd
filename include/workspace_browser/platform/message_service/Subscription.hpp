#pragma once

#include <workspace_browser/Export.hpp>

#include <functional>

namespace connector::message_service {

// A handle on one subscription; held by shared pointer, and releasing the last reference ends
// the subscription. Not copyable; destroying it is as thread-safe as its release action.
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
