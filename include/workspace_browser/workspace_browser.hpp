#pragma once

// Everything a host needs: the platform layer and every exported class of the library.
#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/ThreadName.hpp>
