#pragma once

#include <workspace_browser/Export.hpp>

#include <boost/function.hpp>
#include <boost/thread/future.hpp>

#include <memory>
#include <string>

namespace threadutil {

// Runs work items one at a time, strictly in push order, on one dedicated background thread
// that starts with the first push. Owners hold it by shared pointer and must call terminate(),
// from a thread other than the queue's own worker, before they let go of it. A queue must never
// be released from, or after being terminated by, its own worker: that ends the process.
// Thread-safe: push() and terminate() may be called from any thread, the queue's own worker
// included.
class WSB_EXPORT OrderedWorkQueue {
public:
    // A queue with no thread yet. The worker thread is named `name`, or "OrderedWorkQ" when
    // `name` is empty.
    static std::shared_ptr<OrderedWorkQueue> create(const std::string& name);

    // Ends the process if the worker thread is still joinable, i.e. the queue was never
    // terminated, or was terminated by its own worker (which cannot join itself): a worker
    // must never be left behind by a freed queue.
    virtual ~OrderedWorkQueue();
    OrderedWorkQueue(const OrderedWorkQueue&) = delete;
    OrderedWorkQueue& operator=(const OrderedWorkQueue&) = delete;

    // Queues `work` behind everything pushed before it and returns the future of its run:
    // ready when it has run, holding what it threw, or a broken promise when it was dropped.
    // Throws std::logic_error "work must be executable" for an empty function and
    // std::runtime_error "OrderedWorkQueue already terminated" once terminate() has begun.
    virtual boost::unique_future<void> push(const boost::function<void()>& work) = 0;

    // Refuses further pushes and stops the worker: with waitForPending, after everything
    // already queued has run; without it, after the item running now (the rest is dropped).
    // Joins the worker unless called from it; called from it, it returns without joining, and
    // releasing the queue afterwards ends the process. Allowed once; a second call throws
    // std::runtime_error "OrderedWorkQueue already being terminated".
    virtual void terminate(bool waitForPending) = 0;

protected:
    OrderedWorkQueue() = default;
};

} // namespace threadutil
