#include "ChannelReplier.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>

namespace wsbrowser {

namespace {

const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::wsbrowser::ChannelReplier");
    return instance;
}

} // namespace

void ChannelReplier::publish(const foundation::json::Object& message) {
    const std::string text = foundation::json::serialize(foundation::json::Value(message));
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mOpen)
        return;
    try {
        mService->publish(mChannel, connector::message_service::JsonMessage(text));
    } catch (const std::exception& e) {
        WSB_LOG(logger(), foundation::log::kWarning)
            << "Cannot answer on " << mChannel << ": " << e.what();
    }
}

void ChannelReplier::whileOpen(const std::function<void()>& action) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mOpen)
        action();
}

void ChannelReplier::close() {
    std::lock_guard<std::mutex> lock(mMutex);
    mOpen = false;
}

} // namespace wsbrowser
