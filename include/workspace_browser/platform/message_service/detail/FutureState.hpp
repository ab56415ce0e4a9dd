#pragma once

#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace connector::message_service::detail {

// Texts of the errors a future or promise raises; callers match on them, so they never change.
inline constexpr const char* kCancelledText = "Future has been cancelled.";
inline constexpr const char* kAlreadyRetrievedText =
    "Future already returned it's value or has an associated continuation.";
inline constexpr const char* kInvalidStateText = "Invalid Future state reached.";
inline constexpr const char* kFutureAlreadyTakenText = "Promise's future has already been taken.";
inline constexpr const char* kAlreadySatisfiedText =
    "Promise has already been given a value, an exception or a cancellation.";
inline constexpr const char* kNoStateText = "Promise has no shared state (it was moved from).";
inline constexpr const char* kBrokenPromiseText =
    "Promise was destroyed before it delivered a value.";

// What a promise and its future share: the outcome and whether it has been taken. The promise
// side completes it once; the future side waits and takes the outcome once.
// Thread-safe: every member locks the state's mutex.
class FutureStateBase {
public:
    enum class Status { Pending, Value, Exception, Cancelled, Retrieved };

    void wait() const {
        std::unique_lock lock(mMutex);
        mReady.wait(lock, [this] { return mStatus != Status::Pending; });
    }

    void setException(std::exception_ptr error) {
        complete([&] {
            mError = std::move(error);
            mStatus = Status::Exception;
        });
    }

    void cancel() {
        complete([&] { mStatus = Status::Cancelled; });
    }

    // Called when the last promise goes away: a future that nobody will ever complete fails
    // with an error instead of blocking its waiter forever.
    void abandon() {
        {
            std::lock_guard lock(mMutex);
            if (mStatus != Status::Pending)
                return;
            mError = std::make_exception_ptr(std::runtime_error(kBrokenPromiseText));
            mStatus = Status::Exception;
        }
        mReady.notify_all();
    }

    // Hands out the future once per promise.
    void markFutureTaken() {
        std::lock_guard lock(mMutex);
        if (mFutureTaken)
            throw std::runtime_error(kFutureAlreadyTakenText);
        mFutureTaken = true;
    }

protected:
    template <class Store> void complete(Store&& store) {
        {
            std::lock_guard lock(mMutex);
            if (mStatus != Status::Pending)
                throw std::runtime_error(kAlreadySatisfiedText);
            store();
        }
        mReady.notify_all();
    }

    // Waits for the outcome and marks it taken; a value is moved out by `take` while the lock is
    // held. Throws the cancelled / already-retrieved texts, or rethrows the stored exception.
    template <class Take> decltype(auto) retrieve(Take&& take) {
        std::unique_lock lock(mMutex);
        mReady.wait(lock, [this] { return mStatus != Status::Pending; });
        switch (mStatus) {
        case Status::Cancelled:
            throw std::runtime_error(kCancelledText);
        case Status::Retrieved:
            throw std::runtime_error(kAlreadyRetrievedText);
        case Status::Exception: {
            mStatus = Status::Retrieved;
            std::exception_ptr error = std::move(mError);
            mError = nullptr;
            std::rethrow_exception(error);
        }
        case Status::Value:
            mStatus = Status::Retrieved;
            return take();
        case Status::Pending:
            break;
        }
        throw std::runtime_error(kInvalidStateText);
    }

    mutable std::mutex mMutex;
    mutable std::condition_variable mReady;
    Status mStatus = Status::Pending;
    std::exception_ptr mError;
    bool mFutureTaken = false;
};

// Shared state holding a value of type T. Thread-safe (see FutureStateBase).
template <class T> class FutureState : public FutureStateBase {
public:
    void setValue(T value) {
        complete([&] {
            mValue.emplace(std::move(value));
            mStatus = Status::Value;
        });
    }

    T get() {
        return retrieve([this]() -> T {
            T value = std::move(*mValue);
            mValue.reset();
            return value;
        });
    }

private:
    std::optional<T> mValue;
};

// Shared state of a future that carries no value, only completion. Thread-safe.
template <> class FutureState<void> : public FutureStateBase {
public:
    void setValue() {
        complete([&] { mStatus = Status::Value; });
    }

    void get() {
        retrieve([] {});
    }
};

} // namespace connector::message_service::detail
