#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace connector::message_service::websocket {

// A serial queue with its own thread: tasks run one at a time, in the order they were posted, so
// a slow subscriber delays other deliveries but never the network.
// Thread-safe: any thread may post; stop may be called from any thread, including a task.
class DeliveryQueue {
public:
    explicit DeliveryQueue(std::string threadName);
    ~DeliveryQueue();
    DeliveryQueue(const DeliveryQueue&) = delete;
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

    // Queues a task; returns false (and drops it) once stop has begun.
    bool post(std::function<void()> task);
    // Runs what is queued, then ends the thread. Called from one of the queue's own tasks it
    // cannot wait for itself: the remaining tasks are dropped and the thread ends after the
    // current one. Idempotent.
    void stop();

private:
    struct State {
        std::mutex mutex;
        std::condition_variable wake;
        std::deque<std::function<void()>> tasks;
        bool stopping = false;
        bool abandoned = false;
    };
    static void run(const std::shared_ptr<State>& state, const std::string& threadName);

    std::shared_ptr<State> mState;
    std::thread mThread;
};

} // namespace connector::message_service::websocket
