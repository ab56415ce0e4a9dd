#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace wsbrowser {

// The command line of wsbrowser. Not thread-safe: a plain value.
struct HostOptions {
    std::uint16_t port = 0; // 0: any free port
    std::string address = "127.0.0.1";
    std::size_t maxConnections = 256; // HTTP requests and pages open at once
    std::filesystem::path staticRoot;
    int logLevel = 2; // warnings and errors
    std::string logFilter;
    long statsLimit = 100000; // 0: no statistics
    bool showAll = false;
    bool watch = false;
    bool console = true;
    bool help = false;
    std::vector<std::string> scripts;

    // Reads the arguments after the program name; throws std::invalid_argument naming the
    // first bad one. `defaultStatic` is the web client folder when --static is not given.
    static HostOptions parse(const std::vector<std::string>& arguments,
                             const std::filesystem::path& defaultStatic);
    static std::string usage();
    // The usage line and what every option does, for --help.
    static std::string helpText();
    // Whether `address` is a loopback address (127.0.0.0/8, ::1, or 127.x mapped into IPv6):
    // only then is the server out of other machines' reach.
    static bool isLoopback(const std::string& address);
};

} // namespace wsbrowser
