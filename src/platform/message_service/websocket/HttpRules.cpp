#include "platform/message_service/websocket/HttpRules.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <random>
#include <sys/random.h>
#include <system_error>

namespace connector::message_service::websocket {

namespace {

constexpr std::size_t kTokenBytes = 32;
constexpr std::size_t kMinTokenLength = 24;

bool fillFromSystem(unsigned char* out, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = ::getrandom(out + done, size - done, 0);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool isUrlSafe(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '~';
}

bool isWithin(const std::filesystem::path& root, const std::filesystem::path& candidate) {
    auto r = root.begin();
    auto c = candidate.begin();
    for (; r != root.end(); ++r, ++c) {
        if (c == candidate.end() || *r != *c)
            return false;
    }
    return true;
}

} // namespace

std::string generateToken() {
    std::array<unsigned char, kTokenBytes> bytes{};
    if (!fillFromSystem(bytes.data(), bytes.size())) {
        // getrandom is missing only on very old kernels; random_device reads the same pool there.
        std::random_device device;
        for (auto& byte : bytes)
            byte = static_cast<unsigned char>(device());
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string token;
    token.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        token.push_back(kHex[byte >> 4]);
        token.push_back(kHex[byte & 0x0f]);
    }
    return token;
}

bool isUsableToken(std::string_view token) {
    if (token.size() < kMinTokenLength)
        return false;
    for (char c : token) {
        if (!isUrlSafe(c))
            return false;
    }
    return true;
}

bool constantTimeEquals(std::string_view given, std::string_view expected) {
    std::size_t diff = given.size() ^ expected.size();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto g = static_cast<unsigned char>(i < given.size() ? given[i] : 0);
        diff |= static_cast<std::size_t>(g ^ static_cast<unsigned char>(expected[i]));
    }
    return diff == 0;
}

Target splitTarget(std::string_view target) {
    const auto mark = target.find('?');
    if (mark == std::string_view::npos)
        return {target, {}};
    return {target.substr(0, mark), target.substr(mark + 1)};
}

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size())
                return std::nullopt;
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high < 0 || low < 0)
                return std::nullopt;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0')
            return std::nullopt;
        out.push_back(c);
    }
    return out;
}

std::optional<std::string> queryParameter(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const auto amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        const auto eq = pair.find('=');
        if (pair.substr(0, eq) != name)
            continue;
        if (eq == std::string_view::npos)
            return std::string();
        return percentDecode(pair.substr(eq + 1));
    }
    return std::nullopt;
}

std::string redactTarget(std::string_view target) {
    const auto mark = target.find('?');
    std::string out(target.substr(0, mark));
    if (mark == std::string_view::npos)
        return out;
    // Only the names of the parameters are kept: the token may come under any name or spelling,
    // and no other value is worth a leak.
    std::string_view query = target.substr(mark + 1);
    char separator = '?';
    while (true) {
        const auto amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        out.push_back(separator);
        separator = '&';
        out.append(pair.substr(0, pair.find('='))).append("=<redacted>");
        if (amp == std::string_view::npos)
            break;
        query = query.substr(amp + 1);
    }
    return out;
}

bool isAllowedHost(std::string_view host, unsigned port) {
    const auto colon = host.rfind(':');
    if (colon == std::string_view::npos || host.substr(colon + 1) != std::to_string(port))
        return false;
    const std::string_view name = host.substr(0, colon);
    return name == "127.0.0.1" || name == "localhost" || name == "[::1]";
}

StaticFile resolveStaticFile(const std::filesystem::path& canonicalRoot, std::string_view urlPath) {
    if (urlPath.empty() || urlPath.front() != '/')
        return {StaticLookup::Malformed, {}};
    auto decoded = percentDecode(urlPath);
    if (!decoded || decoded->find('\\') != std::string::npos)
        return {StaticLookup::Malformed, {}};
    if (*decoded == "/")
        *decoded = "/index.html";

    std::filesystem::path relative;
    std::string_view rest(*decoded);
    while (!rest.empty()) {
        const auto slash = rest.find('/');
        const std::string_view segment = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (segment.empty())
            continue;
        // "." and ".." would climb; other hidden names (".git", ".env") are never client files.
        if (segment.front() == '.')
            return {StaticLookup::NotFound, {}};
        relative /= std::string(segment);
    }
    if (relative.empty())
        return {StaticLookup::NotFound, {}};

    std::error_code ec;
    const auto real = std::filesystem::canonical(canonicalRoot / relative, ec);
    if (ec || !isWithin(canonicalRoot, real))
        return {StaticLookup::NotFound, {}};
    if (!std::filesystem::is_regular_file(real, ec) || ec)
        return {StaticLookup::NotFound, {}};
    return {StaticLookup::Found, real};
}

std::string_view contentTypeFor(const std::filesystem::path& file) {
    const std::string ext = file.extension().string();
    if (ext == ".html")
        return "text/html; charset=utf-8";
    if (ext == ".js" || ext == ".mjs")
        return "text/javascript; charset=utf-8";
    if (ext == ".css")
        return "text/css; charset=utf-8";
    if (ext == ".json" || ext == ".map")
        return "application/json";
    if (ext == ".svg")
        return "image/svg+xml";
    if (ext == ".png")
        return "image/png";
    if (ext == ".ico")
        return "image/x-icon";
    if (ext == ".woff2")
        return "font/woff2";
    if (ext == ".txt")
        return "text/plain; charset=utf-8";
    return "application/octet-stream";
}

bool isPage(const std::filesystem::path& file) {
    return file.extension() == ".html";
}

} // namespace connector::message_service::websocket
