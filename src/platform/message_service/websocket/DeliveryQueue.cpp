#include "platform/message_service/websocket/DeliveryQueue.hpp"

#include "platform/message_service/websocket/ServiceLog.hpp"

#include <workspace_browser/platform/ThreadName.hpp>

#include <exception>
#include <utility>

namespace connector::message_service::websocket {

DeliveryQueue::DeliveryQueue(std::string threadName) : mState(std::make_shared<State>()) {
    // The thread holds the state itself: when it has to be let go (stop from inside a task), it
    // must not depend on this object any more.
    mThread = std::thread([state = mState, name = std::move(threadName)] { run(state, name); });
}

DeliveryQueue::~DeliveryQueue() {
    stop();
}

bool DeliveryQueue::post(std::function<void()> task) {
    {
        std::lock_guard lock(mState->mutex);
        if (mState->stopping)
            return false;
        mState->tasks.push_back(std::move(task));
    }
    mState->wake.notify_one();
    return true;
}

void DeliveryQueue::stop() {
    const bool fromOwnThread = std::this_thread::get_id() == mThread.get_id();
    {
        std::lock_guard lock(mState->mutex);
        mState->stopping = true;
        if (fromOwnThread && !mState->tasks.empty()) {
            mState->abandoned = true;
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "Stopped from one of its own callbacks: " << mState->tasks.size()
                << " pending deliveries are dropped";
        }
    }
    mState->wake.notify_one();
    if (!mThread.joinable())
        return;
    if (fromOwnThread)
        mThread.detach();
    else
        mThread.join();
}

void DeliveryQueue::run(const std::shared_ptr<State>& state, const std::string& threadName) {
    try {
        foundation::core::diag::setCurrentThreadName(threadName);
    } catch (const std::exception&) {
        // A thread without a name works the same.
    }
    while (true) {
        std::function<void()> task;
        {
            std::unique_lock lock(state->mutex);
            state->wake.wait(lock, [&] { return state->stopping || !state->tasks.empty(); });
            if (state->abandoned || state->tasks.empty())
                return;
            task = std::move(state->tasks.front());
            state->tasks.pop_front();
        }
        try {
            task();
        } catch (const std::exception& e) {
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "A delivery callback threw: " << e.what();
        } catch (...) {
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "A delivery callback threw an unknown exception";
        }
    }
}

} // namespace connector::message_service::websocket
