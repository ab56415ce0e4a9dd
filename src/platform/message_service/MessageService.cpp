#include <workspace_browser/platform/message_service/MessageService.hpp>

namespace connector::message_service {

// Defined here so the class's type information and vtable live in the library once.
MessageService::~MessageService() = default;

} // namespace connector::message_service
