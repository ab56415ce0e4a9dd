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

TEST(DiagnosticLogger, SinkFiltersByLevelAndNamePrefix) {
    std::ostringstream out;
    auto sink = foundation::log::addConsoleSink(3, "zentra::datatools::", &out);
    basic_diagnostic_logger kept("zentra::datatools::WSDataModel");
    basic_diagnostic_logger other("zentra::datatoolsperf::WSDataModel");
    EXPECT_TRUE(kept.enabled(3));
    EXPECT_FALSE(kept.enabled(4));
    EXPECT_FALSE(other.enabled(1));

    WSB_LOG(kept, 3) << "kept " << 42;
    WSB_LOG(kept, 4) << "dropped";
    WSB_LOG(other, 1) << "other";
    kept.write(2, "written");
    EXPECT_EQ(out.str(), "3 zentra::datatools::WSDataModel: kept 42\n"
                         "2 zentra::datatools::WSDataModel: written\n");
}

TEST(DiagnosticLogger, DisabledRecordIsNeverFormattedAndReleasedSinksStop) {
    int formatted = 0;
    basic_diagnostic_logger logger("zentra::datatools::Quiet");
    std::ostringstream out, other;
    auto sink = foundation::log::addConsoleSink(2, "", &out);
    WSB_LOG(logger, 4) << Counted{&formatted};
    EXPECT_EQ(formatted, 0);
    WSB_LOG(logger, 2) << Counted{&formatted};
    EXPECT_EQ(formatted, 1);

    sink.reset();
    const auto before = out.str();
    auto second = foundation::log::addConsoleSink(1, "", &other);
    WSB_LOG(logger, 1) << "after release";
    EXPECT_EQ(out.str(), before);
    EXPECT_EQ(other.str(), "1 zentra::datatools::Quiet: after release\n");
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
    const std::string text = out.str();
    for (const std::string& part :
         {std::string("WSViewModel "),
          std::string("DiagnosticLogger_ScopedTraceNamesFileFunctionAndLine_Test::TestBody()"),
          "line " + std::to_string(line) + " took "})
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
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
