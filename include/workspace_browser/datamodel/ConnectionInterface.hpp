#pragma once

#include <workspace_browser/Export.hpp>

#include <memory>

namespace workspace_browser_startup {

// The handle of one registration with a callback registry. Implementations state their own
// thread-safety; the registry's own handle may be used from any thread.
class WSB_EXPORT ConnectionInterface {
public:
    virtual ~ConnectionInterface();

    // A new handle for the same registration, owned by the caller.
    virtual std::unique_ptr<ConnectionInterface> clone() const = 0;
    // Removes the registration if its registry still exists; calling it again does nothing.
    virtual void disconnect() = 0;

protected:
    ConnectionInterface() = default;
    ConnectionInterface(const ConnectionInterface&) = default;
    ConnectionInterface& operator=(const ConnectionInterface&) = default;
};

} // namespace workspace_browser_startup
