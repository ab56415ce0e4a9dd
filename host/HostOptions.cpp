#include "HostOptions.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <stdexcept>

namespace wsbrowser {

namespace {

long number(const std::string& option, const std::string& text, long low, long high) {
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        throw std::invalid_argument(option + " needs a number from " + std::to_string(low) +
                                    " to " + std::to_string(high) + ", not '" + text + "'");
    }
    return value;
}

} // namespace

std::string HostOptions::usage() {
    return "usage: wsbrowser [--port N] [--address ADDR] [--max-connections N] [--static DIR]\n"
           "                 [--log-level N] [--log-filter PREFIX] [--show-all] [--watch]\n"
           "                 [--stats-limit N] [--no-console] [--help] [script.py ...]";
}

std::string HostOptions::helpText() {
    return usage() + R"(

Runs Python scripts in an embedded interpreter and serves its variables to a browser page,
with a console for more code. It prints the page's address, with its access token, when it
starts; open that address (only someone who has it can reach the workspace).

options:
  --port N               listen on port N (default: any free port)
  --address ADDR         listen on ADDR (default 127.0.0.1); any other than a loopback address
                         lets other machines reach the page, and with the token, run code
  --max-connections N    HTTP requests and pages open at once (default 256)
  --static DIR           serve the web client from DIR instead of the built-in folder
  --log-level N          how much the log on standard error says: 0 nothing, 1 errors,
                         2 warnings too (default), 3 information, 4 and 5 more detail, up to 9
  --log-filter PREFIX    log only loggers whose name starts with PREFIX
  --stats-limit N        statistics (Min ... Std) for values of at most N elements
                         (default 100000); 0 switches them off
  --show-all             also show modules, functions, classes and names starting with "_"
  --watch                print the names each change adds, changes, deletes or clears
  --no-console           no Python prompt in this terminal and no console in the page
  -h, --help             print this help and exit
  script.py ...          scripts to run first, in order, as __main__ (after "--", every
                         argument is a script)

In the terminal console, Ctrl-C interrupts running code; with nothing running, it ends the
program, as SIGTERM and SIGHUP do.)";
}

bool HostOptions::isLoopback(const std::string& address) {
    in_addr v4{};
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1)
        return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (::inet_pton(AF_INET6, address.c_str(), &v6) == 1)
        return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
    return false;
}

HostOptions HostOptions::parse(const std::vector<std::string>& arguments,
                               const std::filesystem::path& defaultStatic) {
    HostOptions options;
    options.staticRoot = defaultStatic;
    bool onlyScripts = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string argument = arguments[i];
        if (onlyScripts || argument.empty() || argument[0] != '-' || argument == "-") {
            options.scripts.push_back(argument);
            continue;
        }
        if (argument == "--") {
            onlyScripts = true;
            continue;
        }
        std::string value;
        bool inlineValue = false;
        if (const auto equals = argument.find('='); equals != std::string::npos) {
            value = argument.substr(equals + 1);
            argument.resize(equals);
            inlineValue = true;
        }
        auto takeValue = [&]() -> std::string {
            if (inlineValue)
                return value;
            if (i + 1 >= arguments.size())
                throw std::invalid_argument(argument + " needs a value");
            return arguments[++i];
        };
        auto noValue = [&] {
            if (inlineValue)
                throw std::invalid_argument(argument + " takes no value");
        };
        if (argument == "--port") {
            options.port = static_cast<std::uint16_t>(number(argument, takeValue(), 0, 65535));
        } else if (argument == "--address") {
            options.address = takeValue();
            if (options.address.empty())
                throw std::invalid_argument("--address needs a value");
        } else if (argument == "--max-connections") {
            options.maxConnections =
                static_cast<std::size_t>(number(argument, takeValue(), 1, 65535));
        } else if (argument == "--static") {
            options.staticRoot = takeValue();
        } else if (argument == "--log-level") {
            options.logLevel = static_cast<int>(number(argument, takeValue(), 0, 9));
        } else if (argument == "--log-filter") {
            options.logFilter = takeValue();
        } else if (argument == "--stats-limit") {
            options.statsLimit = number(argument, takeValue(), 0, 2000000000);
        } else if (argument == "--show-all") {
            noValue();
            options.showAll = true;
        } else if (argument == "--watch") {
            noValue();
            options.watch = true;
        } else if (argument == "--no-console") {
            noValue();
            options.console = false;
        } else if (argument == "--help" || argument == "-h") {
            noValue();
            options.help = true;
        } else {
            throw std::invalid_argument("unknown option " + argument);
        }
    }
    return options;
}

} // namespace wsbrowser
