#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

using foundation::log::basic_diagnostic_logger;

namespace {
struct Counted {
    int* count;
};
std::ostream& operator<<(std::ostream& os, const Counted& c) {
    ++*c.count;
    return os << "counted";
}
} // namespace

TEST(DiagnosticLogger, SinkFiltersByLevelAndNamePrefixAndDisabledRecordsAreNeverFormatted) {
    std::ostringstream out, later;
    auto sink = foundation::log::addConsoleSink(3, "zentra::datatools::", &out);
    basic_diagnostic_logger kept("zentra::datatools::WSDataModel");
    basic_diagnostic_logger other("zentra::datatoolsperf::WSDataModel");
    int formatted = 0;
    WSB_LOG(kept, 3) << "kept " << 42;
    WSB_LOG(kept, 4) << Counted{&formatted};
    WSB_LOG(other, 1) << Counted{&formatted};
    kept.write(2, "written");
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(out.str(), "3 zentra::datatools::WSDataModel: kept 42\n"
                         "2 zentra::datatools::WSDataModel: written\n");

    // Releasing the handle removes the sink.
    sink.reset();
    auto second = foundation::log::addConsoleSink(1, "", &later);
    WSB_LOG(kept, 1) << "after release";
    EXPECT_EQ(later.str(), "1 zentra::datatools::WSDataModel: after release\n");
    EXPECT_EQ(out.str().find("after"), std::string::npos);
}

TEST(DiagnosticLogger, ScopedTraceNamesFileFunctionAndLine) {
    std::ostringstream out;
    auto sink = foundation::log::addConsoleSink(4, "zentra::datatoolsperf::", &out);
    basic_diagnostic_logger perf("zentra::datatoolsperf::WSViewModel");
    int line = 0;
    {
        line = __LINE__ + 1;
        WSB_TRACE_SCOPE(perf, "WSViewModel");
    }
    for (const std::string& part :
         {std::string("WSViewModel "),
          std::string("DiagnosticLogger_ScopedTraceNamesFileFunctionAndLine_Test::TestBody()"),
          "line " + std::to_string(line) + " took "})
        EXPECT_NE(out.str().find(part), std::string::npos) << part << " in " << out.str();
}

TEST(DiagnosticLogger, ConcurrentWritersProduceWholeRecords) {
    std::ostringstream out;
    auto sink = foundation::log::addConsoleSink(4, "t", &out);
    basic_diagnostic_logger logger("t");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i)
                WSB_LOG(logger, 4) << "thread " << t << " record " << i;
        });
    for (auto& th : threads)
        th.join();
    std::istringstream lines(out.str());
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(line.rfind("4 t: thread ", 0), 0u) << line;
    EXPECT_EQ(count, 800);
}
