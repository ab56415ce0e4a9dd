#include <workspace_browser/platform/message_service/LocalMessageService.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/message_service/Promise.hpp>

#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace connector::message_service {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::connector::LocalMessageService");
    return instance;
}

enum class Side { Server, Client };

const char* sideName(Side side) {
    return side == Side::Server ? "server" : "client";
}

} // namespace

// The subscriber lists of both sides. Subscriptions reach it through a weak pointer, so a
// handle released after the service is gone finds nothing to do. Thread-safe: one mutex guards
// the lists; callbacks are always called with it released.
class LocalMessageService::Registry {
public:
    using CallbackPtr = std::shared_ptr<const Callback>;

    std::shared_ptr<Subscription> add(const std::shared_ptr<Registry>& self, Side side,
                                      const std::string& channel, Callback callback) {
        auto shared = std::make_shared<const Callback>(std::move(callback));
        std::uint64_t id = 0;
        {
            std::lock_guard lock(mMutex);
            id = ++mLastId;
            lists(side)[channel].push_back(Entry{id, std::move(shared)});
        }
        std::weak_ptr<Registry> weak = self;
        return std::make_shared<Subscription>([weak, side, channel, id] {
            if (auto registry = weak.lock())
                registry->remove(side, channel, id);
        });
    }

    // Delivers `text` to the subscribers of `side` on `channel`. The list is copied under the
    // lock so that a callback may subscribe, release or publish without deadlocking; the text is
    // copied so that the view handed to callbacks stays valid whatever the caller does with its
    // buffer meanwhile.
    void deliver(Side side, const std::string& channel, std::string_view text) const {
        std::vector<CallbackPtr> targets;
        {
            std::lock_guard lock(mMutex);
            const auto& all = lists(side);
            auto it = all.find(channel);
            if (it == all.end())
                return;
            targets.reserve(it->second.size());
            for (const Entry& entry : it->second)
                targets.push_back(entry.callback);
        }
        const std::string copy(text);
        const JsonMessage message(std::string_view{copy});
        for (const CallbackPtr& callback : targets) {
            // One faulty subscriber must not keep the message from the others.
            try {
                (*callback)(message);
            } catch (const std::exception& e) {
                WSB_LOG(logger(), foundation::log::kWarning)
                    << "A " << sideName(side) << " subscriber of channel " << channel
                    << " threw: " << e.what();
            } catch (...) {
                WSB_LOG(logger(), foundation::log::kWarning)
                    << "A " << sideName(side) << " subscriber of channel " << channel
                    << " threw an unknown exception";
            }
        }
    }

private:
    struct Entry {
        std::uint64_t id;
        CallbackPtr callback;
    };
    using Lists = std::map<std::string, std::vector<Entry>, std::less<>>;

    void remove(Side side, const std::string& channel, std::uint64_t id) {
        // The callback may own objects whose destructors release further subscriptions; let it
        // go only after the lock is released.
        CallbackPtr dropped;
        {
            std::lock_guard lock(mMutex);
            auto& all = lists(side);
            auto it = all.find(channel);
            if (it == all.end())
                return;
            auto& entries = it->second;
            for (auto e = entries.begin(); e != entries.end(); ++e) {
                if (e->id == id) {
                    dropped = std::move(e->callback);
                    entries.erase(e);
                    break;
                }
            }
            if (entries.empty())
                all.erase(it);
        }
    }

    Lists& lists(Side side) { return side == Side::Server ? mServer : mClient; }
    const Lists& lists(Side side) const { return side == Side::Server ? mServer : mClient; }

    mutable std::mutex mMutex;
    std::uint64_t mLastId = 0;
    Lists mServer; // receives publishFromClient
    Lists mClient; // receives publish
};

LocalMessageService::LocalMessageService() : mRegistry(std::make_shared<Registry>()) {}

LocalMessageService::~LocalMessageService() = default;

Future<std::shared_ptr<Subscription>> LocalMessageService::subscribe(const std::string& channel,
                                                                     Callback callback) {
    Promise<std::shared_ptr<Subscription>> promise;
    auto future = promise.get_future();
    if (!callback) {
        promise.set_exception(std::make_exception_ptr(
            std::invalid_argument("subscribe: empty callback for channel " + channel)));
        return future;
    }
    promise.set_value(mRegistry->add(mRegistry, Side::Server, channel, std::move(callback)));
    return future;
}

Future<void> LocalMessageService::publish(const std::string& channel, const JsonMessage& message) {
    mRegistry->deliver(Side::Client, channel, message.text());
    return make_ready_future();
}

std::shared_ptr<Subscription> LocalMessageService::subscribeClient(const std::string& channel,
                                                                   Callback callback) {
    if (!callback)
        throw std::invalid_argument("subscribeClient: empty callback for channel " + channel);
    return mRegistry->add(mRegistry, Side::Client, channel, std::move(callback));
}

void LocalMessageService::publishFromClient(const std::string& channel, std::string_view text) {
    mRegistry->deliver(Side::Server, channel, text);
}

} // namespace connector::message_service
