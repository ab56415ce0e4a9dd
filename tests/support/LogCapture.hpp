#pragma once

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace wsb_test {

// Captures the records of one logger (by name prefix) up to a level, for as long as it lives.
// Lines read "<level> <logger name>: <text>"; the helpers compare texts without that prefix.
// Not thread-safe: read it only after the code under test has returned.
class LogCapture {
public:
    explicit LogCapture(const std::string& loggerName, int maxLevel = 4)
        : mPrefix(std::to_string(maxLevel) + " " + loggerName + ": "),
          mSink(foundation::log::addConsoleSink(maxLevel, loggerName, &mOut)) {}

    // Record texts in order, prefix removed (records of other levels keep theirs).
    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        std::istringstream in(mOut.str());
        for (std::string line; std::getline(in, line);)
            result.push_back(line.rfind(mPrefix, 0) == 0 ? line.substr(mPrefix.size()) : line);
        return result;
    }
    std::string last() const {
        const auto all = texts();
        return all.empty() ? std::string() : all.back();
    }
    bool contains(const std::string& text) const {
        const auto all = texts();
        return std::find(all.begin(), all.end(), text) != all.end();
    }

private:
    std::string mPrefix;
    std::ostringstream mOut;
    std::shared_ptr<void> mSink;
};

} // namespace wsb_test
