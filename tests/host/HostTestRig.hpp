#pragma once

// The real embedded interpreter for host tests: one per test process (numpy cannot be loaded
// into a second interpreter of the same process), and a workspace on it whose event batches
// are recorded.

#include "PythonInterpreter.hpp"
#include "WorkspaceHost.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace wsb_host_test {

using namespace workspace_browser_startup;
using Names = std::vector<std::string>;
using Batch = WSListenersSubscriptionCallbackArg;

inline const Names kAllFields = {"Name", "Value",  "Size", "Class", "Min", "Max",  "Range",
                                 "Mean", "Median", "Mode", "Var",   "Std", "Bytes"};
inline const std::string kTimes = "\xC3\x97";

// Owns the process's interpreter; stops it once all tests of the process have run.
class PythonEnvironment : public ::testing::Environment {
public:
    static std::shared_ptr<wsbrowser::PythonInterpreter> interpreter() {
        static std::shared_ptr<wsbrowser::PythonInterpreter> instance =
            std::make_shared<wsbrowser::PythonInterpreter>();
        return instance;
    }
    void TearDown() override { interpreter()->stop(); }
};

// A workspace emptied of what earlier tests left, with its batches recorded.
class HostRig {
public:
    explicit HostRig(wsbrowser::WorkspaceHost::Options options = {})
        : host(std::make_shared<wsbrowser::WorkspaceHost>(PythonEnvironment::interpreter(),
                                                          options)) {
        run("for _name in [n for n in list(globals()) if not n.startswith('__')]:\n"
            "    del globals()[_name]\n");
        mConnection = host->subscribeFunction()([this](Batch batch) {
            std::lock_guard<std::mutex> lock(mMutex);
            mBatches.push_back(std::move(batch));
        });
        host->setMessageHandler([this](const std::string& message) {
            std::lock_guard<std::mutex> lock(mMutex);
            mMessages.push_back(message);
        });
    }
    ~HostRig() { host->close(); }

    // Runs console code that must succeed and returns its output.
    std::string run(const std::string& code) {
        auto [output, failed] = host->execute(code);
        EXPECT_FALSE(failed) << code << "\n" << output;
        return output;
    }

    // The batches raised since the last call.
    std::vector<Batch> takeBatches() {
        std::lock_guard<std::mutex> lock(mMutex);
        return std::exchange(mBatches, {});
    }
    std::vector<std::string> takeMessages() {
        wait(); // messages come from queued work
        std::lock_guard<std::mutex> lock(mMutex);
        return std::exchange(mMessages, {});
    }
    // Lets the work queued on the interpreter so far finish.
    // Waits until the work queued so far has run and its batches and answers were handed over
    // (they leave in order on the host's delivery thread).
    void wait() { fetch({}); }

    std::vector<WSVariable> fetch(const Names& names, const Names& fields = kAllFields,
                                  bool stats = true, double limit = 1e5) {
        std::promise<std::vector<WSVariable>> promise;
        auto result = promise.get_future();
        host->displayFunction()(
            names, fields, stats, limit,
            [&promise](const std::vector<WSVariable>& records) { promise.set_value(records); });
        return result.get();
    }
    WSVariable fetchOne(const std::string& name, bool stats = true, double limit = 1e5) {
        auto records = fetch({name}, kAllFields, stats, limit);
        EXPECT_EQ(records.size(), 1U);
        return records.empty() ? WSVariable{} : records.front();
    }

    std::shared_ptr<wsbrowser::WorkspaceHost> host;

private:
    std::mutex mMutex;
    std::vector<Batch> mBatches;
    std::vector<std::string> mMessages;
    Connection mConnection;
};

} // namespace wsb_host_test

namespace wsb_host_test {
inline ::testing::Environment* const kPythonEnvironment =
    ::testing::AddGlobalTestEnvironment(new PythonEnvironment);
} // namespace wsb_host_test
