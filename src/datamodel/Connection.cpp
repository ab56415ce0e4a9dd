#include <workspace_browser/datamodel/Connection.hpp>

#include <utility>

namespace workspace_browser_startup {

Connection::Connection() noexcept = default;

Connection::Connection(std::unique_ptr<ConnectionInterface> handle) noexcept
    : mHandle(std::move(handle)) {}

Connection::Connection(Connection&& other) noexcept : mHandle(std::move(other.mHandle)) {}

Connection& Connection::operator=(Connection&& other) noexcept {
    if (this != &other) {
        disconnect();
        mHandle = std::move(other.mHandle);
    }
    return *this;
}

Connection::~Connection() {
    disconnect();
}

void Connection::disconnect() noexcept {
    // Release ownership first so that a handle whose disconnect reaches back into this object
    // finds it already empty.
    std::unique_ptr<ConnectionInterface> handle = std::move(mHandle);
    if (!handle)
        return;
    try {
        handle->disconnect();
    } catch (...) {
        // Disconnecting runs in destructors and moves, which must not throw; a handle that
        // fails to disconnect leaves a registration behind, which is all that can be lost.
    }
}

} // namespace workspace_browser_startup
