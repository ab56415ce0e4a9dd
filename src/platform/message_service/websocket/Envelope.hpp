#pragma once

#include <string>
#include <string_view>

// The JSON envelopes exchanged with a page (see docs/protocol.md). Pure functions, thread-safe.
namespace connector::message_service::websocket {

// One frame a page sent, once understood.
struct PageEnvelope {
    enum class Op { Subscribe, Unsubscribe, Publish, Invalid };
    Op op = Op::Invalid;
    std::string channel;
    std::string message; // Publish: the message as compact JSON text
    std::string error;   // Invalid: what is wrong, for the error frame
};

PageEnvelope parsePageEnvelope(std::string_view frame);

// {"op":"message","channel":<channel>,"message":<messageJson>}; `messageJson` must be one JSON
// value (see isSingleJsonValue), an empty text stands for null.
std::string messageEnvelope(std::string_view channel, std::string_view messageJson);
// {"op":"hello","page":<pageId>}
std::string helloEnvelope(std::string_view pageId);
// {"op":"error","error":<text>}
std::string errorEnvelope(std::string_view text);

// Whether `text` holds exactly one JSON value (surrounding white space allowed). Allocates nothing.
bool isSingleJsonValue(std::string_view text);

} // namespace connector::message_service::websocket
