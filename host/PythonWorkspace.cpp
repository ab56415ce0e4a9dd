#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "PythonWorkspace.hpp"

#include "HostPythonSource.hpp"

#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <array>
#include <stdexcept>
#include <string_view>

namespace wsbrowser {

using namespace workspace_browser_startup;
using py::boolean;
using py::fromUtf8;
using py::takeError;
using py::toUtf8;

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::WorkspaceHost");
    return instance;
}

constexpr const char* kModuleName = "_wsbrowser_host";
constexpr const char* kModuleFile = "<wsbrowser_host>";

// Fills a record from describe's answer, a dict keyed by column key. The answer comes from
// Python code the user can reach, so a missing key or a value that is not text is an empty cell.
bool recordFrom(PyObject* answer, WSVariable& record) {
    if (!answer || !PyDict_Check(answer))
        return false;
    const auto entry = [answer](std::string_view key) {
        return PyDict_GetItemString(answer, std::string(key).c_str());
    };
    for (const WSColumn& column : WSColumn::all())
        record.*column.field = toUtf8(entry(column.key));
    record.isSummary = entry("isSummary") == Py_True;
    record.isDirty = entry("isDirty") == Py_True;
    record.iconClass = toUtf8(entry("iconClass"));
    return true;
}

// No time limit for code the user asked to run, but Ctrl-C breaks in.
PythonInterpreter::Budget interruptible(PythonInterpreter& interpreter) {
    return PythonInterpreter::Budget(interpreter, std::chrono::milliseconds(0),
                                     PyExc_KeyboardInterrupt, true);
}

} // namespace

WSVariable PythonWorkspace::unavailable(const std::string& name) {
    WSVariable record;
    record.name = name;
    record.value = "<unavailable>";
    record.isSummary = true;
    record.iconClass = "wsb-icon-object";
    return record;
}

void PythonWorkspace::load() {
    PyRef code(Py_CompileString(hostPythonSource(), kModuleFile, Py_file_input));
    if (!code)
        throw std::runtime_error("cannot compile the host's Python helpers: " + takeError());
    PyRef loaded(PyImport_ExecCodeModuleEx(kModuleName, code.get(), kModuleFile));
    if (!loaded)
        throw std::runtime_error("cannot load the host's Python helpers: " + takeError());
    PyObject* main = PyImport_AddModule("__main__"); // borrowed
    if (!main)
        throw std::runtime_error("no __main__ module: " + takeError());
    PyRef hidden(PyObject_GetAttrString(loaded.get(), "_HIDDEN_TYPES"));
    PyRef parts(PyObject_GetAttrString(loaded.get(), "parts"));
    if (!hidden || !parts)
        throw std::runtime_error("cannot prepare the change scanner: " + takeError());
    // numpy is optional: without it there are no arrays to digest.
    PyRef numpy(PyObject_GetAttrString(loaded.get(), "np"));
    PyRef array(numpy && numpy.get() != Py_None ? PyObject_GetAttrString(numpy.get(), "ndarray")
                                                : nullptr);
    PyErr_Clear();
    ns = PyRef(Py_NewRef(PyModule_GetDict(main)));
    scanner = std::make_unique<ChangeScanner>(options.showAll, std::move(hidden), std::move(parts),
                                              std::move(array));
    module = std::move(loaded);
}

void PythonWorkspace::release() {
    scanner.reset();
    ns = PyRef();
    module = PyRef();
}

void PythonWorkspace::forget() {
    // The interpreter is gone and took the objects with it: drop the pointers untouched.
    if (scanner)
        scanner->abandon();
    scanner.reset();
    for (PyRef* ref : {&ns, &module})
        ref->release();
}

PyObject* PythonWorkspace::function(const char* name) const {
    PyObject* found = PyObject_GetAttrString(module.get(), name);
    if (!found)
        throw std::runtime_error(std::string("host helper missing: ") + name + ": " + takeError());
    return found;
}

void PythonWorkspace::raise(WSListenersSubscriptionCallbackArg batch) {
    if (batch.empty())
        return;
    delivery.post([listeners = listeners.copyCallbacks(), batch = std::move(batch)] {
        for (const auto& listener : listeners) {
            try {
                listener(batch);
            } catch (const std::exception& e) {
                WSB_LOG(logger(), foundation::log::kError)
                    << "A workspace listener failed: " << e.what();
            }
        }
    });
}

void PythonWorkspace::raiseChanges(bool everything) {
    ChangeScanner::Changes changes;
    {
        // Reading an object's parts may run its class's code; it gets the time a repr gets.
        PyRef budgetExceeded(function("BudgetExceeded"));
        PythonInterpreter::Budget budget(*interpreter, options.reprBudget, budgetExceeded.get(),
                                         false);
        changes = everything ? scanner->resync(ns.get()) : scanner->scan(ns.get());
    }
    PyErr_Clear(); // an interruption the scan absorbed
    // A value that changed gets its full budget again; a full re-read retries every one.
    if (everything || changes.cleared) {
        slowValues.clear();
    } else {
        for (const auto* list : {&changes.names, &changes.deleted}) {
            for (const std::string& name : *list)
                slowValues.erase(name);
        }
    }
    WSListenersSubscriptionCallbackArg batch;
    if (changes.cleared)
        batch.push_back({EventType::WORKSPACE_CLEARED, {}});
    // After a clearing a scan has nothing more to say; a resync still lists what is there now,
    // its deletions first so that a listener starting over never drops a name it just added.
    if (!changes.cleared || everything) {
        EventInfo changed{EventType::VARIABLE_CHANGED, std::move(changes.names)};
        EventInfo gone{EventType::VARIABLE_DELETED, std::move(changes.deleted)};
        for (EventInfo* event :
             everything ? std::array{&gone, &changed} : std::array{&changed, &gone}) {
            if (!event->variableNames.empty())
                batch.push_back(std::move(*event));
        }
    }
    raise(std::move(batch));
}

std::vector<WSVariable> PythonWorkspace::describe(const std::vector<std::string>& names,
                                                  const std::vector<std::string>& fields,
                                                  bool computeStats, double statsLimit) {
    std::vector<WSVariable> records;
    records.reserve(names.size());
    PyRef describeFn(function("describe"));
    PyRef budgetExceeded(function("BudgetExceeded"));
    PyRef pyFields = py::listOf(fields);
    PyRef limit(PyFloat_FromDouble(statsLimit));
    if (!pyFields || !limit)
        throw std::runtime_error("cannot prepare a fetch: " + takeError());
    for (const std::string& name : names) {
        PyRef pyName = fromUtf8(name);
        PyObject* value = pyName ? PyDict_GetItemWithError(ns.get(), pyName.get()) : nullptr;
        PyErr_Clear();
        if (const auto slow = slowValues.find(name);
            slow != slowValues.end() && value && slow->second.first == value) {
            // It ran out of time before and has not changed since: scrolling past it again
            // must not cost the budget again.
            records.push_back(slow->second.second);
            continue;
        }
        PyRef result;
        bool expired = false;
        if (pyName) {
            // A repr that never returns is broken off when the budget runs out, a blocking call
            // in it too; one stuck in C code that never returns to Python cannot be.
            PythonInterpreter::Budget budget(*interpreter, options.reprBudget, budgetExceeded.get(),
                                             false);
            result = PyRef(PyObject_CallFunctionObjArgs(
                describeFn.get(), ns.get(), pyName.get(), pyFields.get(), boolean(computeStats),
                limit.get(), boolean(options.showAll), nullptr));
            expired = budget.expired();
        }
        WSVariable record;
        if (!result || !recordFrom(result.get(), record)) {
            if (PyErr_Occurred()) {
                WSB_LOG(logger(), foundation::log::kWarning)
                    << "Describing " << name << " failed: " << takeError();
            }
            record = unavailable(name);
        }
        record.name = name; // exactly as asked, even if the text did not survive a round trip
        if (record.isDirty)
            scanner->markVanished(name);
        if (expired && value)
            slowValues[name] = {value, record};
        records.push_back(std::move(record));
    }
    return records;
}

std::vector<std::string> PythonWorkspace::names() {
    return scanner->names(ns.get());
}

void PythonWorkspace::report(const std::string& message) const {
    WSB_LOG(logger(), foundation::log::kWarning) << message;
    WorkspaceHost::MessageHandler handler;
    {
        std::lock_guard<std::mutex> lock(handlerMutex);
        handler = messageHandler;
    }
    if (handler)
        handler(message);
}

void PythonWorkspace::edit(const char* helper, const std::string& failure, const std::string& first,
                           const std::string& second) {
    PyRef editFn(function(helper));
    PyRef a = fromUtf8(first);
    PyRef b = fromUtf8(second);
    PyRef refusal;
    {
        // A value's text is evaluated, which may run for as long as the user's code likes.
        const auto budget = interruptible(*interpreter);
        if (a && b) {
            refusal = PyRef(
                PyObject_CallFunctionObjArgs(editFn.get(), ns.get(), a.get(), b.get(), nullptr));
        }
    }
    if (!refusal)
        report(failure + takeError());
    else if (refusal.get() != Py_None)
        report(toUtf8(refusal.get()));
    raiseChanges();
}

void PythonWorkspace::rename(const std::string& oldName, const std::string& newName) {
    edit("rename", "Cannot rename '" + oldName + "': ", oldName, newName);
}

void PythonWorkspace::assign(const std::string& name, const std::string& text) {
    edit("assign", "Cannot set '" + name + "': ", name, text);
}

std::size_t PythonWorkspace::remove(const std::vector<std::string>& names) {
    PyRef deleteFn(function("delete"));
    PyRef list = py::listOf(names);
    PyRef count(list ? PyObject_CallFunctionObjArgs(deleteFn.get(), ns.get(), list.get(), nullptr)
                     : nullptr);
    std::size_t deleted = 0;
    if (count && PyLong_Check(count.get()))
        deleted = PyLong_AsSize_t(count.get());
    else
        report("Cannot delete variables: " + takeError());
    PyErr_Clear();
    raiseChanges();
    return deleted;
}

std::pair<bool, std::string> PythonWorkspace::editText(const std::string& name) {
    PyRef textFn(function("edit_text"));
    PyRef budgetExceeded(function("BudgetExceeded"));
    PyRef pyName = fromUtf8(name);
    PyRef limit(PyLong_FromSize_t(WorkspaceHost::kEditTextLimit));
    PyRef answer;
    if (pyName && limit) {
        // A repr of a builtin value; the budget only guards against a pathological one.
        PythonInterpreter::Budget budget(*interpreter, options.reprBudget * 4, budgetExceeded.get(),
                                         false);
        answer = PyRef(PyObject_CallFunctionObjArgs(textFn.get(), ns.get(), pyName.get(),
                                                    limit.get(), nullptr));
    }
    if (!answer || !PyTuple_Check(answer.get()) || PyTuple_GET_SIZE(answer.get()) != 2) {
        const std::string error = PyErr_Occurred() ? takeError() : "no answer";
        WSB_LOG(logger(), foundation::log::kWarning)
            << "Cannot make the edit text of " << name << ": " << error;
        return {false, "its text could not be made (" + error + ")"};
    }
    PyObject* text = PyTuple_GET_ITEM(answer.get(), 0);
    if (PyUnicode_Check(text))
        return {true, toUtf8(text)};
    return {false, toUtf8(PyTuple_GET_ITEM(answer.get(), 1))};
}

WorkspaceHost::ConsoleOutput PythonWorkspace::run(const std::string& code, bool capture,
                                                  bool echo) {
    PyRef runFn(function("run"));
    PyRef source = fromUtf8(code);
    PyRef filename(PyUnicode_FromString(capture ? "<console>" : "<stdin>"));
    PyRef result;
    if (capture && interruptRequested.exchange(false)) {
        PyErr_SetNone(PyExc_KeyboardInterrupt);
    } else {
        const auto budget = interruptible(*interpreter);
        if (source && filename) {
            result = PyRef(PyObject_CallFunctionObjArgs(runFn.get(), ns.get(), source.get(),
                                                        filename.get(), boolean(echo),
                                                        boolean(capture), nullptr));
        }
    }
    interruptRequested = false;
    WorkspaceHost::ConsoleOutput output;
    if (result && PyTuple_Check(result.get()) && PyTuple_GET_SIZE(result.get()) == 3) {
        output.text = toUtf8(PyTuple_GET_ITEM(result.get(), 0));
        output.failed = PyTuple_GET_ITEM(result.get(), 1) == Py_True;
        PyObject* runs = PyTuple_GET_ITEM(result.get(), 2);
        for (Py_ssize_t i = 0; PyList_Check(runs) && i < PyList_GET_SIZE(runs); ++i) {
            PyObject* run = PyList_GET_ITEM(runs, i);
            if (PyTuple_Check(run) && PyTuple_GET_SIZE(run) == 2)
                output.runs.emplace_back(PyTuple_GET_ITEM(run, 0) == Py_True,
                                         toUtf8(PyTuple_GET_ITEM(run, 1)));
        }
    } else {
        // An interruption between the helper's own steps lands here.
        output.text = "The command was broken off: " + takeError() + "\n";
        output.failed = true;
        output.runs = {{true, output.text}};
        if (!capture)
            PySys_WriteStderr("%s", output.text.c_str());
    }
    raiseChanges();
    return output;
}

bool PythonWorkspace::runScript(const std::string& path) {
    PyRef scriptFn(function("run_script"));
    PyRef pyPath = fromUtf8(path);
    PyRef failed;
    {
        const auto budget = interruptible(*interpreter);
        if (pyPath)
            failed = PyRef(
                PyObject_CallFunctionObjArgs(scriptFn.get(), ns.get(), pyPath.get(), nullptr));
    }
    if (!failed)
        PySys_WriteStderr("The script %s was broken off: %s\n", path.c_str(), takeError().c_str());
    raiseChanges();
    return failed.get() == Py_False;
}

bool PythonWorkspace::needsMoreInput(const std::string& source) {
    PyRef checkFn(function("needs_more_input"));
    PyRef text = fromUtf8(source);
    PyRef more(text ? PyObject_CallFunctionObjArgs(checkFn.get(), text.get(), nullptr) : nullptr);
    if (!more)
        PyErr_Clear();
    return more.get() == Py_True;
}

} // namespace wsbrowser
