#pragma once

#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Promise.hpp>

#include <cstddef>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace wsb_test {

// A message service for tests: records every publish, and lets a test play the client by
// delivering text to the callbacks subscribed on a channel, on the calling thread. It can also
// be told to make the next subscription fail in the ways a real service can.
// Thread-safe: every member locks; callbacks are called without the lock held.
class RecordingMessageService : public connector::message_service::MessageService {
public:
    using Subscription = connector::message_service::Subscription;
    using JsonMessage = connector::message_service::JsonMessage;
    template <class T> using Future = connector::message_service::Future<T>;

    struct Published {
        std::string channel;
        std::string text;
    };

    enum class SubscribeFailure {
        None,
        InvalidFuture,   // a future that was never attached to a promise
        StoredException, // the future carries an exception
        Cancelled,       // the promise was cancelled
    };

    Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel,
                                                    Callback callback) override {
        SubscribeFailure failure;
        std::size_t id = 0;
        {
            std::lock_guard lock(mState->mutex);
            failure = std::exchange(mNextFailure, SubscribeFailure::None);
            if (failure == SubscribeFailure::None) {
                id = mState->nextId++;
                mState->subscribers.push_back({id, channel, std::move(callback)});
            }
        }
        switch (failure) {
        case SubscribeFailure::InvalidFuture:
            return {};
        case SubscribeFailure::StoredException: {
            connector::message_service::Promise<std::shared_ptr<Subscription>> promise;
            promise.set_exception(
                std::make_exception_ptr(std::runtime_error("subscription refused")));
            return promise.get_future();
        }
        case SubscribeFailure::Cancelled: {
            connector::message_service::Promise<std::shared_ptr<Subscription>> promise;
            auto future = promise.get_future();
            promise.cancel();
            return future;
        }
        case SubscribeFailure::None:
            break;
        }
        std::weak_ptr<State> weak = mState;
        return connector::message_service::make_ready_future(std::make_shared<Subscription>([weak,
                                                                                             id] {
            if (auto state = weak.lock()) {
                std::lock_guard lock(state->mutex);
                std::erase_if(state->subscribers, [id](const Subscriber& s) { return s.id == id; });
            }
        }));
    }

    Future<void> publish(const std::string& channel, const JsonMessage& message) override {
        std::lock_guard lock(mState->mutex);
        mPublished.push_back({channel, std::string(message.text())});
        return connector::message_service::make_ready_future();
    }

    // Plays the client: hands `text` to every live subscriber of `channel`, in subscription
    // order, on this thread. Exceptions from a callback propagate to the caller, as they would
    // into a real service's delivery loop. Returns how many callbacks were called.
    std::size_t deliver(const std::string& channel, std::string_view text) {
        std::vector<Callback> callbacks;
        {
            std::lock_guard lock(mState->mutex);
            for (const auto& s : mState->subscribers)
                if (s.channel == channel)
                    callbacks.push_back(s.callback);
        }
        // The text is copied so that the callback sees a buffer that lives only for the call.
        const std::string copy(text);
        for (auto& callback : callbacks)
            callback(JsonMessage(copy.data(), copy.size()));
        return callbacks.size();
    }

    void failNextSubscribe(SubscribeFailure failure) {
        std::lock_guard lock(mState->mutex);
        mNextFailure = failure;
    }

    std::vector<Published> published() const {
        std::lock_guard lock(mState->mutex);
        return mPublished;
    }

    std::size_t subscriberCount(const std::string& channel) const {
        std::lock_guard lock(mState->mutex);
        std::size_t n = 0;
        for (const auto& s : mState->subscribers)
            n += s.channel == channel ? 1 : 0;
        return n;
    }

private:
    struct Subscriber {
        std::size_t id = 0;
        std::string channel;
        Callback callback;
    };
    // Shared with the subscription handles, which may outlive the service.
    struct State {
        mutable std::mutex mutex;
        std::size_t nextId = 0;
        std::vector<Subscriber> subscribers;
    };

    std::shared_ptr<State> mState = std::make_shared<State>();
    std::vector<Published> mPublished;                      // guarded by mState->mutex
    SubscribeFailure mNextFailure = SubscribeFailure::None; // guarded by mState->mutex
};

} // namespace wsb_test
