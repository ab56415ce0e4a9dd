#pragma once

#include <condition_variable>
#include <mutex>

namespace workspace_browser_startup {

// Lets callbacks that arrive late, from threads the owner does not control (a host answering on
// its own thread), reach the owner only while it is alive: each callback holds a Pass while it
// runs, and close() refuses every later one and waits for those inside.
// Thread-safe: every member may be called from any thread.
class LifetimeGate {
public:
    // Holds the gate open for one callback; test it before touching the owner.
    class Pass {
    public:
        explicit Pass(LifetimeGate& gate) : mGate(gate), mEntered(gate.enter()) {}
        ~Pass() {
            if (mEntered)
                mGate.leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        explicit operator bool() const { return mEntered; }

    private:
        LifetimeGate& mGate;
        bool mEntered;
    };

    // Refuses every later callback and waits for the ones inside.
    void close() {
        std::unique_lock<std::mutex> lock(mMutex);
        mOpen = false;
        mIdle.wait(lock, [this] { return mActive == 0; });
    }

private:
    bool enter() {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mOpen)
            return false;
        ++mActive;
        return true;
    }
    void leave() {
        std::lock_guard<std::mutex> lock(mMutex);
        if (--mActive == 0)
            mIdle.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mIdle;
    bool mOpen = true;
    int mActive = 0;
};

} // namespace workspace_browser_startup
