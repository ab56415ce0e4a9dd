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

bool DeliveryQueue::post(const std::string& lane, std::function<void()> task) {
    {
        std::lock_guard lock(mState->mutex);
        if (mState->stopping)
            return false;
        auto& tasks = mState->lanes[lane];
        if (tasks.empty())
            mState->turns.push_back(lane);
        tasks.push_back(std::move(task));
        ++mState->pending;
    }
    mState->wake.notify_one();
    return true;
}

void DeliveryQueue::stop() {
    const bool fromOwnThread = std::this_thread::get_id() == mThread.get_id();
    {
        std::lock_guard lock(mState->mutex);
        mState->stopping = true;
        if (fromOwnThread && mState->pending != 0) {
            mState->abandoned = true;
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "Stopped from one of its own callbacks: " << mState->pending
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
            state->wake.wait(lock, [&] { return state->stopping || state->pending != 0; });
            if (state->abandoned || state->pending == 0)
                return;
            // The lane whose turn it is gives one task, then waits behind the others.
            std::string lane = std::move(state->turns.front());
            state->turns.pop_front();
            const auto found = state->lanes.find(lane);
            task = std::move(found->second.front());
            found->second.pop_front();
            --state->pending;
            if (found->second.empty())
                state->lanes.erase(found);
            else
                state->turns.push_back(std::move(lane));
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
