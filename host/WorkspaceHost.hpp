#pragma once

#include "PythonInterpreter.hpp"

#include <workspace_browser/datamodel/Connection.hpp>
#include <workspace_browser/datamodel/EventInfo.hpp>
#include <workspace_browser/datamodel/WSVariable.hpp>
#include <workspace_browser/datamodel/WorkspaceFunctions.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace wsbrowser {

class PythonWorkspace;

// The interpreter's workspace as the library sees it: the variables of __main__'s namespace
// (without names starting with "_", modules, functions and classes unless showAll is set).
// It supplies the data model's host functions (subscribe, fetch, trigger), carries out the
// grid's rename and edit requests, runs scripts and console code, and after each of those
// raises one batch of workspace events: "VARIABLE_CHANGED" with the new and changed names,
// "VARIABLE_DELETED" with the vanished ones, or "WORKSPACE_CLEARED" when the namespace was
// emptied. Rebinding is seen by identity, in-place changes by a digest of the contents (see
// ChangeScanner for what it reads and what it cannot see).
// Thread-safe: every operation may be called from any thread; the Python work runs on the
// interpreter thread; listeners, result callbacks and console output are called on the
// host's delivery thread, in the order the interpreter produced them, and the message handler
// on the interpreter thread.
class WorkspaceHost {
public:
    struct Options {
        bool showAll = false;
        // How long describing one variable (its repr, len, statistics) may run before it is
        // broken off and shown as a placeholder; short, so that the other rows of a page are
        // painted within a second even when one of them never finishes. A variable that ran
        // out of time is not tried again until it changes or the workspace is re-read.
        std::chrono::milliseconds reprBudget{250};
    };
    // What console code wrote, as one text and as runs written to one stream.
    struct ConsoleOutput {
        std::string text;
        bool failed = false;                            // it raised
        std::vector<std::pair<bool, std::string>> runs; // (written to stderr, text), in order
    };
    using OutputCallback = std::function<void(ConsoleOutput output)>;
    // (true, text) or (false, the reason there is none).
    using EditTextCallback = std::function<void(bool editable, std::string textOrReason)>;
    // The longest text the grid's editor is given; larger values are not edited in place.
    static constexpr std::size_t kEditTextLimit = std::size_t{64} * 1024;
    using MessageHandler = std::function<void(const std::string& message)>;

    // Loads the helper module into the interpreter; throws std::runtime_error when it fails.
    WorkspaceHost(std::shared_ptr<PythonInterpreter> interpreter, Options options);
    // Closes first when that was not done.
    ~WorkspaceHost();
    WorkspaceHost(const WorkspaceHost&) = delete;
    WorkspaceHost& operator=(const WorkspaceHost&) = delete;

    // The data model's host functions: subscribe to event batches; fetch records (answered
    // later, on the interpreter thread, one per name; a name that is no longer a variable comes
    // back with only its name and the dirty mark); trigger a full batch (deletions, also of
    // names answered as vanished, then every current name as changed). They stay valid after
    // the host is gone (doing nothing).
    workspace_browser_startup::WSListenersSubscribeFunction subscribeFunction() const;
    workspace_browser_startup::WorkspaceDisplayCallback displayFunction() const;
    workspace_browser_startup::TriggerWorkspaceEventFunction triggerFunction() const;

    // The grid's rename and value-edit requests, carried out later; a refusal or failure is
    // handed to the message handler and nothing changes.
    void rename(std::string oldName, std::string newName);
    void editValue(std::string name, std::string text);
    void setMessageHandler(MessageHandler handler);
    // The Python text that recreates `name` exactly, for the grid's editor, handed to `done`
    // later: builtin values, numpy arrays and scalars up to kEditTextLimit characters; for
    // anything else, or larger, why it cannot be edited in place.
    void editText(std::string name, EditTextCallback done);

    // Runs console code later with its output captured (the value of a final expression is
    // echoed) and hands the output to `done`.
    void runCode(std::string code, const OutputCallback& done);
    // The same, waiting for the outcome.
    std::pair<std::string, bool> execute(const std::string& code);
    // Runs a script file with its output on the process's streams; false when it failed.
    bool runScript(const std::string& path);
    // For the terminal: whether `source` needs more lines, and running one complete command
    // with its output on the process's streams (Ctrl-C interrupts it).
    bool needsMoreInput(const std::string& source);
    void runTerminalCommand(const std::string& source);
    // Deletes the named variables later (names that are not variables are skipped) and hands
    // how many went to `done`; the usual change batch follows.
    void deleteVariables(std::vector<std::string> names, std::function<void(std::size_t)> done);
    // Re-reads the whole workspace later: every variable is reported changed (after the
    // deletions), and one whose description ran out of time gets its budget again.
    void refresh();
    // Breaks into the console code running now with KeyboardInterrupt; false when none runs.
    bool interrupt();

    // The shown variable names, sorted.
    std::vector<std::string> variableNames();

    // Lets the work queued so far finish, then stops: no more events, answers or messages, and
    // the Python objects are released. Calling it again does nothing.
    void close();

private:
    std::shared_ptr<PythonWorkspace> mImpl;
};

} // namespace wsbrowser
