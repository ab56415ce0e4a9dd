#pragma once

#include "WorkspaceHost.hpp"

#include <memory>

namespace wsbrowser {

// The interactive prompt on the terminal: reads lines from standard input, asks for more
// lines while a command is incomplete, and runs each complete command in the workspace with
// its output on the terminal.
// Thread-safe: run() on one thread; stop() from any thread (also from a signal-handling
// thread) makes run() return at its next wait for input.
class TerminalConsole {
public:
    explicit TerminalConsole(std::shared_ptr<WorkspaceHost> host);
    ~TerminalConsole();
    TerminalConsole(const TerminalConsole&) = delete;
    TerminalConsole& operator=(const TerminalConsole&) = delete;

    // Returns at the end of input or after stop().
    void run();
    void stop();

private:
    std::shared_ptr<WorkspaceHost> mHost;
    int mWakeRead = -1;
    int mWakeWrite = -1;
};

} // namespace wsbrowser
