#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace wsbrowser {

// The embedded CPython interpreter and the one thread that runs all Python code. The thread
// initialises the interpreter (isolated configuration, default module search path), then runs
// the posted tasks in posting order, holding the GIL only while a task runs; stop() finalises
// the interpreter on the same thread. A watchdog can break into a task that runs too long by
// raising an exception in the interpreter thread at its next bytecode boundary, which also
// serves Ctrl-C (see Budget and interrupt()).
// Thread-safe: any thread may post, call, interrupt or stop; tasks run on the interpreter thread.
class PythonInterpreter {
public:
    // Starts the thread and waits until the interpreter is ready; throws std::runtime_error
    // with CPython's message when initialisation fails.
    PythonInterpreter();
    // Stops the interpreter if that has not been done.
    ~PythonInterpreter();
    PythonInterpreter(const PythonInterpreter&) = delete;
    PythonInterpreter& operator=(const PythonInterpreter&) = delete;

    // Queues `task` for the interpreter thread. Returns false, dropping it, once stopping began.
    bool post(std::function<void()> task);

    // Runs `task` on the interpreter thread and returns its result, rethrowing what it threw.
    // Runs it at once when already on that thread. Throws std::runtime_error once stopped.
    template <class F> auto call(F task) -> std::invoke_result_t<F> {
        using R = std::invoke_result_t<F>;
        if (onInterpreterThread())
            return task();
        auto promise = std::make_shared<std::promise<R>>();
        std::future<R> result = promise->get_future();
        const bool queued = post([promise, task = std::move(task)]() mutable {
            try {
                if constexpr (std::is_void_v<R>) {
                    task();
                    promise->set_value();
                } else {
                    promise->set_value(task());
                }
            } catch (...) {
                promise->set_exception(std::current_exception());
            }
        });
        if (!queued)
            throw std::runtime_error("the interpreter has stopped");
        return result.get();
    }

    bool onInterpreterThread() const;

    // Runs the tasks queued so far, refuses new ones, finalises the interpreter and joins its
    // thread. Must not be called from a task. Calling it again does nothing.
    void stop();

    // Breaks into user code that runs now under a Budget marked interruptible by raising
    // KeyboardInterrupt in it. Returns false when no such code runs.
    bool interrupt();

    // While it lives (on the interpreter thread, around a call into Python), code that runs
    // longer than `limit` gets `exception` (a borrowed CPython exception type, given as void*
    // to keep CPython out of this header) raised into it, and again after each further `limit`
    // until it returns. `interruptible` lets interrupt() break in as well. A pending exception
    // that was not delivered in time is withdrawn when the budget ends. Not thread-safe; lives
    // in one scope on the interpreter thread.
    class Budget {
    public:
        Budget(PythonInterpreter& interpreter, std::chrono::milliseconds limit, void* exception,
               bool interruptible);
        ~Budget();
        Budget(const Budget&) = delete;
        Budget& operator=(const Budget&) = delete;

        // Whether the limit ran out at least once (an exception was raised into the code).
        bool expired() const;

    private:
        PythonInterpreter& mInterpreter;
        std::uint64_t mToken = 0;
    };

private:
    class Impl;
    std::shared_ptr<Impl> mImpl;
};

} // namespace wsbrowser
