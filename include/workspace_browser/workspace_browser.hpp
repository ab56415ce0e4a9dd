#pragma once

// Everything a host needs: the platform layer and every exported class of the library.
#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/ThreadName.hpp>
#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/platform/message_service/Future.hpp>
#include <workspace_browser/platform/message_service/JsonMessage.hpp>
#include <workspace_browser/platform/message_service/LocalMessageService.hpp>
#include <workspace_browser/platform/message_service/MessageService.hpp>
#include <workspace_browser/platform/message_service/Promise.hpp>
#include <workspace_browser/platform/message_service/Subscription.hpp>
#include <workspace_browser/platform/i18n/MessageCatalog.hpp>
#include <workspace_browser/platform/i18n/MessageID.hpp>
#include <workspace_browser/platform/settings/Settings.hpp>
#include <workspace_browser/datamodel/WSDataModel.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>
#include <workspace_browser/threadutil/OrderedWorkQueue.hpp>
