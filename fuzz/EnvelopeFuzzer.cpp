// Feeds arbitrary frames to the parser of the envelopes a page sends over its WebSocket.
//
// Checks that the syntax-only check agrees with the full parse, that what a publish carries is
// one JSON value (the service hands it to subscribers as such), and that an envelope the server
// builds from a parsed channel and message parses back to the same two texts.

#include "platform/message_service/websocket/Envelope.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

namespace ws = connector::message_service::websocket;
using Op = ws::PageEnvelope::Op;

[[noreturn]] void fail(const char* what, std::string_view frame, std::string_view detail) {
    std::fprintf(stderr, "%s\n frame:  %.*s\n detail: %.*s\n", what, static_cast<int>(frame.size()),
                 frame.data(), static_cast<int>(detail.size()), detail.data());
    std::abort();
}

constexpr std::string_view kNotJson = "The frame is not valid JSON.";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view frame(reinterpret_cast<const char*>(data), size);
    const ws::PageEnvelope envelope = ws::parsePageEnvelope(frame);

    const bool parsed = !(envelope.op == Op::Invalid && envelope.error == kNotJson);
    if (parsed != ws::isSingleJsonValue(frame))
        fail("the syntax check and the parser disagree", frame, envelope.error);

    if (envelope.op == Op::Invalid) {
        if (envelope.error.empty())
            fail("a refused frame without a reason", frame, "");
        if (!ws::isSingleJsonValue(ws::errorEnvelope(envelope.error)))
            fail("the error envelope is not JSON", frame, ws::errorEnvelope(envelope.error));
        return 0;
    }
    if (envelope.channel.empty())
        fail("an accepted envelope without a channel", frame, "");
    if (!ws::isSingleJsonValue(ws::helloEnvelope(envelope.channel)))
        fail("the hello envelope is not JSON", frame, ws::helloEnvelope(envelope.channel));
    if (envelope.op != Op::Publish)
        return 0;

    if (!ws::isSingleJsonValue(envelope.message))
        fail("a publish carries more or less than one JSON value", frame, envelope.message);

    // The server's message envelope, turned into a page's publish, must give back the same
    // channel and message.
    std::string echoed = ws::messageEnvelope(envelope.channel, envelope.message);
    const std::string_view messageOp = R"({"op":"message",)";
    if (echoed.compare(0, messageOp.size(), messageOp) != 0)
        fail("the message envelope does not start with its op", frame, echoed);
    echoed.replace(0, messageOp.size(), R"({"op":"publish",)");
    const ws::PageEnvelope again = ws::parsePageEnvelope(echoed);
    if (again.op != Op::Publish || again.channel != envelope.channel ||
        again.message != envelope.message)
        fail("a message envelope does not parse back to its channel and message", frame, echoed);
    return 0;
}
