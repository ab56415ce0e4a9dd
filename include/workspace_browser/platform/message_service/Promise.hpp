#pragma once

#include <workspace_browser/platform/message_service/Future.hpp>
#include <workspace_browser/platform/message_service/detail/FutureState.hpp>

#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

namespace connector::message_service {

namespace detail {
// What Promise<T> and Promise<void> have in common: the state, the one future, exceptions,
// cancellation and the broken-promise rule on destruction.
template <class T> class PromiseBase {
public:
    PromiseBase() : mState(std::make_shared<FutureState<T>>()) {}
    PromiseBase(PromiseBase&&) noexcept = default;
    PromiseBase& operator=(PromiseBase&& other) noexcept {
        if (this != &other) {
            release();
            mState = std::move(other.mState);
        }
        return *this;
    }
    PromiseBase(const PromiseBase&) = delete;
    PromiseBase& operator=(const PromiseBase&) = delete;

    // A promise destroyed without an outcome stores a std::runtime_error ("Promise was
    // destroyed before it delivered a value."), so its future's get throws instead of hanging.
    ~PromiseBase() { release(); }

    // The future of this promise; a second call throws std::runtime_error.
    Future<T> get_future() {
        state().markFutureTaken();
        return FutureAccess::make(mState);
    }

    // Completes the future with an error that get rethrows. Throws std::runtime_error when the
    // promise was already completed.
    void set_exception(std::exception_ptr error) { state().setException(std::move(error)); }

    // Completes the future as cancelled: get throws "Future has been cancelled.". Throws
    // std::runtime_error when the promise was already completed.
    void cancel() { state().cancel(); }

protected:
    FutureState<T>& state() {
        if (!mState)
            throw std::runtime_error(kNoStateText);
        return *mState;
    }

private:
    void release() noexcept {
        if (mState)
            mState->abandon();
        mState.reset();
    }

    std::shared_ptr<FutureState<T>> mState;
};
} // namespace detail

// The producing end of a Future: completes it once, with a value, an exception or a
// cancellation. Move-only. Thread-safe against its future (the two may live on different
// threads); one promise is used by one thread at a time.
template <class T> class Promise : public detail::PromiseBase<T> {
public:
    Promise() = default;

    // Throws std::runtime_error when the promise was already completed.
    void set_value(T value) { this->state().setValue(std::move(value)); }
};

// Promise of a completion without a value. Same rules as Promise<T>.
template <> class Promise<void> : public detail::PromiseBase<void> {
public:
    Promise() = default;

    void set_value() { this->state().setValue(); }
};

} // namespace connector::message_service
