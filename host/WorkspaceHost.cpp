#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "WorkspaceHost.hpp"

#include "HostPythonSource.hpp"

#include <workspace_browser/datamodel/CallbackManager.hpp>
#include <workspace_browser/datamodel/WSColumn.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <future>
#include <mutex>
#include <stdexcept>
#include <string_view>

namespace wsbrowser {

using namespace workspace_browser_startup;

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::WorkspaceHost");
    return instance;
}

constexpr const char* kModuleName = "_wsbrowser_host";
constexpr const char* kModuleFile = "<wsbrowser_host>";

// An owned reference; used only on the interpreter thread.
class Ref {
public:
    Ref() = default;
    explicit Ref(PyObject* object) : mObject(object) {}
    Ref(Ref&& other) noexcept : mObject(other.release()) {}
    Ref& operator=(Ref&& other) noexcept {
        Py_XDECREF(mObject);
        mObject = other.release();
        return *this;
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() { Py_XDECREF(mObject); }

    PyObject* get() const { return mObject; }
    PyObject* release() {
        PyObject* object = mObject;
        mObject = nullptr;
        return object;
    }
    explicit operator bool() const { return mObject != nullptr; }

private:
    PyObject* mObject = nullptr;
};

// The pending Python error as text (and cleared).
std::string takeError() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    std::string text = "unknown error";
    if (value) {
        if (PyObject* str = PyObject_Str(value)) {
            if (const char* utf8 = PyUnicode_AsUTF8(str))
                text = utf8;
            Py_DECREF(str);
        }
    }
    PyErr_Clear();
    Py_XDECREF(type);
    Py_XDECREF(value);
    Py_XDECREF(traceback);
    return text;
}

// A str as UTF-8; text that is not valid Unicode (lone surrogates) is escaped, never lost.
std::string toUtf8(PyObject* object) {
    if (!object || !PyUnicode_Check(object))
        return {};
    Py_ssize_t size = 0;
    if (const char* data = PyUnicode_AsUTF8AndSize(object, &size))
        return std::string(data, static_cast<std::size_t>(size));
    PyErr_Clear();
    Ref bytes(PyUnicode_AsEncodedString(object, "utf-8", "backslashreplace"));
    if (!bytes) {
        PyErr_Clear();
        return "?";
    }
    return std::string(PyBytes_AS_STRING(bytes.get()),
                       static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
}

Ref fromUtf8(const std::string& text) {
    return Ref(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

Ref listOf(const std::vector<std::string>& texts) {
    Ref list(PyList_New(static_cast<Py_ssize_t>(texts.size())));
    if (!list)
        return list;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        Ref item = fromUtf8(texts[i]);
        if (!item)
            return Ref();
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), item.release());
    }
    return list;
}

std::vector<std::string> stringsOf(PyObject* sequence) {
    std::vector<std::string> texts;
    if (!sequence || !PyList_Check(sequence))
        return texts;
    const Py_ssize_t count = PyList_GET_SIZE(sequence);
    texts.reserve(static_cast<std::size_t>(count));
    for (Py_ssize_t i = 0; i < count; ++i)
        texts.push_back(toUtf8(PyList_GET_ITEM(sequence, i)));
    return texts;
}

PyObject* boolean(bool flag) {
    return flag ? Py_True : Py_False;
}

// What the grid shows for a variable whose texts could not be made at all.
WSVariable unavailable(const std::string& name) {
    WSVariable record;
    record.name = name;
    record.value = "<unavailable>";
    record.isSummary = true;
    record.iconClass = "wsb-icon-object";
    return record;
}

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

} // namespace

class WorkspaceHost::Impl {
public:
    Impl(std::shared_ptr<PythonInterpreter> interpreter, Options options)
        : interpreter(std::move(interpreter)), options(options) {}

    // All of these run on the interpreter thread.
    void load();
    void release();
    PyObject* function(const char* name) const;
    void raise(const WSListenersSubscriptionCallbackArg& batch) const;
    void raiseChanges();
    void resync();
    std::vector<WSVariable> describe(const std::vector<std::string>& names,
                                     const std::vector<std::string>& fields, bool computeStats,
                                     double statsLimit);
    void report(const std::string& message) const;
    std::pair<std::string, bool> run(const std::string& code, bool capture, bool echo);
    bool isOpen() const { return module.get() != nullptr; }

    std::shared_ptr<PythonInterpreter> interpreter;
    const Options options;
    CallbackManager<WSListenersSubscriptionCallbackArg> listeners;
    mutable std::mutex handlerMutex; // guards messageHandler
    MessageHandler messageHandler;
    std::mutex closeMutex; // serialises close()
    bool closed = false;   // guarded by closeMutex

    // Interpreter thread only.
    Ref module;
    Ref ns;
    Ref tracker;
};

void WorkspaceHost::Impl::load() {
    Ref code(Py_CompileString(hostPythonSource(), kModuleFile, Py_file_input));
    if (!code)
        throw std::runtime_error("cannot compile the host's Python helpers: " + takeError());
    Ref loaded(PyImport_ExecCodeModuleEx(kModuleName, code.get(), kModuleFile));
    if (!loaded)
        throw std::runtime_error("cannot load the host's Python helpers: " + takeError());
    PyObject* main = PyImport_AddModule("__main__"); // borrowed
    if (!main)
        throw std::runtime_error("no __main__ module: " + takeError());
    Ref trackerType(PyObject_GetAttrString(loaded.get(), "Tracker"));
    Ref made(trackerType ? PyObject_CallFunctionObjArgs(trackerType.get(), boolean(options.showAll),
                                                        nullptr)
                         : nullptr);
    if (!made)
        throw std::runtime_error("cannot create the change tracker: " + takeError());
    ns = Ref(Py_NewRef(PyModule_GetDict(main)));
    tracker = std::move(made);
    module = std::move(loaded);
}

void WorkspaceHost::Impl::release() {
    tracker = Ref();
    ns = Ref();
    module = Ref();
}

PyObject* WorkspaceHost::Impl::function(const char* name) const {
    PyObject* found = PyObject_GetAttrString(module.get(), name);
    if (!found)
        throw std::runtime_error(std::string("host helper missing: ") + name + ": " + takeError());
    return found;
}

void WorkspaceHost::Impl::raise(const WSListenersSubscriptionCallbackArg& batch) const {
    if (batch.empty())
        return;
    for (const auto& listener : listeners.copyCallbacks()) {
        try {
            listener(batch);
        } catch (const std::exception& e) {
            WSB_LOG(logger(), foundation::log::kError)
                << "A workspace listener failed: " << e.what();
        }
    }
}

void WorkspaceHost::Impl::raiseChanges() {
    Ref result(PyObject_CallMethod(tracker.get(), "scan", "O", ns.get()));
    if (!result || !PyTuple_Check(result.get()) || PyTuple_GET_SIZE(result.get()) != 3) {
        WSB_LOG(logger(), foundation::log::kError)
            << "Scanning the workspace failed: " << (PyErr_Occurred() ? takeError() : "");
        return;
    }
    WSListenersSubscriptionCallbackArg batch;
    if (PyTuple_GET_ITEM(result.get(), 2) == Py_True) {
        batch.push_back({EventType::WORKSPACE_CLEARED, {}});
    } else {
        auto changed = stringsOf(PyTuple_GET_ITEM(result.get(), 0));
        auto deleted = stringsOf(PyTuple_GET_ITEM(result.get(), 1));
        if (!changed.empty())
            batch.push_back({EventType::VARIABLE_CHANGED, std::move(changed)});
        if (!deleted.empty())
            batch.push_back({EventType::VARIABLE_DELETED, std::move(deleted)});
    }
    raise(batch);
}

void WorkspaceHost::Impl::resync() {
    Ref result(PyObject_CallMethod(tracker.get(), "resync", "O", ns.get()));
    if (!result || !PyTuple_Check(result.get()) || PyTuple_GET_SIZE(result.get()) != 3) {
        WSB_LOG(logger(), foundation::log::kError)
            << "Scanning the workspace failed: " << (PyErr_Occurred() ? takeError() : "");
        return;
    }
    WSListenersSubscriptionCallbackArg batch;
    if (PyTuple_GET_ITEM(result.get(), 2) == Py_True)
        batch.push_back({EventType::WORKSPACE_CLEARED, {}});
    auto all = stringsOf(PyTuple_GET_ITEM(result.get(), 0));
    auto deleted = stringsOf(PyTuple_GET_ITEM(result.get(), 1));
    if (!deleted.empty())
        batch.push_back({EventType::VARIABLE_DELETED, std::move(deleted)});
    if (!all.empty())
        batch.push_back({EventType::VARIABLE_CHANGED, std::move(all)});
    raise(batch);
}

std::vector<WSVariable> WorkspaceHost::Impl::describe(const std::vector<std::string>& names,
                                                      const std::vector<std::string>& fields,
                                                      bool computeStats, double statsLimit) {
    std::vector<WSVariable> records;
    records.reserve(names.size());
    Ref describeFn(function("describe"));
    Ref budgetExceeded(function("BudgetExceeded"));
    Ref vanished(PyObject_GetAttrString(tracker.get(), "vanished"));
    Ref pyFields = listOf(fields);
    Ref limit(PyFloat_FromDouble(statsLimit));
    if (!vanished || !pyFields || !limit)
        throw std::runtime_error("cannot prepare a fetch: " + takeError());
    for (const std::string& name : names) {
        Ref pyName = fromUtf8(name);
        Ref result;
        if (pyName) {
            // A repr that never returns is broken off when the budget runs out; one stuck in C
            // code that never reaches a bytecode boundary cannot be, and holds the fetch up.
            PythonInterpreter::Budget budget(*interpreter, options.reprBudget, budgetExceeded.get(),
                                             false);
            result = Ref(PyObject_CallFunctionObjArgs(
                describeFn.get(), ns.get(), pyName.get(), pyFields.get(), boolean(computeStats),
                limit.get(), boolean(options.showAll), nullptr));
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
        if (record.isDirty && pyName && PySet_Add(vanished.get(), pyName.get()) < 0)
            PyErr_Clear();
        records.push_back(std::move(record));
    }
    return records;
}

void WorkspaceHost::Impl::report(const std::string& message) const {
    WSB_LOG(logger(), foundation::log::kWarning) << message;
    MessageHandler handler;
    {
        std::lock_guard<std::mutex> lock(handlerMutex);
        handler = messageHandler;
    }
    if (handler)
        handler(message);
}

std::pair<std::string, bool> WorkspaceHost::Impl::run(const std::string& code, bool capture,
                                                      bool echo) {
    Ref runFn(function("run"));
    Ref source = fromUtf8(code);
    Ref filename(PyUnicode_FromString(capture ? "<console>" : "<stdin>"));
    Ref result;
    {
        // No time limit: user code may run as long as it likes, but Ctrl-C breaks in.
        PythonInterpreter::Budget budget(*interpreter, std::chrono::milliseconds(0),
                                         PyExc_KeyboardInterrupt, true);
        if (source && filename) {
            result = Ref(PyObject_CallFunctionObjArgs(runFn.get(), ns.get(), source.get(),
                                                      filename.get(), boolean(echo),
                                                      boolean(capture), nullptr));
        }
    }
    std::pair<std::string, bool> outcome{"", true};
    if (result && PyTuple_Check(result.get()) && PyTuple_GET_SIZE(result.get()) == 2) {
        outcome.first = toUtf8(PyTuple_GET_ITEM(result.get(), 0));
        outcome.second = PyTuple_GET_ITEM(result.get(), 1) == Py_True;
    } else {
        // An interruption between the helper's own steps lands here.
        outcome.first = "The command was broken off: " + takeError() + "\n";
        if (!capture)
            PySys_WriteStderr("%s", outcome.first.c_str());
    }
    raiseChanges();
    return outcome;
}

WorkspaceHost::WorkspaceHost(std::shared_ptr<PythonInterpreter> interpreter, Options options)
    : mImpl(std::make_shared<Impl>(std::move(interpreter), options)) {
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
        // The interpreter stopped first and took the objects with it: drop the pointers
        // without touching them.
        mImpl->tracker.release();
        mImpl->ns.release();
        mImpl->module.release();
    }
}

WSListenersSubscribeFunction WorkspaceHost::subscribeFunction() const {
    std::weak_ptr<Impl> weak = mImpl;
    return [weak](WSListenersSubscriptionCallback listener) {
        if (auto impl = weak.lock())
            return impl->listeners.registerCallback(std::move(listener));
        return Connection();
    };
}

WorkspaceDisplayCallback WorkspaceHost::displayFunction() const {
    std::weak_ptr<Impl> weak = mImpl;
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
                    records.push_back(unavailable(name));
            }
            if (onResult)
                onResult(records);
        });
    };
}

TriggerWorkspaceEventFunction WorkspaceHost::triggerFunction() const {
    std::weak_ptr<Impl> weak = mImpl;
    return [weak] {
        if (auto impl = weak.lock()) {
            impl->interpreter->post([impl] {
                if (impl->isOpen())
                    impl->resync();
            });
        }
    };
}

Connection WorkspaceHost::subscribe(WSListenersSubscriptionCallback listener) {
    return subscribeFunction()(std::move(listener));
}

void WorkspaceHost::fetch(const std::vector<std::string>& names, std::vector<std::string> fields,
                          bool computeStats, double statsLimit,
                          WorkspaceDisplayResultCallback onResult) {
    displayFunction()(names, std::move(fields), computeStats, statsLimit, std::move(onResult));
}

void WorkspaceHost::trigger() {
    triggerFunction()();
}

void WorkspaceHost::rename(std::string oldName, std::string newName) {
    mImpl->interpreter->post(
        [impl = mImpl, oldName = std::move(oldName), newName = std::move(newName)] {
            if (!impl->isOpen())
                return;
            Ref renameFn(impl->function("rename"));
            Ref from = fromUtf8(oldName);
            Ref to = fromUtf8(newName);
            Ref refusal(from && to ? PyObject_CallFunctionObjArgs(renameFn.get(), impl->ns.get(),
                                                                  from.get(), to.get(), nullptr)
                                   : nullptr);
            if (!refusal)
                impl->report("Cannot rename '" + oldName + "': " + takeError());
            else if (refusal.get() != Py_None)
                impl->report(toUtf8(refusal.get()));
            impl->raiseChanges();
        });
}

void WorkspaceHost::editValue(std::string name, std::string text) {
    mImpl->interpreter->post([impl = mImpl, name = std::move(name), text = std::move(text)] {
        if (!impl->isOpen())
            return;
        Ref assignFn(impl->function("assign"));
        Ref pyName = fromUtf8(name);
        Ref pyText = fromUtf8(text);
        Ref failure;
        {
            PythonInterpreter::Budget budget(*impl->interpreter, std::chrono::milliseconds(0),
                                             PyExc_KeyboardInterrupt, true);
            if (pyName && pyText) {
                failure = Ref(PyObject_CallFunctionObjArgs(assignFn.get(), impl->ns.get(),
                                                           pyName.get(), pyText.get(), nullptr));
            }
        }
        if (!failure)
            impl->report("Cannot set '" + name + "': " + takeError());
        else if (failure.get() != Py_None)
            impl->report(toUtf8(failure.get()));
        impl->raiseChanges();
    });
}

void WorkspaceHost::setMessageHandler(MessageHandler handler) {
    std::lock_guard<std::mutex> lock(mImpl->handlerMutex);
    mImpl->messageHandler = std::move(handler);
}

void WorkspaceHost::runCode(std::string code, const OutputCallback& done) {
    const bool queued = mImpl->interpreter->post([impl = mImpl, code = std::move(code), done] {
        if (!impl->isOpen()) {
            if (done)
                done("The workspace is closed.\n", true);
            return;
        }
        auto [output, failed] = impl->run(code, true, true);
        if (done)
            done(std::move(output), failed);
    });
    if (!queued && done)
        done("The workspace is closed.\n", true);
}

std::pair<std::string, bool> WorkspaceHost::execute(const std::string& code) {
    auto promise = std::make_shared<std::promise<std::pair<std::string, bool>>>();
    auto result = promise->get_future();
    runCode(code, [promise](std::string output, bool failed) {
        promise->set_value({std::move(output), failed});
    });
    return result.get();
}

bool WorkspaceHost::runScript(const std::string& path) {
    return mImpl->interpreter->call([impl = mImpl, path] {
        if (!impl->isOpen())
            return false;
        Ref scriptFn(impl->function("run_script"));
        Ref pyPath = fromUtf8(path);
        Ref failed;
        {
            PythonInterpreter::Budget budget(*impl->interpreter, std::chrono::milliseconds(0),
                                             PyExc_KeyboardInterrupt, true);
            if (pyPath)
                failed = Ref(PyObject_CallFunctionObjArgs(scriptFn.get(), impl->ns.get(),
                                                          pyPath.get(), nullptr));
        }
        if (!failed)
            PySys_WriteStderr("The script %s was broken off: %s\n", path.c_str(),
                              takeError().c_str());
        impl->raiseChanges();
        return failed.get() == Py_False;
    });
}

bool WorkspaceHost::needsMoreInput(const std::string& source) {
    return mImpl->interpreter->call([impl = mImpl, source] {
        if (!impl->isOpen())
            return false;
        Ref checkFn(impl->function("needs_more_input"));
        Ref text = fromUtf8(source);
        Ref more(text ? PyObject_CallFunctionObjArgs(checkFn.get(), text.get(), nullptr) : nullptr);
        if (!more)
            PyErr_Clear();
        return more.get() == Py_True;
    });
}

void WorkspaceHost::runTerminalCommand(const std::string& source) {
    mImpl->interpreter->call([impl = mImpl, source] {
        if (impl->isOpen())
            impl->run(source, false, true);
    });
}

std::vector<std::string> WorkspaceHost::variableNames() {
    return mImpl->interpreter->call([impl = mImpl] {
        if (!impl->isOpen())
            return std::vector<std::string>();
        Ref names(PyObject_CallMethod(impl->tracker.get(), "names", "O", impl->ns.get()));
        if (!names)
            throw std::runtime_error("cannot list the workspace: " + takeError());
        return stringsOf(names.get());
    });
}

} // namespace wsbrowser
