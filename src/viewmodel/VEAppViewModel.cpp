#include <workspace_browser/viewmodel/VEAppViewModel.hpp>

#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>

#include <exception>
#include <stdexcept>
#include <utility>

namespace workspace_browser_startup {

namespace {

constexpr int kLogLevel = foundation::log::kOrdinary;

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatools::VEAppViewModel");
    return instance;
}

const foundation::log::basic_diagnostic_logger& perfLogger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatoolsperf::VEAppViewModel");
    return instance;
}

// The view model whose batch the current thread is processing, if any. onPreShutdown uses it to
// refuse being called from the notification function, where waiting for the batches in flight
// would mean waiting for itself.
thread_local const VEAppViewModel* tProcessingFor = nullptr;

} // namespace

// One accepted batch on its way through the work queue. It counts itself in while the shutdown
// flag is still clear and counts itself out exactly once: when its run ends by any path, or, if
// it never runs (the push failed, or the queue dropped it), when it is destroyed. That way
// onPreShutdown never waits for a batch that can no longer finish.
// Thread-safety: countIn, countOut and run may be called from different threads; its state is
// guarded by the view model's shared mutex.
class VEAppViewModel::PendingBatch {
public:
    PendingBatch(std::shared_ptr<std::mutex> mutex, std::shared_ptr<bool> shuttingDown,
                 VEAppViewModel* owner, WSListenersSubscriptionCallbackArg events)
        : mMutex(std::move(mutex)), mShuttingDown(std::move(shuttingDown)), mOwner(owner),
          mEvents(std::move(events)) {}
    ~PendingBatch() { countOut(); }
    PendingBatch(const PendingBatch&) = delete;
    PendingBatch& operator=(const PendingBatch&) = delete;

    // False, touching nothing of the owner, when shutdown has begun: the batch is dropped then.
    bool countIn() {
        std::lock_guard lock(*mMutex);
        if (*mShuttingDown)
            return false;
        ++mOwner->mCallbacksInProgress;
        mInFlight = true;
        return true;
    }

    void countOut() noexcept {
        std::lock_guard lock(*mMutex);
        if (!std::exchange(mInFlight, false))
            return;
        --mOwner->mCallbacksInProgress;
        // Signalled under the lock: once the waiter sees the count reach zero it may destroy the
        // view model, condition variable included.
        mOwner->mFinished.notify_all();
    }

    void run() {
        struct CountOutAtEnd {
            PendingBatch& batch;
            ~CountOutAtEnd() { batch.countOut(); }
        } countOutAtEnd{*this};
        {
            std::lock_guard lock(*mMutex);
            if (*mShuttingDown)
                return;
        }
        tProcessingFor = mOwner;
        struct ClearAtEnd {
            ~ClearAtEnd() { tProcessingFor = nullptr; }
        } clearAtEnd;
        mOwner->processBatch(mEvents);
    }

private:
    std::shared_ptr<std::mutex> mMutex;
    std::shared_ptr<bool> mShuttingDown;
    VEAppViewModel* mOwner; // used only while counted in, when the owner is known to be alive
    WSListenersSubscriptionCallbackArg mEvents;
    bool mInFlight = false; // guarded by *mMutex
};

VEAppViewModel::VEAppViewModel(std::shared_ptr<connector::message_service::MessageService> service,
                               std::string id, std::shared_ptr<WSDataModel> dataModel,
                               VEAppNotificationFunction notifyFcn)
    : mMutex(std::make_shared<std::mutex>()), mShuttingDown(std::make_shared<bool>(false)),
      mMessageService(std::move(service)), mId(std::move(id)),
      mWorkQueue(threadutil::OrderedWorkQueue::create("VEAppViewModel")),
      mDataModel(std::move(dataModel)), mNotifyFcn(std::move(notifyFcn)) {
    if (!mDataModel)
        throw std::invalid_argument("VEAppViewModel needs a data model");
    // The callback holds the mutex and the flag itself, so that a batch the data model was
    // already delivering when the view model went away is dropped without touching it.
    mConnection = mDataModel->subscribe([this, mutex = mMutex, shuttingDown = mShuttingDown](
                                            WSListenersSubscriptionCallbackArg events) {
        WSB_LOG(logger(), kLogLevel) << "VEAppViewModel Variables Changed from Data Model";
        try {
            auto batch =
                std::make_shared<PendingBatch>(mutex, shuttingDown, this, std::move(events));
            if (!batch->countIn())
                return;
            try {
                // The future is not kept: the batch reports its own end through countOut.
                mWorkQueue->push([batch] { batch->run(); });
            } catch (...) {
                // If the item stayed queued behind a worker that failed to start, it may still
                // run later, before the queue is terminated; shutdown must not wait for it.
                batch->countOut();
                throw;
            }
        } catch (const std::exception& e) {
            // Kept away from the host's event thread and the other subscribers.
            WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
        }
    });
}

VEAppViewModel::~VEAppViewModel() {
    bool queueTerminated = false;
    {
        std::lock_guard lock(*mMutex);
        queueTerminated = mQueueTerminated;
    }
    if (queueTerminated)
        return;
    // The host should have called onPreShutdown; queued batches must not outlive the view model
    // and a worker left running would never stop.
    try {
        onPreShutdown();
    } catch (const std::exception& e) {
        WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
    }
}

void VEAppViewModel::onPreShutdown() {
    if (tProcessingFor == this)
        throw std::logic_error("onPreShutdown called from the notification function");
    WSB_LOG(logger(), kLogLevel) << "VEAppViewModel PreShutdown";
    bool terminateQueue = false;
    {
        std::unique_lock lock(*mMutex);
        *mShuttingDown = true;
        mFinished.wait(lock, [this] { return mCallbacksInProgress == 0; });
        terminateQueue = !std::exchange(mQueueTerminated, true);
    }
    // Nothing accepted is left to run; the queue may only hold batches that see the flag and
    // end at once.
    if (terminateQueue)
        mWorkQueue->terminate(true);
    WSB_LOG(logger(), kLogLevel) << "VEAppViewModel PreShutdown - done";
}

void VEAppViewModel::processBatch(const WSListenersSubscriptionCallbackArg& events) {
    WSB_TRACE_SCOPE(perfLogger(), "VEAppViewModel.cpp");
    // The names are updated before the host hears of them; if the host's function throws, the
    // rest of the batch is skipped but the names stay as the workspace now has them.
    try {
        for (const EventInfo& event : events) {
            switch (event.type) {
            case EventType::VARIABLE_CHANGED: {
                WSB_LOG(logger(), kLogLevel) << "VEAppViewModel Handling VARIABLE_CHANGED or ADDED";
                std::vector<std::string> added{"VARIABLE_ADDED"};
                std::vector<std::string> changed{"VARIABLE_CHANGED"};
                for (const std::string& name : event.variableNames) {
                    if (mKnownNames.insert(name).second)
                        added.push_back(name);
                    else
                        changed.push_back(name);
                }
                if (added.size() > 1)
                    mNotifyFcn(std::move(added));
                if (changed.size() > 1)
                    mNotifyFcn(std::move(changed));
                WSB_LOG(logger(), kLogLevel) << "VEAppViewModel notifyFcn done";
                break;
            }
            case EventType::VARIABLE_DELETED: {
                std::vector<std::string> deleted{"VARIABLE_DELETED"};
                for (const std::string& name : event.variableNames) {
                    mKnownNames.erase(name);
                    deleted.push_back(name);
                }
                mNotifyFcn(std::move(deleted));
                break;
            }
            case EventType::WORKSPACE_CLEARED: {
                WSB_LOG(logger(), kLogLevel) << "VEAppViewModel Handling WORKSPACE_CLEARED";
                mKnownNames.clear();
                std::vector<std::string> cleared{"WORKSPACE_CLEARED"};
                cleared.insert(cleared.end(), event.variableNames.begin(),
                               event.variableNames.end());
                mNotifyFcn(std::move(cleared));
                break;
            }
            default:
                // New variables also arrive as VARIABLE_CHANGED; the known names decide what is
                // new, so added events carry nothing this view model needs.
                break;
            }
        }
    } catch (const std::exception& e) {
        WSB_LOG(logger(), kLogLevel) << "Exception caught: " << e.what();
    } catch (...) {
        WSB_LOG(logger(), kLogLevel) << "Exception caught: unknown exception";
    }
}

} // namespace workspace_browser_startup
