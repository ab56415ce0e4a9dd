// Feeds arbitrary bytes to the typed-value JSON parser that reads every client message.
//
// Besides "never crashes", it checks the round trip the channels rely on: whatever parses,
// serialised and parsed again, gives an equal value. Typed integers ("vxtype"/"vxdata") must
// survive it too, since the serialiser writes the members in key order and so puts "vxdata"
// before "vxtype". The one exception is an object that repeats "vxtype": the type in effect is
// the last recognised one, but the member kept is the last one written, so the text says less
// than the value held, and no round trip can keep what the text does not say. The conversions to
// int, bool and string and the parser exception's caret line run on what was parsed, as the channel
// decoders run them.

#include <workspace_browser/platform/json/ParserException.hpp>
#include <workspace_browser/platform/json/Serialize.hpp>
#include <workspace_browser/platform/json/Value.hpp>
#include <workspace_browser/pubsub/JsonTypedValues.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

namespace {

using workspace_browser_startup::JsonTypedValues;
namespace json = foundation::json;

[[noreturn]] void fail(const char* what, std::string_view input, const std::string& first,
                       const std::string& second) {
    std::fprintf(stderr, "%s\n input:  %.*s\n first:  %s\n second: %s\n", what,
                 static_cast<int>(input.size()), input.data(), first.c_str(), second.c_str());
    std::abort();
}

// The conversions throw for kinds they do not take; only a crash or a foreign exception is a
// finding.
void convertEach(const json::Object& object) {
    for (const auto& [key, value] : object) {
        try {
            (void)JsonTypedValues::toInt32(value);
        } catch (const std::exception&) {
        }
        try {
            (void)JsonTypedValues::toBool(value);
        } catch (const std::exception&) {
        }
        try {
            (void)JsonTypedValues::toString(value);
        } catch (const std::exception&) {
        }
    }
}

bool isTypeName(const json::Value& value) {
    if (!value.is<std::string>())
        return false;
    const std::string& name = value.get<std::string>();
    for (const char* known :
         {"int64", "uint64", "int32", "uint32", "int16", "uint16", "int8", "uint8"}) {
        if (name == known)
            return true;
    }
    return false;
}

// Whether every object's "vxtype" text names the type its "vxdata" was read with; only a
// repeated "vxtype" member can make them differ.
bool typesAgree(const json::Value& value) {
    if (value.is<json::Array>()) {
        for (const json::Value& item : value.get<json::Array>()) {
            if (!typesAgree(item))
                return false;
        }
        return true;
    }
    if (!value.is<json::Object>())
        return true;
    const json::Object& object = value.get<json::Object>();
    const auto data = object.find("vxdata");
    const auto type = object.find("vxtype");
    if (data != object.end() && data->second.is<json::Array>()) {
        const json::Array& items = data->second.get<json::Array>();
        const bool typed =
            !items.empty() && (items.front().is<long>() || items.front().is<unsigned long>());
        if (typed && (type == object.end() || !isTypeName(type->second)))
            return false;
    }
    for (const auto& [key, member] : object) {
        if (!typesAgree(member))
            return false;
    }
    return true;
}

template <class Container, class Parse>
void roundTrip(std::string_view input, const Container& parsed, Parse parse) {
    if (!typesAgree(json::Value(parsed)))
        return;
    const std::string first = json::serialize(json::Value(parsed));
    Container again;
    const int code = parse(first, again);
    if (code != 0)
        fail("the serialised text does not parse again", input, first,
             "code " + std::to_string(code));
    if (!(json::Value(again) == json::Value(parsed)))
        fail("the value changed on a round trip", input, first,
             json::serialize(json::Value(again)));
    // Serialising is deterministic, so the second text must be the first.
    const std::string second = json::serialize(json::Value(again));
    if (second != first)
        fail("the serialised text changed on a round trip", input, first, second);
}

int parseObject(std::string_view text, json::Object& out) {
    return JsonTypedValues::parseObject(text.data(), text.data() + text.size(), out);
}

int parseArray(std::string_view text, json::Array& out) {
    return JsonTypedValues::parseArray(text.data(), text.data() + text.size(), out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);

    json::Object object;
    std::size_t position = 0;
    const int code =
        JsonTypedValues::parseObject(input.data(), input.data() + input.size(), object, position);
    convertEach(object); // members read before a failure stay, and decoders use them
    if (code == 0) {
        roundTrip(input, object, parseObject);
    } else {
        // What a failure report would print: the location and the caret line.
        const json::ParserException error(code, input, position);
        if (error.line() == 0 || error.column() == 0)
            fail("a parse failure without a location", input, error.what(), "");
    }

    json::Array array;
    if (JsonTypedValues::parseArray(input.data(), input.data() + input.size(), array) == 0)
        roundTrip(input, array, parseArray);
    return 0;
}
