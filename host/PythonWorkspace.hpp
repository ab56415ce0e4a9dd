#pragma once

#include "ChangeScanner.hpp"
#include "DeliveryThread.hpp"
#include "PyRef.hpp"
#include "PythonInterpreter.hpp"
#include "WorkspaceHost.hpp"

#include <workspace_browser/datamodel/CallbackManager.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace wsbrowser {

// The interpreter's side of the workspace: the helper module, __main__'s namespace and the
// change scanner, the records of variables, the change batches, and the edits and code runs
// that change the namespace. `WorkspaceHost` hands every call here over to the interpreter
// thread; what it hands back goes out on its delivery thread. Not thread-safe: all methods run
// on the interpreter thread, except that listeners and the message handler are registered from
// any thread (each behind its own lock).
class PythonWorkspace {
public:
    PythonWorkspace(std::shared_ptr<PythonInterpreter> interpreter, WorkspaceHost::Options options)
        : interpreter(std::move(interpreter)), options(options) {}

    // Loads the helper module; throws std::runtime_error when it fails.
    void load();
    void release();
    // Drops the Python objects without touching them, for when the interpreter already ended.
    void forget();
    bool isOpen() const { return module.get() != nullptr; }

    // Raises the batch of what changed since the last scan. With `everything`, the batch names
    // every current variable as changed (after the deletions), for a listener that starts over.
    void raiseChanges(bool everything = false);
    std::vector<workspace_browser_startup::WSVariable>
    describe(const std::vector<std::string>& names, const std::vector<std::string>& fields,
             bool computeStats, double statsLimit);
    std::vector<std::string> names();

    // The grid's edits; a refusal or failure goes to the message handler.
    void rename(const std::string& oldName, const std::string& newName);
    void assign(const std::string& name, const std::string& text);

    // Deletes the named variables that exist; returns how many.
    std::size_t remove(const std::vector<std::string>& names);

    // The text that recreates a variable for the grid's editor, or why there is none:
    // (true, text) or (false, reason).
    std::pair<bool, std::string> editText(const std::string& name);

    // Console code: runs `code` (the value of a final expression echoed when `echo`), with its
    // output captured when `capture` and on the process's streams otherwise.
    WorkspaceHost::ConsoleOutput run(const std::string& code, bool capture, bool echo);
    bool runScript(const std::string& path);
    bool needsMoreInput(const std::string& source);

    // Logs a refusal or failure and hands it to the message handler.
    void report(const std::string& message) const;

    // What the grid shows for a variable whose texts could not be made at all.
    static workspace_browser_startup::WSVariable unavailable(const std::string& name);

    std::shared_ptr<PythonInterpreter> interpreter;
    const WorkspaceHost::Options options;
    workspace_browser_startup::CallbackManager<
        workspace_browser_startup::WSListenersSubscriptionCallbackArg>
        listeners;
    mutable std::mutex handlerMutex; // guards messageHandler
    WorkspaceHost::MessageHandler messageHandler;
    // Where listeners, fetch results and console output are handed over, in order.
    DeliveryThread delivery{"wsbDelivery"};
    // Ctrl+C from a page that came before its command started; the next console command
    // consumes it, and every command's end clears it.
    std::atomic<bool> interruptRequested{false};
    std::atomic<int> queuedCommands{0}; // console commands posted and not finished
    std::mutex closeMutex;              // serialises WorkspaceHost::close()
    bool closed = false;                // guarded by closeMutex

    // Interpreter thread only.
    PyRef module;
    PyRef ns;
    std::unique_ptr<ChangeScanner> scanner;
    // Variables whose description ran out of time, with the object that did and the record it
    // got (its placeholder), until they change.
    std::unordered_map<std::string, std::pair<const void*, workspace_browser_startup::WSVariable>>
        slowValues;

private:
    PyObject* function(const char* name) const;
    // Hands a batch to the listeners registered now, on the delivery thread.
    void raise(workspace_browser_startup::WSListenersSubscriptionCallbackArg batch);
    // Calls an edit helper on the namespace and two texts, Ctrl-C able to break in; reports
    // its refusal (any answer but None), or `failure` and the error when it raised.
    void edit(const char* helper, const std::string& failure, const std::string& first,
              const std::string& second);
};

} // namespace wsbrowser
