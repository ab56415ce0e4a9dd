#include "platform/message_service/SubscriberRegistry.hpp"

#include <workspace_browser/platform/message_service/Promise.hpp>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <stdexcept>
#include <utility>

namespace connector::message_service {

// One subscription's callback and the count of its calls in progress.
struct SubscriberRegistry::Slot {
    explicit Slot(Callback c) : callback(std::move(c)) {}
    const Callback callback;
    std::mutex mutex;
    std::condition_variable idle;
    int running = 0;
    bool released = false;
};

namespace {

// The slots whose callbacks this thread is inside, innermost last: a release from within a
// callback must not wait for that very call.
thread_local std::vector<const void*> tCalling;

} // namespace

SubscriberRegistry::SubscriberRegistry(const foundation::log::basic_diagnostic_logger& logger,
                                       std::string what)
    : mLogger(logger), mWhat(std::move(what)) {}

std::shared_ptr<Subscription> SubscriberRegistry::add(const std::string& channel,
                                                      Callback callback) {
    auto slot = std::make_shared<Slot>(std::move(callback));
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mMutex);
        id = ++mLastId;
        mLists[channel].push_back(Entry{id, std::move(slot)});
    }
    std::weak_ptr<SubscriberRegistry> weak = weak_from_this();
    return std::make_shared<Subscription>([weak, channel, id] {
        if (auto registry = weak.lock())
            registry->remove(channel, id);
    });
}

Future<std::shared_ptr<Subscription>> SubscriberRegistry::subscribe(const std::string& channel,
                                                                    Callback callback) {
    Promise<std::shared_ptr<Subscription>> promise;
    auto future = promise.get_future();
    if (!callback) {
        promise.set_exception(std::make_exception_ptr(
            std::invalid_argument("subscribe: empty callback for channel " + channel)));
        return future;
    }
    promise.set_value(add(channel, std::move(callback)));
    return future;
}

void SubscriberRegistry::deliver(const std::string& channel, std::string_view text) const {
    // The list is copied so that a callback may subscribe, release or publish without
    // deadlocking; the text is copied so that the view handed to callbacks stays valid whatever
    // the caller does with its buffer meanwhile.
    std::vector<std::shared_ptr<Slot>> targets;
    {
        std::lock_guard lock(mMutex);
        auto it = mLists.find(channel);
        if (it == mLists.end())
            return;
        targets.reserve(it->second.size());
        for (const Entry& entry : it->second)
            targets.push_back(entry.slot);
    }
    const std::string copy(text);
    const JsonMessage message(std::string_view{copy});
    for (const auto& slot : targets) {
        {
            std::lock_guard lock(slot->mutex);
            if (slot->released)
                continue;
            ++slot->running;
        }
        tCalling.push_back(slot.get());
        // One faulty subscriber must not keep the message from the others.
        try {
            slot->callback(message);
        } catch (const std::exception& e) {
            WSB_LOG(mLogger, foundation::log::kWarning)
                << "A " << mWhat << " of channel " << channel << " threw: " << e.what();
        } catch (...) {
            WSB_LOG(mLogger, foundation::log::kWarning)
                << "A " << mWhat << " of channel " << channel << " threw an unknown exception";
        }
        tCalling.pop_back();
        {
            std::lock_guard lock(slot->mutex);
            --slot->running;
        }
        slot->idle.notify_all();
    }
}

void SubscriberRegistry::remove(const std::string& channel, std::uint64_t id) {
    std::shared_ptr<Slot> dropped;
    {
        std::lock_guard lock(mMutex);
        auto it = mLists.find(channel);
        if (it == mLists.end())
            return;
        auto& entries = it->second;
        const auto e = std::find_if(entries.begin(), entries.end(),
                                    [id](const Entry& entry) { return entry.id == id; });
        if (e != entries.end()) {
            dropped = std::move(e->slot);
            entries.erase(e);
        }
        if (entries.empty())
            mLists.erase(it);
    }
    if (!dropped)
        return;
    // Wait outside the registry lock, so the calls in progress may publish or release other
    // handles. The callback itself may own objects whose destructors release further
    // subscriptions; it goes with the last reference, never under a lock.
    const auto own = std::count(tCalling.begin(), tCalling.end(), dropped.get());
    std::unique_lock lock(dropped->mutex);
    dropped->released = true;
    dropped->idle.wait(lock, [&] { return dropped->running <= own; });
}

} // namespace connector::message_service
