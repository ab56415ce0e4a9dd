// wsbrowser: an embedded Python workspace served to browser pages.

#include "BrowserApp.hpp"
#include "HostOptions.hpp"
#include "PythonInterpreter.hpp"
#include "TerminalConsole.hpp"
#include "WorkspaceHost.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/message_service/WebSocketMessageService.hpp>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#ifndef WSB_WEB_CLIENT_DIR
#define WSB_WEB_CLIENT_DIR ""
#endif

namespace {

// Signals are taken by one thread with sigwait, so that the reaction (breaking into running
// code, or shutting down) happens in ordinary code rather than in a handler.
class SignalWatcher {
public:
    SignalWatcher(std::shared_ptr<wsbrowser::PythonInterpreter> interpreter,
                  std::function<void()> shutdown)
        : mInterpreter(std::move(interpreter)), mShutdown(std::move(shutdown)) {
        mThread = std::thread([this] { watch(); });
    }
    ~SignalWatcher() {
        mStopping = true;
        pthread_kill(mThread.native_handle(), SIGUSR2);
        mThread.join();
    }

    static sigset_t signals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGHUP);
        sigaddset(&set, SIGUSR2);
        return set;
    }

private:
    void watch() {
        const sigset_t set = signals();
        while (!mStopping) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0 || mStopping)
                continue;
            // Ctrl-C first breaks into code that runs; with nothing running it ends the host.
            const bool interrupted = mInterpreter->interrupt();
            if (signal != SIGINT || !interrupted)
                mShutdown();
        }
    }

    std::shared_ptr<wsbrowser::PythonInterpreter> mInterpreter;
    std::function<void()> mShutdown;
    std::atomic<bool> mStopping{false};
    std::thread mThread;
};

int run(const wsbrowser::HostOptions& options) {
    using namespace wsbrowser;
    auto sink = foundation::log::addConsoleSink(options.logLevel, options.logFilter);

    if (!HostOptions::isLoopback(options.address)) {
        // Whoever reaches the port and learns the token runs code in this interpreter, and the
        // token crosses the network in clear text.
        std::fprintf(stderr,
                     "wsbrowser: WARNING: --address %s is not a loopback address. Other machines "
                     "may reach this server;\n"
                     "wsbrowser: WARNING: anyone who sees the token can run code as you. Use "
                     "127.0.0.1 unless you must.\n",
                     options.address.c_str());
    }

    // The service first: a bad token is refused before the interpreter starts.
    connector::message_service::WebSocketServerOptions serverOptions;
    serverOptions.address = options.address;
    serverOptions.port = options.port;
    serverOptions.maxConnections = options.maxConnections;
    serverOptions.staticRoot = options.staticRoot;
    // A fixed token comes from the environment, never the command line that other users can
    // read; with it and a fixed port a page reconnects by itself after the host restarts.
    if (const char* token = std::getenv("WSB_TOKEN"); token != nullptr && *token != '\0')
        serverOptions.token = token;
    auto service = connector::message_service::WebSocketMessageService::create(serverOptions);

    auto interpreter = std::make_shared<PythonInterpreter>();
    auto host = std::make_shared<WorkspaceHost>(interpreter,
                                                WorkspaceHost::Options{.showAll = options.showAll});

    const bool terminal = options.console && ::isatty(STDIN_FILENO);
    BrowserApp::Options appOptions;
    appOptions.page.console = options.console;
    appOptions.page.statsFlag = options.statsLimit > 0;
    appOptions.page.statsLimit = static_cast<double>(options.statsLimit);
    appOptions.watch = options.watch;
    appOptions.watchSink = [](const std::string& line) {
        std::printf("[watch] %s\n", line.c_str());
    };
    appOptions.messageSink = [](const std::string& message) {
        std::fprintf(stderr, "%s\n", message.c_str());
    };
    BrowserApp app(host, service, appOptions);
    service->setPageHandlers([&app](const std::string& id) { app.pageConnected(id); },
                             [&app](const std::string& id) { app.pageDisconnected(id); });
    service->start();
    std::printf("Workspace browser: %s\n", service->url().c_str());
    std::fflush(stdout);

    std::mutex mutex;
    std::condition_variable stopped;
    bool stopRequested = false;
    std::unique_ptr<TerminalConsole> console;
    if (terminal)
        console = std::make_unique<TerminalConsole>(host);
    {
        SignalWatcher watcher(interpreter, [&] {
            {
                std::lock_guard<std::mutex> lock(mutex);
                stopRequested = true;
            }
            stopped.notify_all();
            if (console)
                console->stop();
        });

        // Scripts already defined at start-up are announced once, then each script's changes.
        host->triggerFunction()();
        for (const std::string& script : options.scripts) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (stopRequested)
                    break;
            }
            host->runScript(script);
        }
        if (console) {
            console->run();
        } else {
            if (!options.console)
                std::printf("Serving the workspace; Ctrl-C ends.\n");
            std::fflush(stdout);
            std::unique_lock<std::mutex> lock(mutex);
            stopped.wait(lock, [&] { return stopRequested; });
        }

        // Pages first (no more messages), then the view models and the data model, then the
        // workspace, and the interpreter last.
        service->stop();
        app.stop();
        host->close();
    }
    interpreter->stop();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    wsbrowser::HostOptions options;
    try {
        options = wsbrowser::HostOptions::parse(std::vector<std::string>(argv + 1, argv + argc),
                                                WSB_WEB_CLIENT_DIR);
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "wsbrowser: %s\n%s\n", e.what(),
                     wsbrowser::HostOptions::usage().c_str());
        return 2;
    }
    if (options.help) {
        std::printf("%s\n", wsbrowser::HostOptions::helpText().c_str());
        return 0;
    }
    // Every thread started from here on inherits the blocked signals; only the watcher takes
    // them.
    const sigset_t set = SignalWatcher::signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "wsbrowser: %s\n", e.what());
        return 1;
    }
}
