#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// The request rules of the WebSocket service, kept free of any network code so that each rule can
// be read (and checked) on its own. All functions are pure and thread-safe.
namespace connector::message_service::websocket {

// A fresh access token: 32 bytes from the system's random source, as 64 hex digits.
std::string generateToken();

// Whether `token` may serve as an access token: at least 24 characters, all of them safe in a
// URL query without escaping (letters, digits, '-', '_', '.', '~').
bool isUsableToken(std::string_view token);

// Compares in time that depends only on the length of `expected`, so that a guess cannot be
// refined character by character from response times.
bool constantTimeEquals(std::string_view given, std::string_view expected);

// Splits a request target into its path and its query (without '?').
struct Target {
    std::string_view path;
    std::string_view query;
};
Target splitTarget(std::string_view target);

// Decodes %XX escapes; nullopt for a malformed escape or a decoded NUL.
std::optional<std::string> percentDecode(std::string_view text);

// The decoded value of the first `name=` parameter of a query, nullopt when absent or malformed.
std::optional<std::string> queryParameter(std::string_view query, std::string_view name);

// The target with every query value replaced, fit for a log line.
std::string redactTarget(std::string_view target);

// The Host header values a page may use to reach the service on `port`: the loopback addresses
// and "localhost", with the port, spelled exactly.
bool isAllowedHost(std::string_view host, unsigned port);

// Outcome of mapping a request path to a file under the static root.
enum class StaticLookup { Found, Malformed, NotFound };
struct StaticFile {
    StaticLookup status = StaticLookup::NotFound;
    std::filesystem::path file; // set when Found
};
// Maps an URL path ("/" means "/index.html") to a regular file inside `canonicalRoot` (which must
// already be canonical). Refuses "." and ".." segments (also when escaped), hidden names,
// backslashes, and anything whose real location (after symbolic links) is outside the root.
StaticFile resolveStaticFile(const std::filesystem::path& canonicalRoot, std::string_view urlPath);

// The Content-Type for a file name; application/octet-stream when the extension is unknown.
std::string_view contentTypeFor(const std::filesystem::path& file);

// Whether a file is a page (HTML), which needs the token and must never be cached.
bool isPage(const std::filesystem::path& file);

} // namespace connector::message_service::websocket
