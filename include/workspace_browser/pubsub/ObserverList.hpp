#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

namespace workspace_browser_startup {

// The observers of one channel endpoint, in registration order, duplicates allowed. A delivery
// calls the observers registered when it started that are still registered when their turn
// comes; one added meanwhile waits for the next delivery.
// Thread-safety: every operation may run on any thread at any time; remove() returns only once
// no other thread is calling, or can still call, the removed observer.
template <class Observer> class ObserverList {
public:
    void add(Observer* observer) {
        std::lock_guard lock(mMutex);
        mObservers.push_back(observer);
    }

    // Removes every registration of `observer`, then waits for calls to it running on other
    // threads to return. A call on this thread (an observer removing itself or another from
    // inside a delivery) is not waited for, so that it cannot wait for itself.
    void remove(Observer* observer) {
        std::unique_lock lock(mMutex);
        std::erase(mObservers, observer);
        const auto self = std::this_thread::get_id();
        mCallEnded.wait(lock, [&] {
            return std::none_of(mCalls.begin(), mCalls.end(), [&](const Call& call) {
                return call.observer == observer && call.thread != self;
            });
        });
    }

    std::size_t size() const {
        std::lock_guard lock(mMutex);
        return mObservers.size();
    }

    // Calls `call(observer)` for each observer in turn; an exception ends the delivery there
    // and propagates.
    template <class Call> void forEach(Call&& call) {
        std::vector<Observer*> snapshot;
        {
            std::lock_guard lock(mMutex);
            snapshot = mObservers;
        }
        const auto self = std::this_thread::get_id();
        for (Observer* observer : snapshot) {
            {
                std::lock_guard lock(mMutex);
                if (std::find(mObservers.begin(), mObservers.end(), observer) == mObservers.end())
                    continue;
                mCalls.push_back({observer, self});
            }
            const CallEnd end{*this, observer, self};
            call(*observer);
        }
    }

private:
    struct Call {
        Observer* observer;
        std::thread::id thread;
    };

    // Ends the record of one call however the call leaves, and wakes a waiting remove().
    struct CallEnd {
        ObserverList& list;
        Observer* observer;
        std::thread::id thread;
        ~CallEnd() {
            {
                std::lock_guard lock(list.mMutex);
                const auto at =
                    std::find_if(list.mCalls.begin(), list.mCalls.end(), [&](const Call& c) {
                        return c.observer == observer && c.thread == thread;
                    });
                if (at != list.mCalls.end())
                    list.mCalls.erase(at);
            }
            list.mCallEnded.notify_all();
        }
    };

    mutable std::mutex mMutex;
    std::condition_variable mCallEnded;
    std::vector<Observer*> mObservers;
    std::vector<Call> mCalls;
};

} // namespace workspace_browser_startup
