#include <workspace_browser/datamodel/ConnectionInterface.hpp>

namespace workspace_browser_startup {

// Defined here so that the type's identity lives in the library, shared by hosts and tests.
ConnectionInterface::~ConnectionInterface() = default;

} // namespace workspace_browser_startup
