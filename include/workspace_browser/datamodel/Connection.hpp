#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/datamodel/ConnectionInterface.hpp>

#include <memory>

namespace workspace_browser_startup {

// Owns one registration handle and disconnects it when destroyed, so that a subscription lives
// exactly as long as its owner keeps this value. Move-only: a second owner would disconnect
// the registration behind the first one's back. Not thread-safe: one owner at a time.
class WSB_EXPORT Connection {
public:
    Connection() noexcept; // holds nothing
    explicit Connection(std::unique_ptr<ConnectionInterface> handle) noexcept;
    Connection(Connection&& other) noexcept;
    // Disconnects the registration held so far, then takes over the other one's.
    Connection& operator=(Connection&& other) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // Disconnects now and holds nothing afterwards.
    void disconnect() noexcept;

    // The held handle, or null; for cloning or inspecting it.
    const ConnectionInterface* handle() const noexcept { return mHandle.get(); }
    explicit operator bool() const noexcept { return mHandle != nullptr; }

private:
    std::unique_ptr<ConnectionInterface> mHandle;
};

} // namespace workspace_browser_startup
