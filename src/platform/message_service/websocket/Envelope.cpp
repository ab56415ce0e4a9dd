#include "platform/message_service/websocket/Envelope.hpp"

#include <boost/json.hpp>
#include <boost/json/basic_parser_impl.hpp>

#include <cstdint>

namespace connector::message_service::websocket {

namespace json = boost::json;

namespace {

// Deep enough for any real message, shallow enough to keep a hostile frame cheap.
constexpr std::size_t kMaxDepth = 128;
constexpr std::size_t kMaxChannelBytes = 1024;

json::parse_options parseOptions() {
    json::parse_options options;
    options.max_depth = kMaxDepth;
    return options;
}

// A parser handler that keeps nothing: it lets the parser check the syntax only.
struct SyntaxOnly {
    static constexpr std::size_t max_object_size = std::size_t(-1);
    static constexpr std::size_t max_array_size = std::size_t(-1);
    static constexpr std::size_t max_key_size = std::size_t(-1);
    static constexpr std::size_t max_string_size = std::size_t(-1);

    bool on_document_begin(json::error_code&) { return true; }
    bool on_document_end(json::error_code&) { return true; }
    bool on_object_begin(json::error_code&) { return true; }
    bool on_object_end(std::size_t, json::error_code&) { return true; }
    bool on_array_begin(json::error_code&) { return true; }
    bool on_array_end(std::size_t, json::error_code&) { return true; }
    bool on_key_part(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_key(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_string_part(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_string(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_number_part(json::string_view, json::error_code&) { return true; }
    bool on_int64(std::int64_t, json::string_view, json::error_code&) { return true; }
    bool on_uint64(std::uint64_t, json::string_view, json::error_code&) { return true; }
    bool on_double(double, json::string_view, json::error_code&) { return true; }
    bool on_bool(bool, json::error_code&) { return true; }
    bool on_null(json::error_code&) { return true; }
    bool on_comment_part(json::string_view, json::error_code&) { return true; }
    bool on_comment(json::string_view, json::error_code&) { return true; }
};

bool isJsonSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The end of the string starting at the quote `p`.
const char* skipString(const char* p, const char* end) {
    for (++p; p != end && *p != '"'; ++p)
        if (*p == '\\' && p + 1 != end)
            ++p;
    return p == end ? end : p + 1;
}

// The end of the value starting at `p`, in text already known to be valid JSON.
const char* skipValue(const char* p, const char* end) {
    if (*p == '"')
        return skipString(p, end);
    if (*p == '{' || *p == '[') {
        std::size_t depth = 0;
        while (p != end) {
            if (*p == '"') {
                p = skipString(p, end);
                continue;
            }
            if (*p == '{' || *p == '[')
                ++depth;
            else if ((*p == '}' || *p == ']') && --depth == 0)
                return p + 1;
            ++p;
        }
        return end;
    }
    while (p != end && *p != ',' && *p != '}' && *p != ']' && !isJsonSpace(*p))
        ++p;
    return p;
}

// The text of the top-level member "message" of an object frame already known to be valid JSON,
// as the page wrote it; the last one when the key repeats, as the parser keeps the last.
std::string_view messageText(std::string_view frame) {
    const char* p = frame.data();
    const char* const end = p + frame.size();
    const auto skipSpace = [&] {
        while (p != end && isJsonSpace(*p))
            ++p;
    };
    std::string_view found;
    skipSpace();
    if (p == end || *p != '{')
        return found;
    ++p;
    for (;;) {
        skipSpace();
        if (p == end || *p != '"')
            return found;
        const char* keyBegin = p;
        p = skipString(p, end);
        const std::string_view key(keyBegin, static_cast<std::size_t>(p - keyBegin));
        bool isMessage = key == R"("message")";
        if (!isMessage && key.find('\\') != std::string_view::npos) {
            json::error_code ec;
            const json::value decoded = json::parse(json::string_view(key.data(), key.size()), ec);
            isMessage = !ec && decoded.is_string() && decoded.get_string() == "message";
        }
        skipSpace();
        if (p == end || *p != ':')
            return found;
        ++p;
        skipSpace();
        if (p == end)
            return found;
        const char* valueBegin = p;
        p = skipValue(p, end);
        if (isMessage)
            found = std::string_view(valueBegin, static_cast<std::size_t>(p - valueBegin));
        skipSpace();
        if (p == end || *p != ',')
            return found;
        ++p;
    }
}

// The value's own bytes without the white space between tokens; numbers and strings are kept
// exactly as written, so no number is rounded or turned into something that is not JSON.
std::string compact(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p != end) {
        if (*p == '"') {
            const char* stop = skipString(p, end);
            out.append(p, stop);
            p = stop;
        } else {
            if (!isJsonSpace(*p))
                out.push_back(*p);
            ++p;
        }
    }
    return out;
}

PageEnvelope invalid(std::string text) {
    PageEnvelope envelope;
    envelope.error = std::move(text);
    return envelope;
}

} // namespace

PageEnvelope parsePageEnvelope(std::string_view frame) {
    unsigned char scratch[4096];
    json::monotonic_resource resource(scratch, sizeof(scratch));
    json::error_code ec;
    const json::value root =
        json::parse(json::string_view(frame.data(), frame.size()), ec, &resource, parseOptions());
    if (ec)
        return invalid("The frame is not valid JSON.");
    const json::object* object = root.if_object();
    if (!object)
        return invalid("An envelope must be a JSON object.");
    const json::value* op = object->if_contains("op");
    if (!op || !op->is_string())
        return invalid("An envelope needs a string \"op\".");
    const json::string& name = op->get_string();

    PageEnvelope envelope;
    if (name == "subscribe")
        envelope.op = PageEnvelope::Op::Subscribe;
    else if (name == "unsubscribe")
        envelope.op = PageEnvelope::Op::Unsubscribe;
    else if (name == "publish")
        envelope.op = PageEnvelope::Op::Publish;
    else
        return invalid("Unknown op.");

    const json::value* channel = object->if_contains("channel");
    if (!channel || !channel->is_string() || channel->get_string().empty())
        return invalid("An envelope needs a non-empty string \"channel\".");
    // A page may hold many subscriptions; bounding each name bounds what they all hold.
    if (channel->get_string().size() > kMaxChannelBytes)
        return invalid("A \"channel\" may be at most 1024 bytes.");
    envelope.channel.assign(channel->get_string().data(), channel->get_string().size());

    if (envelope.op == PageEnvelope::Op::Publish) {
        if (!object->if_contains("message"))
            return invalid("A publish needs a \"message\".");
        // The page's own text, not a rendering of the parsed value: a rendering would change
        // numbers (rounding, or a huge exponent becoming a non-JSON infinity).
        envelope.message = compact(messageText(frame));
    }
    return envelope;
}

std::string messageEnvelope(std::string_view channel, std::string_view messageJson) {
    const std::string quotedChannel =
        json::serialize(json::string_view(channel.data(), channel.size()));
    std::string out;
    out.reserve(messageJson.size() + quotedChannel.size() + 40);
    out.append(R"({"op":"message","channel":)");
    out.append(quotedChannel);
    out.append(R"(,"message":)");
    if (messageJson.empty())
        out.append("null");
    else
        out.append(messageJson);
    out.push_back('}');
    return out;
}

std::string helloEnvelope(std::string_view pageId) {
    json::object object;
    object["op"] = "hello";
    object["page"] = json::string_view(pageId.data(), pageId.size());
    return json::serialize(object);
}

std::string errorEnvelope(std::string_view text) {
    json::object object;
    object["op"] = "error";
    object["error"] = json::string_view(text.data(), text.size());
    return json::serialize(object);
}

bool isSingleJsonValue(std::string_view text) {
    json::basic_parser<SyntaxOnly> parser(parseOptions());
    json::error_code ec;
    const std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
    return !ec && used == text.size() && parser.done();
}

} // namespace connector::message_service::websocket
