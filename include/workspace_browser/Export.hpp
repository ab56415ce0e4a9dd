#pragma once

// Symbols of the shared library are hidden by default; exported classes and functions carry
// WSB_EXPORT so that hosts and tests link against exactly the public surface.
#if defined(_WIN32)
#if defined(WSB_BUILDING_LIBRARY)
#define WSB_EXPORT __declspec(dllexport)
#else
#define WSB_EXPORT __declspec(dllimport)
#endif
#else
#define WSB_EXPORT __attribute__((visibility("default")))
#endif
