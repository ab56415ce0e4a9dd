#include "DeliveryThread.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/ThreadName.hpp>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace wsbrowser {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::DeliveryThread");
    return instance;
}

} // namespace

struct DeliveryThread::State {
    std::mutex mutex; // guards deliveries, stopping and joinClaimed
    std::condition_variable wake;
    std::deque<std::function<void()>> deliveries;
    bool stopping = false;
    bool joinClaimed = false; // only the first stop() touches `thread`
    std::thread thread;

    void run(const std::string& name) {
        foundation::core::diag::setCurrentThreadName(name);
        for (;;) {
            std::function<void()> delivery;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return stopping || !deliveries.empty(); });
                if (deliveries.empty())
                    return;
                delivery = std::move(deliveries.front());
                deliveries.pop_front();
            }
            try {
                delivery();
            } catch (const std::exception& e) {
                WSB_LOG(logger(), foundation::log::kError) << "A delivery failed: " << e.what();
            } catch (...) {
                WSB_LOG(logger(), foundation::log::kError) << "A delivery failed";
            }
        }
    }
};

DeliveryThread::DeliveryThread(std::string name) : mState(std::make_shared<State>()) {
    // The thread keeps the state alive, so that stopping from the thread itself is safe.
    mState->thread = std::thread([state = mState, name = std::move(name)] { state->run(name); });
}

DeliveryThread::~DeliveryThread() {
    stop();
}

void DeliveryThread::post(std::function<void()> delivery) {
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        if (mState->stopping)
            return;
        mState->deliveries.push_back(std::move(delivery));
    }
    mState->wake.notify_one();
}

void DeliveryThread::stop() {
    bool claimed = false;
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        mState->stopping = true;
        claimed = !std::exchange(mState->joinClaimed, true);
    }
    mState->wake.notify_one();
    if (!claimed)
        return;
    if (std::this_thread::get_id() == mState->thread.get_id())
        mState->thread.detach(); // it ends after the delivery that is stopping it
    else
        mState->thread.join();
}

} // namespace wsbrowser
