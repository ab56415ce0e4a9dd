#pragma once

#include <workspace_browser/Export.hpp>

#include <string>

namespace foundation::core::diag {
// Names the calling thread for debuggers and process listings. Linux keeps at most 15 bytes;
// longer names are cut at a UTF-8 character boundary. Throws std::system_error when the
// system refuses. Thread-safe (acts on the calling thread only).
WSB_EXPORT void setCurrentThreadName(const std::string& name);
// The calling thread's current name, as the system reports it.
WSB_EXPORT std::string currentThreadName();
} // namespace foundation::core::diag
