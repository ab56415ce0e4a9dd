#include "platform/settings/SettingsFile.hpp"

#include <boost/json.hpp>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>

namespace settings::detail {

namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

bool validNodePath(std::string_view path) {
    if (path.empty())
        return true; // the root node
    std::size_t start = 0;
    while (true) {
        const auto dot = path.find('.', start);
        const auto end = dot == std::string_view::npos ? path.size() : dot;
        if (end == start)
            return false;
        if (dot == std::string_view::npos)
            return true;
        start = dot + 1;
    }
}

bool toSetting(const json::value& v, SettingData& out) {
    switch (v.kind()) {
    case json::kind::bool_:
        out = v.get_bool();
        return true;
    case json::kind::int64:
    case json::kind::uint64:
    case json::kind::double_:
        out = v.to_number<double>();
        return true;
    case json::kind::string:
        out = std::string(v.get_string());
        return true;
    case json::kind::array: {
        const auto& arr = v.get_array();
        if (arr.empty() || arr.front().is_number()) {
            std::vector<double> numbers;
            numbers.reserve(arr.size());
            for (const auto& e : arr) {
                if (!e.is_number())
                    return false;
                numbers.push_back(e.to_number<double>());
            }
            out = std::move(numbers);
            return true;
        }
        std::vector<std::string> strings;
        strings.reserve(arr.size());
        for (const auto& e : arr) {
            if (!e.is_string())
                return false;
            strings.emplace_back(e.get_string());
        }
        out = std::move(strings);
        return true;
    }
    default:
        return false;
    }
}

// Whole numbers are written as integers so that the file reads naturally ("120", not "1.2E2").
json::value numberToJson(double d) {
    constexpr double kExactIntegerLimit = 9007199254740992.0; // 2^53
    if (std::trunc(d) == d && std::fabs(d) < kExactIntegerLimit && !(d == 0 && std::signbit(d)))
        return json::value(static_cast<std::int64_t>(d));
    return json::value(d);
}

json::value toJson(const SettingData& data) {
    return std::visit(
        [](const auto& v) -> json::value {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, bool>) {
                return json::value(v);
            } else if constexpr (std::is_same_v<T, double>) {
                return numberToJson(v);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return json::value(json::string(v));
            } else if constexpr (std::is_same_v<T, std::vector<double>>) {
                json::array arr;
                for (double d : v)
                    arr.push_back(numberToJson(d));
                return arr;
            } else {
                json::array arr;
                for (const auto& s : v)
                    arr.emplace_back(json::string(s));
                return arr;
            }
        },
        data);
}

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Closes the descriptor and removes the temporary file unless released.
struct TempFile {
    int fd = -1;
    std::string path;
    ~TempFile() {
        if (fd >= 0)
            ::close(fd);
        if (!path.empty())
            ::unlink(path.c_str());
    }
};

} // namespace

SettingsFile::ReadResult SettingsFile::read(const fs::path& file) {
    ReadResult result;
    std::error_code ec;
    if (!fs::exists(file, ec) && !ec)
        return result;
    result.exists = true;
    std::ifstream in(file, std::ios::binary);
    std::ostringstream content;
    if (in)
        content << in.rdbuf();
    if (!in || in.bad()) {
        result.problem = "the file cannot be read";
        return result;
    }
    ReadResult parsed = parse(content.str());
    parsed.exists = true;
    return parsed;
}

SettingsFile::ReadResult SettingsFile::parse(std::string_view text) {
    ReadResult result;
    result.exists = true;
    if (text.find_first_not_of(std::string_view(" \t\r\n\0", 5)) == std::string_view::npos) {
        result.problem = "the file is empty or holds only NUL bytes";
        return result;
    }
    json::error_code ec;
    const json::value root = json::parse(text, ec);
    if (ec) {
        result.problem = "the file is not valid JSON (" + ec.message() + ")";
        return result;
    }
    if (!root.is_object()) {
        result.problem = "the file does not hold a JSON object";
        return result;
    }
    Layer layer;
    for (const auto& [nodeKey, nodeValue] : root.get_object()) {
        const std::string node(nodeKey);
        if (!validNodePath(node) || !nodeValue.is_object()) {
            result.problem = "the entry \"" + node + "\" is not a node of settings";
            return result;
        }
        auto& settings = layer[node];
        for (const auto& [nameKey, value] : nodeValue.get_object()) {
            const std::string name(nameKey);
            SettingData data;
            if (name.empty() || name.find('.') != std::string::npos || !toSetting(value, data)) {
                result.problem = "the setting \"";
                result.problem.append(name)
                    .append("\" of node \"")
                    .append(node)
                    .append(
                        "\" is not a boolean, a number, a string or a list of numbers or strings");
                return result;
            }
            settings.emplace(name, std::move(data));
        }
    }
    result.layer = std::move(layer);
    return result;
}

std::string SettingsFile::serialize(const Layer& layer) {
    // One node per line keeps the file readable and diffable by people.
    std::string out = "{";
    bool first = true;
    for (const auto& [node, settings] : layer) {
        if (settings.empty())
            continue;
        json::object obj;
        for (const auto& [name, data] : settings)
            obj.emplace(name, toJson(data));
        out += first ? "\n  " : ",\n  ";
        first = false;
        out += json::serialize(json::string(node));
        out += ": ";
        out += json::serialize(obj);
    }
    out += first ? "}\n" : "\n}\n";
    return out;
}

void SettingsFile::writeAtomically(const fs::path& file, std::string_view text,
                                   const fs::path& keepOldAs) {
    const fs::path dir = file.parent_path().empty() ? fs::path(".") : file.parent_path();
    fs::create_directories(dir);

    TempFile temp;
    std::string pattern = (dir / (file.filename().string() + ".tmp.XXXXXX")).string();
    temp.fd = ::mkstemp(pattern.data());
    if (temp.fd < 0)
        throwErrno("cannot create a temporary file in " + dir.string());
    temp.path = pattern;

    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(temp.fd, data, left);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            throwErrno("cannot write " + temp.path);
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    if (::fsync(temp.fd) != 0)
        throwErrno("cannot flush " + temp.path);
    const int fd = std::exchange(temp.fd, -1);
    if (::close(fd) != 0)
        throwErrno("cannot close " + temp.path);

    if (!keepOldAs.empty() && ::rename(file.c_str(), keepOldAs.c_str()) != 0 && errno != ENOENT)
        throwErrno("cannot move " + file.string() + " aside");
    if (::rename(temp.path.c_str(), file.c_str()) != 0)
        throwErrno("cannot replace " + file.string());
    temp.path.clear();

    // The rename is durable only once the folder's entry is on disk.
    const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0)
        throwErrno("cannot open " + dir.string());
    const int synced = ::fsync(dirFd);
    const int savedErrno = errno;
    ::close(dirFd);
    if (synced != 0) {
        errno = savedErrno;
        throwErrno("cannot flush " + dir.string());
    }
}

fs::path SettingsFile::userDirectory() {
    if (const char* dir = std::getenv("WSB_SETTINGS_DIR"); dir != nullptr && *dir != '\0')
        return fs::path(dir);
    // A relative XDG_CONFIG_HOME is ignored, as the XDG convention asks.
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg == '/')
        return fs::path(xdg) / "workspace-browser";
    std::string home;
    if (const char* h = std::getenv("HOME"); h != nullptr && *h != '\0') {
        home = h;
    } else {
        passwd entry{};
        passwd* found = nullptr;
        std::vector<char> buffer(16384);
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
            found != nullptr && found->pw_dir != nullptr)
            home = found->pw_dir;
    }
    if (home.empty())
        return {};
    return fs::path(home) / ".config" / "workspace-browser";
}

} // namespace settings::detail
