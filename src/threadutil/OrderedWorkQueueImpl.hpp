#pragma once

#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>

#include <boost/function.hpp>
#include <boost/thread/once.hpp>
#include <boost/thread/thread.hpp>
#include <oneapi/tbb/concurrent_queue.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace threadutil::detail {

// The queue behind OrderedWorkQueue: a oneTBB queue of work items drained by one boost::thread
// that is started lazily by the first push and holds a strong reference to the queue until it
// is joined. Thread-safe: push() and terminate() may be called from any thread.
class OrderedWorkQueueImpl final : public OrderedWorkQueue {
    struct Token {}; // keeps construction to create(), which also sets the self-reference

public:
    static std::shared_ptr<OrderedWorkQueueImpl> create(const std::string& name);

    OrderedWorkQueueImpl(Token, const std::string& name);
    ~OrderedWorkQueueImpl() override;

    boost::unique_future<void> push(const boost::function<void()>& work) override;
    void terminate(bool waitForPending) override;

private:
    using Function = boost::function<void()>;
    // Queue pages come from the ordinary heap rather than oneTBB's default allocator, which
    // hands freed pages from the worker back to pushers inside libtbbmalloc where
    // ThreadSanitizer cannot see the ordering; one page serves many items, so the cost is small.
    using Queue = tbb::concurrent_bounded_queue<Function, std::allocator<Function>>;

    void enqueue(Function item);
    void startThread();
    void run();

    // The call of the stop marker that terminate() queues.
    static void raiseStopWorker(void* queue);

    std::weak_ptr<OrderedWorkQueueImpl> mSelf;
    std::atomic<bool> mTerminating{false};
    std::atomic<bool> mStopWorker{false};
    std::atomic<std::int32_t> mPushesInFlight{0};
    Queue mQueue;
    boost::thread mWorker;
    boost::once_flag mStartOnce = BOOST_ONCE_INIT;
    std::string mName;
};

} // namespace threadutil::detail
