#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace connector::message_service::websocket {

// A serial queue with its own thread: tasks run one at a time, so a slow subscriber delays other
// deliveries but never the network. Each task belongs to a lane (a page): a lane's tasks run in
// the order they were posted, and lanes with work take turns, one task each, so a page that
// sends a flood of messages delays another page's next message by at most one of its own.
// Thread-safe: any thread may post; stop may be called from any thread, including a task.
class DeliveryQueue {
public:
    explicit DeliveryQueue(std::string threadName);
    ~DeliveryQueue();
    DeliveryQueue(const DeliveryQueue&) = delete;
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

    // Queues a task at the end of `lane`; returns false (and drops it) once stop has begun.
    bool post(const std::string& lane, std::function<void()> task);
    // Runs what is queued, then ends the thread. Called from one of the queue's own tasks it
    // cannot wait for itself: the remaining tasks are dropped and the thread ends after the
    // current one. Idempotent.
    void stop();

private:
    struct State {
        std::mutex mutex;
        std::condition_variable wake;
        std::map<std::string, std::deque<std::function<void()>>> lanes; // only lanes with work
        std::deque<std::string> turns; // each lane with work once, the next to run first
        std::size_t pending = 0;       // tasks in all lanes
        bool stopping = false;
        bool abandoned = false;
    };
    static void run(const std::shared_ptr<State>& state, const std::string& threadName);

    std::shared_ptr<State> mState;
    std::thread mThread;
};

} // namespace connector::message_service::websocket
