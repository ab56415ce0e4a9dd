#pragma once

#include <workspace_browser/platform/message_service/detail/FutureState.hpp>

#include <memory>
#include <stdexcept>
#include <utility>

namespace connector::message_service {

template <class T> class Future;

namespace detail {
// Builds futures on a shared state; only the promise side and make_ready_future use it.
struct FutureAccess {
    template <class T> static Future<T> make(std::shared_ptr<FutureState<T>> state) {
        return Future<T>(std::move(state));
    }
};
} // namespace detail

// The receiving end of a Promise: waits for and takes its outcome once. A default-constructed
// future is not valid. Move-only; one future may be used by one thread at a time, while its
// promise completes it from any thread.
template <class T> class Future {
public:
    Future() = default;
    Future(Future&&) noexcept = default;
    Future& operator=(Future&&) noexcept = default;
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;

    // True when the future is bound to a promise's state; stays true after get.
    bool valid() const { return mState != nullptr; }

    // Blocks until the promise gives a value, an exception or a cancellation (or is destroyed
    // without doing so, which counts as an exception). Returns at once after get.
    void wait() const {
        if (!mState)
            throw std::runtime_error(detail::kInvalidStateText);
        mState->wait();
    }

    // Waits, then returns the value once. A cancelled future, a second call and an invalid
    // future throw std::runtime_error; a stored exception is rethrown (once).
    T get() {
        if (!mState)
            throw std::runtime_error(detail::kInvalidStateText);
        return mState->get();
    }

private:
    friend struct detail::FutureAccess;
    explicit Future(std::shared_ptr<detail::FutureState<T>> state) : mState(std::move(state)) {}

    std::shared_ptr<detail::FutureState<T>> mState;
};

// A future that already holds `value`.
template <class T> Future<T> make_ready_future(T value) {
    auto state = std::make_shared<detail::FutureState<T>>();
    state->markFutureTaken();
    state->setValue(std::move(value));
    return detail::FutureAccess::make(std::move(state));
}

// A completed future without a value.
inline Future<void> make_ready_future() {
    auto state = std::make_shared<detail::FutureState<void>>();
    state->markFutureTaken();
    state->setValue();
    return detail::FutureAccess::make(std::move(state));
}

} // namespace connector::message_service
