#pragma once

#include <functional>
#include <memory>
#include <string>

namespace wsbrowser {

// Hands the interpreter's answers (fetched records, change batches, console output) to their
// receivers on a thread of its own, in the order they were posted, so that what the receivers
// do with them (building and publishing pages, sorting every record) never holds the
// interpreter, and with it the user's console, up.
// Thread-safe: post() and stop() may be called from any thread, the delivery thread included.
class DeliveryThread {
public:
    explicit DeliveryThread(std::string name);
    // Stops first when that was not done.
    ~DeliveryThread();
    DeliveryThread(const DeliveryThread&) = delete;
    DeliveryThread& operator=(const DeliveryThread&) = delete;

    // Queues `delivery` behind everything posted before it; dropped once stopping began.
    void post(std::function<void()> delivery);
    // Runs what was posted so far, refuses the rest and joins the thread. Called from the
    // delivery thread itself, it lets the thread end after the running delivery instead.
    void stop();

private:
    struct State;
    std::shared_ptr<State> mState;
};

} // namespace wsbrowser
