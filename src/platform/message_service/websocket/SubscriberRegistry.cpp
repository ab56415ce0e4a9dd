#include "platform/message_service/websocket/SubscriberRegistry.hpp"

#include "platform/message_service/websocket/ServiceLog.hpp"

#include <exception>
#include <utility>

namespace connector::message_service::websocket {

std::shared_ptr<Subscription> SubscriberRegistry::add(const std::string& channel,
                                                      Callback callback) {
    auto shared = std::make_shared<const Callback>(std::move(callback));
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mMutex);
        id = ++mLastId;
        mLists[channel].push_back(Entry{id, std::move(shared)});
    }
    std::weak_ptr<SubscriberRegistry> weak = weak_from_this();
    return std::make_shared<Subscription>([weak, channel, id] {
        if (auto registry = weak.lock())
            registry->remove(channel, id);
    });
}

void SubscriberRegistry::deliver(const std::string& channel, std::string_view text) const {
    // The list is copied so that a callback may subscribe, release or publish without
    // deadlocking.
    std::vector<std::shared_ptr<const Callback>> targets;
    {
        std::lock_guard lock(mMutex);
        auto it = mLists.find(channel);
        if (it == mLists.end())
            return;
        targets.reserve(it->second.size());
        for (const Entry& entry : it->second)
            targets.push_back(entry.callback);
    }
    const JsonMessage message(text);
    for (const auto& callback : targets) {
        try {
            (*callback)(message);
        } catch (const std::exception& e) {
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "A subscriber of channel " << channel << " threw: " << e.what();
        } catch (...) {
            WSB_LOG(serviceLogger(), foundation::log::kWarning)
                << "A subscriber of channel " << channel << " threw an unknown exception";
        }
    }
}

void SubscriberRegistry::remove(const std::string& channel, std::uint64_t id) {
    // The callback may own objects whose destructors release further subscriptions; it goes
    // only after the lock is released.
    std::shared_ptr<const Callback> dropped;
    std::lock_guard lock(mMutex);
    auto it = mLists.find(channel);
    if (it == mLists.end())
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
        mLists.erase(it);
}

} // namespace connector::message_service::websocket
