#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <boost/core/null_deleter.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>

#include <iostream>

namespace foundation::log {

namespace blog = boost::log;

class basic_diagnostic_logger::Impl {
public:
    explicit Impl(const std::string& name) : source(blog::keywords::channel = name) {}
    blog::sources::severity_channel_logger_mt<int, std::string> source;
};

basic_diagnostic_logger::basic_diagnostic_logger(std::string name)
    : mName(std::move(name)), mImpl(std::make_shared<Impl>(mName)) {}
basic_diagnostic_logger::~basic_diagnostic_logger() = default;
basic_diagnostic_logger::basic_diagnostic_logger(const basic_diagnostic_logger&) = default;
basic_diagnostic_logger&
basic_diagnostic_logger::operator=(const basic_diagnostic_logger&) = default;

const std::string& basic_diagnostic_logger::name() const { return mName; }

bool basic_diagnostic_logger::enabled(int level) const {
    // Opening a record runs the core's and every sink's filter; an unkept record is empty.
    blog::record rec = mImpl->source.open_record(blog::keywords::severity = level);
    return static_cast<bool>(rec);
}

void basic_diagnostic_logger::write(int level, std::string_view text) const {
    detail::RecordPump pump(*this, level);
    if (pump.active()) {
        pump.stream() << text;
        pump.done();
    }
}

namespace detail {

struct RecordPump::OpenRecord {
    basic_diagnostic_logger::Impl* impl;
    blog::record record;
};

RecordPump::RecordPump(const basic_diagnostic_logger& logger, int level) {
    auto* impl = logger.mImpl.get();
    blog::record rec = impl->source.open_record(blog::keywords::severity = level);
    if (rec) {
        mRecord.reset(new OpenRecord{impl, std::move(rec)});
        mActive = true;
    }
}

RecordPump::~RecordPump() = default;

void RecordPump::done() {
    if (!mActive)
        return;
    mActive = false;
    blog::record_ostream strm(mRecord->record);
    strm << mStream.str();
    strm.flush();
    mRecord->impl->source.push_record(std::move(mRecord->record));
    mRecord.reset();
}

} // namespace detail

ScopedTrace::ScopedTrace(const basic_diagnostic_logger& logger, const char* file,
                         const char* function, int line, int level)
    : mLogger(logger.enabled(level) ? &logger : nullptr), mFile(file), mFunction(function),
      mLine(line), mLevel(level), mStart(std::chrono::steady_clock::now()) {}

ScopedTrace::~ScopedTrace() {
    if (mLogger == nullptr)
        return;
    try {
        const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - mStart);
        WSB_LOG(*mLogger, mLevel) << mFile << " " << mFunction << " line " << mLine << " took "
                                  << elapsed.count() << " us";
    } catch (...) {
        // A timing record must never turn a finished operation into a failure.
    }
}

std::shared_ptr<void> addConsoleSink(int maxLevel, const std::string& namePrefix,
                                     std::ostream* out) {
    namespace expr = blog::expressions;
    using Backend = blog::sinks::text_ostream_backend;
    auto backend = boost::make_shared<Backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(out ? out : &std::clog,
                                                        boost::null_deleter()));
    backend->auto_flush(true);
    auto sink = boost::make_shared<blog::sinks::synchronous_sink<Backend>>(backend);
    const auto severity = expr::attr<int>("Severity");
    const auto channel = expr::attr<std::string>("Channel");
    sink->set_filter(severity <= maxLevel && expr::begins_with(channel, namePrefix));
    sink->set_formatter(expr::stream << severity << " " << channel << ": " << expr::smessage);
    blog::core::get()->add_sink(sink);
    return std::shared_ptr<void>(nullptr, [sink](void*) {
        sink->flush();
        blog::core::get()->remove_sink(sink);
    });
}

} // namespace foundation::log
