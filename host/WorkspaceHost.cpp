#include "WorkspaceHost.hpp"

#include "PythonWorkspace.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <future>
#include <mutex>
#include <stdexcept>

namespace wsbrowser {

using namespace workspace_browser_startup;

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::WorkspaceHost");
    return instance;
}

WorkspaceHost::ConsoleOutput closedOutput() {
    std::string text = "The workspace is closed.\n";
    return {text, true, {{true, text}}};
}

} // namespace

// Every method hands its work to the interpreter thread: `post` for what answers later,
// `call` for what the caller waits for. Answers go back through the delivery thread. A closed
// workspace does nothing.

WorkspaceHost::WorkspaceHost(std::shared_ptr<PythonInterpreter> interpreter, Options options)
    : mImpl(std::make_shared<PythonWorkspace>(std::move(interpreter), options)) {
    mImpl->interpreter->call([impl = mImpl.get()] {
        try {
            impl->load();
        } catch (...) {
            impl->release();
            throw;
        }
    });
}

WorkspaceHost::~WorkspaceHost() {
    try {
        close();
    } catch (const std::exception& e) {
        WSB_LOG(logger(), foundation::log::kError) << "Closing the workspace failed: " << e.what();
    }
}

void WorkspaceHost::close() {
    std::lock_guard<std::mutex> lock(mImpl->closeMutex);
    if (mImpl->closed)
        return;
    mImpl->closed = true;
    try {
        mImpl->interpreter->call([impl = mImpl] { impl->release(); });
    } catch (const std::runtime_error&) {
        mImpl->forget();
    }
    mImpl->delivery.stop();
}

WSListenersSubscribeFunction WorkspaceHost::subscribeFunction() const {
    std::weak_ptr<PythonWorkspace> weak = mImpl;
    return [weak](WSListenersSubscriptionCallback listener) {
        if (auto impl = weak.lock())
            return impl->listeners.registerCallback(std::move(listener));
        return Connection();
    };
}

WorkspaceDisplayCallback WorkspaceHost::displayFunction() const {
    std::weak_ptr<PythonWorkspace> weak = mImpl;
    return [weak](const std::vector<std::string>& names, std::vector<std::string> fields,
                  bool computeStats, double statsLimit, WorkspaceDisplayResultCallback onResult) {
        auto impl = weak.lock();
        if (!impl)
            return;
        impl->interpreter->post([impl, names, fields = std::move(fields), computeStats, statsLimit,
                                 onResult = std::move(onResult)] {
            if (!impl->isOpen())
                return;
            std::vector<WSVariable> records;
            try {
                records = impl->describe(names, fields, computeStats, statsLimit);
            } catch (const std::exception& e) {
                WSB_LOG(logger(), foundation::log::kError) << "A fetch failed: " << e.what();
                records.clear();
                for (const std::string& name : names)
                    records.push_back(PythonWorkspace::unavailable(name));
            }
            if (onResult)
                impl->delivery.post(
                    [onResult, records = std::move(records)] { onResult(records); });
        });
    };
}

TriggerWorkspaceEventFunction WorkspaceHost::triggerFunction() const {
    std::weak_ptr<PythonWorkspace> weak = mImpl;
    return [weak] {
        if (auto impl = weak.lock()) {
            impl->interpreter->post([impl] {
                if (impl->isOpen())
                    impl->raiseChanges(true);
            });
        }
    };
}

void WorkspaceHost::rename(std::string oldName, std::string newName) {
    mImpl->interpreter->post(
        [impl = mImpl, oldName = std::move(oldName), newName = std::move(newName)] {
            if (impl->isOpen())
                impl->rename(oldName, newName);
        });
}

void WorkspaceHost::editValue(std::string name, std::string text) {
    mImpl->interpreter->post([impl = mImpl, name = std::move(name), text = std::move(text)] {
        if (impl->isOpen())
            impl->assign(name, text);
    });
}

void WorkspaceHost::setMessageHandler(MessageHandler handler) {
    std::lock_guard<std::mutex> lock(mImpl->handlerMutex);
    mImpl->messageHandler = std::move(handler);
}

void WorkspaceHost::editText(std::string name, EditTextCallback done) {
    const bool queued =
        mImpl->interpreter->post([impl = mImpl, name = std::move(name), done]() mutable {
            if (!impl->isOpen())
                return;
            auto [editable, text] = impl->editText(name);
            impl->delivery.post(
                [done = std::move(done), editable = editable, text = std::move(text)]() mutable {
                    if (done)
                        done(editable, std::move(text));
                });
        });
    if (!queued && done)
        done(false, "the workspace is closed");
}

void WorkspaceHost::deleteVariables(std::vector<std::string> names,
                                    std::function<void(std::size_t)> done) {
    mImpl->interpreter->post([impl = mImpl, names = std::move(names), done = std::move(done)] {
        if (!impl->isOpen())
            return;
        const std::size_t deleted = impl->remove(names);
        if (done)
            impl->delivery.post([done, deleted] { done(deleted); });
    });
}

void WorkspaceHost::refresh() {
    if (auto trigger = triggerFunction())
        trigger();
}

bool WorkspaceHost::interrupt() {
    if (mImpl->interpreter->interrupt())
        return true;
    // A command may still wait its turn: it is broken off as soon as it starts.
    if (mImpl->queuedCommands > 0)
        mImpl->interruptRequested = true;
    return false;
}

void WorkspaceHost::runCode(std::string code, const OutputCallback& done) {
    ++mImpl->queuedCommands;
    const bool queued = mImpl->interpreter->post([impl = mImpl, code = std::move(code), done] {
        if (!impl->isOpen()) {
            --impl->queuedCommands;
            if (done)
                done(closedOutput());
            return;
        }
        ConsoleOutput output = impl->run(code, true, true);
        --impl->queuedCommands;
        // Behind the change batch the code caused, so that whoever reads the output sees the
        // workspace as the code left it.
        if (done)
            impl->delivery.post(
                [done, output = std::move(output)]() mutable { done(std::move(output)); });
    });
    if (!queued) {
        --mImpl->queuedCommands;
        if (done)
            done(closedOutput());
    }
}

std::pair<std::string, bool> WorkspaceHost::execute(const std::string& code) {
    auto promise = std::make_shared<std::promise<std::pair<std::string, bool>>>();
    auto result = promise->get_future();
    runCode(code, [promise](ConsoleOutput output) {
        promise->set_value({std::move(output.text), output.failed});
    });
    return result.get();
}

bool WorkspaceHost::runScript(const std::string& path) {
    return mImpl->interpreter->call(
        [impl = mImpl, path] { return impl->isOpen() && impl->runScript(path); });
}

bool WorkspaceHost::needsMoreInput(const std::string& source) {
    return mImpl->interpreter->call(
        [impl = mImpl, source] { return impl->isOpen() && impl->needsMoreInput(source); });
}

void WorkspaceHost::runTerminalCommand(const std::string& source) {
    mImpl->interpreter->call([impl = mImpl, source] {
        if (impl->isOpen())
            impl->run(source, false, true);
    });
}

std::vector<std::string> WorkspaceHost::variableNames() {
    return mImpl->interpreter->call(
        [impl = mImpl] { return impl->isOpen() ? impl->names() : std::vector<std::string>(); });
}

} // namespace wsbrowser
