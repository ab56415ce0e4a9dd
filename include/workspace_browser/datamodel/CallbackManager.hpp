#pragma once

#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/ConnectionInterface.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace workspace_browser_startup {

// A registry of callbacks keyed by identifiers 0, 1, 2, ... that are never reused. Each
// registration is owned through a Connection; the handles refer to the table only weakly, so
// they may outlive the registry. Thread-safe: registering, invoking and disconnecting may run
// on any threads at once; callbacks always run outside every lock, so they may register or
// disconnect (themselves included) while being called.
template <class... Args> class CallbackManager {
public:
    using Callback = std::function<void(Args...)>;

private:
    // Handles disconnect from any thread and possibly after the registry is gone, so the lock
    // that guards the entries lives with them rather than in the registry object.
    struct CallbackTable {
        std::mutex mutex;
        std::unordered_map<std::uint64_t, Callback> entries;
    };

public:
    // The registry's handle of one registration: its identifier and a weak reference to the
    // table. Thread-safe.
    class CallbackConnection final : public ConnectionInterface {
    public:
        CallbackConnection(std::uint64_t id, std::weak_ptr<CallbackTable> table)
            : mId(id), mTable(std::move(table)) {}

        std::unique_ptr<ConnectionInterface> clone() const override {
            return std::make_unique<CallbackConnection>(mId, mTable);
        }

        void disconnect() override {
            const std::shared_ptr<CallbackTable> table = mTable.lock();
            if (!table)
                return;
            Callback removed;
            {
                std::lock_guard<std::mutex> lock(table->mutex);
                const auto it = table->entries.find(mId);
                if (it == table->entries.end())
                    return;
                removed = std::move(it->second);
                table->entries.erase(it);
            }
            // `removed` dies here, outside the lock: what it captured may disconnect other
            // registrations from its destructor.
        }

        std::uint64_t id() const noexcept { return mId; }

    private:
        std::uint64_t mId;
        std::weak_ptr<CallbackTable> mTable;
    };

    CallbackManager() : mCallbacks(std::make_shared<CallbackTable>()) {}
    CallbackManager(const CallbackManager&) = delete;
    CallbackManager& operator=(const CallbackManager&) = delete;
    ~CallbackManager() = default;

    // Registers `callback` under the next identifier; the registration lasts as long as the
    // returned Connection (or a clone of its handle) has not disconnected it.
    Connection registerCallback(Callback callback) {
        std::uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            id = mNextId++;
            std::lock_guard<std::mutex> tableLock(mCallbacks->mutex);
            mCallbacks->entries.try_emplace(id, std::move(callback));
        }
        return Connection(std::make_unique<CallbackConnection>(id, mCallbacks));
    }

    // Copies of the registered callbacks, in the table's order, for calling outside the lock.
    std::vector<Callback> copyCallbacks() const {
        std::lock_guard<std::mutex> tableLock(mCallbacks->mutex);
        std::vector<Callback> copies;
        copies.reserve(mCallbacks->entries.size());
        for (const auto& entry : mCallbacks->entries)
            copies.push_back(entry.second);
        return copies;
    }

    // Calls every registered callback, each with its own copy of the arguments. A callback
    // disconnected during this pass may still be called once in it.
    void invokeCallbacks(const Args&... args) const {
        for (const Callback& callback : copyCallbacks())
            callback(args...);
    }

private:
    std::mutex mMutex;         // guards mNextId
    std::uint64_t mNextId = 0; // post-incremented on each registration, never reused
    std::shared_ptr<CallbackTable> mCallbacks;
};

} // namespace workspace_browser_startup
