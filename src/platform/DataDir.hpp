#pragma once

#include <filesystem>

namespace wsb::platform {
// The folder holding the library's shipped data (message catalogs, factory settings):
// share/workspace_browser beside the folder of the loaded library, which holds both installed
// and in the build tree; else the configured install location. Thread-safe.
std::filesystem::path dataDir();
} // namespace wsb::platform
