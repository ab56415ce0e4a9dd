#include "TerminalConsole.hpp"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace wsbrowser {

namespace {

void prompt(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

} // namespace

TerminalConsole::TerminalConsole(std::shared_ptr<WorkspaceHost> host) : mHost(std::move(host)) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error("cannot create the console's wake-up pipe");
    mWakeRead = fds[0];
    mWakeWrite = fds[1];
}

TerminalConsole::~TerminalConsole() {
    ::close(mWakeRead);
    ::close(mWakeWrite);
}

void TerminalConsole::stop() {
    const char byte = 1;
    // Nothing to do when the pipe is full: a wake-up is pending anyway.
    [[maybe_unused]] const ssize_t written = ::write(mWakeWrite, &byte, 1);
}

void TerminalConsole::run() {
    std::string pending; // read but not yet a full line
    std::string command; // lines of an incomplete command
    prompt(">>> ");
    for (;;) {
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {mWakeRead, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents != 0)
            return;
        char buffer[4096];
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) { // end of input: run what was typed, then leave
            command += pending;
            if (command.find_first_not_of(" \t\r\n") != std::string::npos)
                mHost->runTerminalCommand(command + "\n");
            std::fputs("\n", stdout);
            return;
        }
        pending.append(buffer, static_cast<std::size_t>(count));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (command.empty() && line.find_first_not_of(" \t\r") == std::string::npos) {
                prompt(">>> ");
                continue;
            }
            command += line + "\n";
            if (mHost->needsMoreInput(command)) {
                prompt("... ");
                continue;
            }
            mHost->runTerminalCommand(command);
            command.clear();
            prompt(">>> ");
        }
    }
}

} // namespace wsbrowser
