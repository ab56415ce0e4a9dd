#pragma once

#include <workspace_browser/platform/DiagnosticLogger.hpp>

namespace connector::message_service::websocket {

// The one logger of the WebSocket service and its helpers. Never give it the access token.
inline const foundation::log::basic_diagnostic_logger& serviceLogger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::connector::WebSocketMessageService");
    return instance;
}

} // namespace connector::message_service::websocket
