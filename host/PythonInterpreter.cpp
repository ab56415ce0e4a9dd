#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "PythonInterpreter.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/ThreadName.hpp>

#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include <pthread.h>

#ifndef WSB_PYTHON_EXECUTABLE
#define WSB_PYTHON_EXECUTABLE "python3"
#endif

#if defined(__SANITIZE_ADDRESS__)
// The interpreter keeps some allocations until the process ends (interned objects, the import
// machinery, extension modules that cannot be unloaded); they are not this program's leaks.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libpython3\nleak:_multiarray_umath\nleak:site-packages\nleak:dist-packages\n";
}
#endif

namespace wsbrowser {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::PythonInterpreter");
    return instance;
}

using Clock = std::chrono::steady_clock;

// Sent to the interpreter thread with every exception the watchdog raises into it: a blocking
// call there (sleep, a socket read, waiting on a lock) returns with EINTR, CPython runs the
// Python-level handler, and the pending exception surfaces in it, so the call ends instead of
// blocking on until it is done.
constexpr int kWakeSignal = SIGUSR1;

// Installs a do-nothing Python handler for the wake signal and lets the signal reach this
// thread. CPython runs Python-level signal handlers only in the thread that initialised it,
// which is this one. Without it, only code that reaches a bytecode boundary can be broken into.
bool installWakeHandler() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, kWakeSignal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    const int failed = PyRun_SimpleString("import signal as _s\n"
                                          "_s.signal(_s.SIGUSR1, lambda _n, _f: None)\n"
                                          "del _s\n");
    return failed == 0;
}

} // namespace

class PythonInterpreter::Impl {
public:
    void run(std::promise<void>& ready);
    void watch();

    std::mutex mutex; // guards tasks, stopping, joined
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    bool stopping = false;
    bool joined = false;
    std::thread thread;
    std::thread::id threadId;
    unsigned long pythonThreadId = 0;
    pthread_t nativeThread{};
    bool wakeHandler = false; // whether blocking calls can be broken into

    // The watchdog's state; guarded by watchMutex. The watchdog only raises into the
    // interpreter thread while holding the GIL, and the budget ends while holding it too, so an
    // exception is never raised for a budget that has ended.
    std::mutex watchMutex;
    std::condition_variable watchWake;
    bool watchActive = false;
    bool watchStop = false;
    bool interruptible = false;
    std::uint64_t watchToken = 0;
    std::uint64_t expiredToken = 0; // the token of the last budget that ran out
    Clock::time_point deadline = Clock::time_point::max();
    std::chrono::milliseconds period{0};
    PyObject* watchException = nullptr;
    std::thread watchdog;
};

void PythonInterpreter::Impl::run(std::promise<void>& ready) {
    foundation::core::diag::setCurrentThreadName("wsbPython");
    PyConfig config;
    PyConfig_InitIsolatedConfig(&config);
    config.buffered_stdio = 0;          // output interleaves with the host's own in order
    config.install_signal_handlers = 0; // the host owns the signals
    config.parse_argv = 0;
    // The program name lets CPython find the standard library and the site packages exactly
    // as the interpreter this host was configured with would.
    PyStatus status = PyConfig_SetBytesString(&config, &config.program_name, WSB_PYTHON_EXECUTABLE);
    if (!PyStatus_Exception(status))
        status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status)) {
        const std::string message = std::string("cannot start the Python interpreter: ") +
                                    (status.err_msg ? status.err_msg : "unknown error");
        ready.set_exception(std::make_exception_ptr(std::runtime_error(message)));
        return;
    }
    pythonThreadId = PyThread_get_thread_ident();
    nativeThread = pthread_self();
    wakeHandler = installWakeHandler();
    if (!wakeHandler) {
        PyErr_Clear();
        WSB_LOG(logger(), foundation::log::kWarning)
            << "Blocking calls cannot be broken into: the wake signal handler was refused";
    }
    PyThreadState* state = PyEval_SaveThread(); // the GIL is free whenever no task runs
    watchdog = std::thread([this] { watch(); });
    ready.set_value();

    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait(lock, [this] { return stopping || !tasks.empty(); });
            if (tasks.empty())
                break;
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        PyEval_RestoreThread(state);
        try {
            task();
        } catch (const std::exception& e) {
            WSB_LOG(logger(), foundation::log::kError) << "A host task failed: " << e.what();
        } catch (...) {
            WSB_LOG(logger(), foundation::log::kError) << "A host task failed";
        }
        if (PyErr_Occurred()) {
            WSB_LOG(logger(), foundation::log::kError) << "A host task left a Python error set";
            PyErr_Clear();
        }
        task = nullptr; // whatever it captured goes while the GIL is held
        state = PyEval_SaveThread();
    }

    {
        std::lock_guard<std::mutex> lock(watchMutex);
        watchStop = true;
    }
    watchWake.notify_all();
    watchdog.join();
    PyEval_RestoreThread(state);
    if (Py_FinalizeEx() < 0)
        WSB_LOG(logger(), foundation::log::kWarning) << "Finalising the interpreter failed";
}

void PythonInterpreter::Impl::watch() {
    foundation::core::diag::setCurrentThreadName("wsbWatchdog");
    std::unique_lock<std::mutex> lock(watchMutex);
    while (!watchStop) {
        if (!watchActive) {
            watchWake.wait(lock);
            continue;
        }
        if (Clock::now() < deadline) {
            watchWake.wait_until(lock, deadline);
            continue;
        }
        const std::uint64_t token = watchToken;
        lock.unlock();
        // The interpreter thread gives the GIL up at its next bytecode boundary once asked.
        const PyGILState_STATE gil = PyGILState_Ensure();
        lock.lock();
        if (watchActive && watchToken == token && !watchStop) {
            PyThreadState_SetAsyncExc(pythonThreadId, watchException);
            expiredToken = token;
            if (wakeHandler)
                pthread_kill(nativeThread, kWakeSignal);
            deadline = period.count() > 0 ? Clock::now() + period : Clock::time_point::max();
        }
        lock.unlock();
        PyGILState_Release(gil);
        lock.lock();
    }
}

PythonInterpreter::PythonInterpreter() : mImpl(std::make_shared<Impl>()) {
    std::promise<void> ready;
    std::future<void> started = ready.get_future();
    mImpl->thread = std::thread([impl = mImpl.get(), &ready] { impl->run(ready); });
    mImpl->threadId = mImpl->thread.get_id();
    try {
        started.get();
    } catch (...) {
        mImpl->thread.join();
        throw;
    }
}

PythonInterpreter::~PythonInterpreter() {
    try {
        stop();
    } catch (const std::exception& e) {
        WSB_LOG(logger(), foundation::log::kError)
            << "Stopping the interpreter failed: " << e.what();
    }
}

bool PythonInterpreter::post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mImpl->mutex);
        if (mImpl->stopping)
            return false;
        mImpl->tasks.push_back(std::move(task));
    }
    mImpl->wake.notify_one();
    return true;
}

bool PythonInterpreter::onInterpreterThread() const {
    return std::this_thread::get_id() == mImpl->threadId;
}

void PythonInterpreter::stop() {
    if (onInterpreterThread())
        throw std::logic_error("the interpreter cannot stop itself from one of its tasks");
    {
        std::lock_guard<std::mutex> lock(mImpl->mutex);
        if (mImpl->joined)
            return;
        mImpl->stopping = true;
        mImpl->joined = true;
    }
    mImpl->wake.notify_one();
    if (mImpl->thread.joinable())
        mImpl->thread.join();
}

bool PythonInterpreter::interrupt() {
    {
        std::lock_guard<std::mutex> lock(mImpl->watchMutex);
        if (!mImpl->watchActive || !mImpl->interruptible)
            return false;
        mImpl->watchException = PyExc_KeyboardInterrupt;
        mImpl->deadline = Clock::now();
    }
    mImpl->watchWake.notify_all();
    return true;
}

PythonInterpreter::Budget::Budget(PythonInterpreter& interpreter, std::chrono::milliseconds limit,
                                  void* exception, bool interruptible)
    : mInterpreter(interpreter) {
    Impl& impl = *mInterpreter.mImpl;
    {
        std::lock_guard<std::mutex> lock(impl.watchMutex);
        impl.watchActive = true;
        mToken = ++impl.watchToken;
        impl.period = limit;
        impl.deadline = limit.count() > 0 ? Clock::now() + limit : Clock::time_point::max();
        impl.watchException = static_cast<PyObject*>(exception);
        impl.interruptible = interruptible;
    }
    impl.watchWake.notify_all();
}

bool PythonInterpreter::Budget::expired() const {
    Impl& impl = *mInterpreter.mImpl;
    std::lock_guard<std::mutex> lock(impl.watchMutex);
    return impl.expiredToken == mToken;
}

PythonInterpreter::Budget::~Budget() {
    Impl& impl = *mInterpreter.mImpl;
    {
        std::lock_guard<std::mutex> lock(impl.watchMutex);
        impl.watchActive = false;
        ++impl.watchToken;
    }
    // An exception raised just before the end may not have been delivered yet; it must not
    // surface in whatever Python runs next.
    PyThreadState_SetAsyncExc(impl.pythonThreadId, nullptr);
}

} // namespace wsbrowser
