#include <workspace_browser/platform/message_service/Subscription.hpp>

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <exception>
#include <utility>

namespace connector::message_service {

Subscription::Subscription(std::function<void()> onRelease) : mOnRelease(std::move(onRelease)) {}

Subscription::~Subscription() {
    if (!mOnRelease)
        return;
    try {
        mOnRelease();
    } catch (const std::exception& e) {
        static const foundation::log::basic_diagnostic_logger logger(
            "zentra::connector::Subscription");
        WSB_LOG(logger, foundation::log::kWarning)
            << "Releasing a subscription failed: " << e.what();
    } catch (...) {
        static const foundation::log::basic_diagnostic_logger logger(
            "zentra::connector::Subscription");
        WSB_LOG(logger, foundation::log::kWarning) << "Releasing a subscription failed";
    }
}

} // namespace connector::message_service
