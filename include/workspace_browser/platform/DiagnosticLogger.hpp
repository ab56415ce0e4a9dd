#pragma once

#include <workspace_browser/Export.hpp>

#include <chrono>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace foundation::log {

namespace detail {
class RecordPump;
}

// Severity levels of diagnostic records: lower numbers are more important.
inline constexpr int kError = 1;
inline constexpr int kWarning = 2;
inline constexpr int kInfo = 3;
inline constexpr int kOrdinary = 4;
inline constexpr int kDetail = 5;

// A named source of diagnostic records routed through Boost.Log's core with the attributes
// "Channel" (the name) and "Severity" (the level). Thread-safe: one logger may be shared by
// any number of threads.
class WSB_EXPORT basic_diagnostic_logger {
public:
    explicit basic_diagnostic_logger(std::string name);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(const basic_diagnostic_logger&);
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&);

    const std::string& name() const;
    // Whether a record of this level would be kept by the core's and the sinks' filters.
    bool enabled(int level) const;
    // Emits one record with this text, if a record of this level is kept.
    void write(int level, std::string_view text) const;

    class Impl;

private:
    friend class detail::RecordPump;

    std::string mName;
    std::shared_ptr<Impl> mImpl;
};

namespace detail {
// Collects the text of one record; the record is opened before any formatting happens, so
// a filtered-out record costs no formatting at all. Not thread-safe; lives inside one statement.
class WSB_EXPORT RecordPump {
public:
    RecordPump(const basic_diagnostic_logger& logger, int level);
    ~RecordPump();
    RecordPump(const RecordPump&) = delete;
    RecordPump& operator=(const RecordPump&) = delete;

    bool active() const { return mActive; }
    std::ostream& stream() { return mStream; }
    void done();

private:
    struct OpenRecord;
    std::unique_ptr<OpenRecord> mRecord;
    std::ostringstream mStream;
    bool mActive = false;
};
} // namespace detail

// A timing record for the "zentra::datatoolsperf::" loggers: on destruction it writes the
// source file, the full function signature, the line and the elapsed time. Not thread-safe;
// one per scope.
class WSB_EXPORT ScopedTrace {
public:
    ScopedTrace(const basic_diagnostic_logger& logger, const char* file, const char* function,
                int line, int level = kOrdinary);
    ~ScopedTrace();
    ScopedTrace(const ScopedTrace&) = delete;
    ScopedTrace& operator=(const ScopedTrace&) = delete;

private:
    const basic_diagnostic_logger* mLogger; // null when the level was disabled at entry
    const char* mFile;
    const char* mFunction;
    int mLine;
    int mLevel;
    std::chrono::steady_clock::time_point mStart;
};

// Adds a Boost.Log text sink on `out` (standard error when null) keeping records whose level is
// at most `maxLevel` and whose logger name starts with `namePrefix`. Each line reads
// "<level> <name>: <text>". The sink stays until the returned handle is released.
// Thread-safe.
WSB_EXPORT std::shared_ptr<void> addConsoleSink(int maxLevel, const std::string& namePrefix = {},
                                                std::ostream* out = nullptr);

} // namespace foundation::log

// Writes one record: WSB_LOG(logger, 4) << "text " << value; the stream expression is evaluated
// only when the record is kept.
#define WSB_LOG(logger, level)                                                                     \
    for (::foundation::log::detail::RecordPump wsb_record_pump_((logger), (level));               \
         wsb_record_pump_.active(); wsb_record_pump_.done())                                       \
    wsb_record_pump_.stream()

#define WSB_TRACE_CONCAT2(a, b) a##b
#define WSB_TRACE_CONCAT(a, b) WSB_TRACE_CONCAT2(a, b)
// Opens a scoped timing record carrying the given source file name, the enclosing function's
// full signature and the line.
#define WSB_TRACE_SCOPE(perfLogger, fileName)                                                      \
    ::foundation::log::ScopedTrace WSB_TRACE_CONCAT(wsb_trace_, __LINE__)(                         \
        (perfLogger), (fileName), __PRETTY_FUNCTION__, __LINE__)
