// Test entry point. Boost.Log prints every record to the console while no sink exists; a sink
// that keeps nothing silences that default, so tests see only the sinks they add themselves.
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    auto quiet = foundation::log::addConsoleSink(0);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
