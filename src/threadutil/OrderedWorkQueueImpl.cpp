// The signature form packaged_task<void()> is opt-in at the default Boost.Thread version. Only
// this file makes packaged tasks; the futures handed out are the same type either way.
#define BOOST_THREAD_PROVIDES_SIGNATURE_PACKAGED_TASK

#include "threadutil/OrderedWorkQueueImpl.hpp"

#include <workspace_browser/platform/ThreadName.hpp>

#include <boost/smart_ptr/bad_weak_ptr.hpp>
#include <boost/thread/future.hpp>
#include <boost/throw_exception.hpp>

#include <exception>
#include <stdexcept>
#include <utility>

#if defined(__SANITIZE_THREAD__)
#define WSB_ANNOTATE_HAND_OFF 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WSB_ANNOTATE_HAND_OFF 1
#endif
#endif
#if defined(WSB_ANNOTATE_HAND_OFF)
#include <sanitizer/tsan_interface.h>
#endif

namespace threadutil::detail {

namespace {

const char* const kDefaultName = "OrderedWorkQ";

// What the oneTBB queue holds: a call on an owned object, either the packaged task of a work
// item or, for the stop marker, the queue itself. The owned object's address is the same in
// every copy of the item, so it also names the item for the hand-off annotation below.
struct QueuedCall {
    std::shared_ptr<void> owner;
    void (*call)(void* owner);
    void operator()() const { call(owner.get()); }
};

void runTask(void* task) {
    // The packaged task keeps whatever the work throws for its future.
    (*static_cast<boost::packaged_task<void()>*>(task))();
}

// libtbb is not built with ThreadSanitizer, so the wake-up inside its blocking pop does not
// order the pusher's writes before the worker's reads as far as the sanitizer can see. Say so
// explicitly, per item, instead of hiding the reports it would give.
void releaseHandOff([[maybe_unused]] const boost::function<void()>& item) {
#if defined(WSB_ANNOTATE_HAND_OFF)
    if (const auto* call = item.target<QueuedCall>())
        __tsan_release(call->owner.get());
#endif
}

void acquireHandOff([[maybe_unused]] const boost::function<void()>& item) {
#if defined(WSB_ANNOTATE_HAND_OFF)
    if (const auto* call = item.target<QueuedCall>())
        __tsan_acquire(call->owner.get());
#endif
}

// Counts a push as in flight from just before its check of the terminating flag until it
// leaves, however it leaves.
class InFlight {
public:
    explicit InFlight(std::atomic<std::int32_t>& counter) : mCounter(counter) { ++mCounter; }
    ~InFlight() { --mCounter; }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;

private:
    std::atomic<std::int32_t>& mCounter;
};

} // namespace

std::shared_ptr<OrderedWorkQueueImpl> OrderedWorkQueueImpl::create(const std::string& name) {
    auto queue = std::make_shared<OrderedWorkQueueImpl>(Token{}, name);
    queue->mSelf = queue;
    return queue;
}

OrderedWorkQueueImpl::OrderedWorkQueueImpl(Token, const std::string& name)
    : mName(name.empty() ? kDefaultName : name) {}

OrderedWorkQueueImpl::~OrderedWorkQueueImpl() {
    if (mWorker.joinable())
        std::terminate();
    // Items still queued are destroyed unrun with mQueue; their futures report broken promise.
}

boost::unique_future<void> OrderedWorkQueueImpl::push(const boost::function<void()>& work) {
    if (work.empty())
        throw std::logic_error("work must be executable");

    auto task = std::make_shared<boost::packaged_task<void()>>(work);
    // Taken before queueing so that the pusher never touches the task while the worker may be
    // running or discarding it.
    boost::unique_future<void> future = task->get_future();
    enqueue(QueuedCall{std::move(task), &runTask});
    return future;
}

void OrderedWorkQueueImpl::enqueue(Function item) {
    InFlight inFlight(mPushesInFlight);
    if (mTerminating)
        throw std::runtime_error("OrderedWorkQueue already terminated");

    releaseHandOff(item);
    mQueue.push(std::move(item));

    auto self = mSelf.lock();
    if (!self)
        boost::throw_exception(boost::bad_weak_ptr());
    // If the thread cannot be started, call_once rolls the flag back so that the next push
    // tries again; the item stays queued for that worker.
    boost::call_once(mStartOnce, [this] { startThread(); });
}

void OrderedWorkQueueImpl::startThread() {
    auto self = mSelf.lock();
    if (!self)
        boost::throw_exception(boost::bad_weak_ptr());
    // The thread function owns a strong reference, so the queue outlives its worker loop. It
    // lets go as the loop ends: a queue stopped from another thread has been joined, or is being
    // joined, by a caller that still holds it; a queue stopped by its own worker can never be
    // joined, and if this is the last reference its destructor ends the process, as it does for
    // any queue released with a joinable worker.
    mWorker = boost::thread([self = std::move(self)]() mutable {
        self->run();
        self.reset();
    });
}

void OrderedWorkQueueImpl::run() {
    try {
        foundation::core::diag::setCurrentThreadName(mName);
    } catch (...) {
        std::terminate();
    }

    while (!mStopWorker) {
        Function item;
        mQueue.pop(item);
        acquireHandOff(item);
        try {
            item();
        } catch (...) {
            // Work never propagates out of the queue; the next item runs regardless.
        }
    }

    // Stopped: whatever is left is destroyed unrun, which breaks the promises of its tasks.
    Function item;
    while (mQueue.try_pop(item)) {
        acquireHandOff(item);
        item.clear();
    }
}

void OrderedWorkQueueImpl::raiseStopWorker(void* queue) {
    static_cast<OrderedWorkQueueImpl*>(queue)->mStopWorker = true;
}

void OrderedWorkQueueImpl::terminate(bool waitForPending) {
    if (mTerminating.exchange(true))
        throw std::runtime_error("OrderedWorkQueue already being terminated");

    // A push that saw the flag clear finishes queueing before the stop marker goes in; every
    // later push is refused.
    while (mPushesInFlight != 0)
        boost::this_thread::yield();

    // No worker may start from here on.
    boost::call_once(mStartOnce, [] {});
    if (mWorker.get_id() == boost::thread::id())
        return; // never started: nothing to stop; queued items go with the queue

    auto self = mSelf.lock();
    if (!self)
        boost::throw_exception(boost::bad_weak_ptr());
    Function marker = QueuedCall{std::move(self), &raiseStopWorker};
    releaseHandOff(marker);
    mQueue.push(std::move(marker));

    if (!waitForPending)
        mStopWorker = true;

    // A work item stopped its own queue: a thread cannot join itself, so the worker stays
    // joinable. It is not detached either: releasing such a queue is a programming error, and
    // the destructor makes it a loud one instead of letting it pass.
    if (boost::this_thread::get_id() == mWorker.get_id())
        return;
    if (mWorker.joinable())
        mWorker.join();
}

} // namespace threadutil::detail
