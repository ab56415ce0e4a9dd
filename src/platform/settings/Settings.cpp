#include <workspace_browser/platform/settings/Settings.hpp>

#include "platform/settings/SettingsStore.hpp"

#include <boost/locale/encoding_utf.hpp>

#include <cmath>
#include <stdexcept>
#include <utility>

namespace settings::core {

using detail::SettingData;
using detail::SettingsStore;

namespace {

constexpr const char* kTypeNames[] = {"bool", "double", "std::string", "std::vector<double>",
                                      "std::vector<std::string>"};

template <class T> constexpr std::size_t typeIndex() {
    return std::is_same_v<T, bool>                  ? 0
           : std::is_same_v<T, double>              ? 1
           : std::is_same_v<T, std::string>         ? 2
           : std::is_same_v<T, std::vector<double>> ? 3
                                                    : 4;
}

std::string joinPath(const std::string& base, const std::string& relative) {
    if (relative.empty())
        return base;
    if (relative.front() == '.' || relative.back() == '.' ||
        relative.find("..") != std::string::npos)
        throw std::invalid_argument("invalid settings path \"" + relative +
                                    "\": a path segment is empty");
    return base.empty() ? relative : base + "." + relative;
}

// Node path and setting name of `name` relative to `node`.
std::pair<std::string, std::string> locate(const std::string& node, const std::string& name) {
    const auto dot = name.rfind('.');
    if (dot == std::string::npos) {
        if (name.empty())
            throw std::invalid_argument("a setting name must not be empty");
        return {node, name};
    }
    if (dot + 1 == name.size())
        throw std::invalid_argument("invalid setting name \"" + name + "\": it ends with a dot");
    return {joinPath(node, name.substr(0, dot)), name.substr(dot + 1)};
}

std::string qualified(const std::pair<std::string, std::string>& where) {
    return where.first.empty() ? where.second : where.first + "." + where.second;
}

void requireUtf8(const std::string& text) {
    try {
        (void)boost::locale::conv::utf_to_utf<char>(text, boost::locale::conv::stop);
    } catch (const std::exception&) {
        throw std::invalid_argument("a setting's text must be UTF-8");
    }
}

void requireFinite(double d) {
    if (!std::isfinite(d))
        throw std::invalid_argument("a setting's number must be finite");
}

template <class T> void validate(const T& value) {
    if constexpr (std::is_same_v<T, double>) {
        requireFinite(value);
    } else if constexpr (std::is_same_v<T, std::string>) {
        requireUtf8(value);
    } else if constexpr (std::is_same_v<T, std::vector<double>>) {
        for (double d : value)
            requireFinite(d);
    } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
        for (const auto& s : value)
            requireUtf8(s);
    }
}

} // namespace

Settings::Settings(std::string path) : mPath(std::move(path)) {}

Settings Settings::node(const std::string& dottedPath) const {
    return Settings(joinPath(mPath, dottedPath));
}

bool Settings::has(const std::string& name) const {
    const auto where = locate(mPath, name);
    return SettingsStore::instance().find(where.first, where.second).has_value();
}

template <SettingValue T> T Settings::get(const std::string& name) const {
    const auto where = locate(mPath, name);
    auto found = SettingsStore::instance().find(where.first, where.second);
    if (!found)
        throw std::out_of_range("no settings level holds \"" + qualified(where) + "\"");
    if (auto* value = std::get_if<T>(&*found))
        return std::move(*value);
    // An empty list read from a file has no element type; it serves either kind of list.
    if constexpr (std::is_same_v<T, std::vector<double>>) {
        if (auto* other = std::get_if<std::vector<std::string>>(&*found); other && other->empty())
            return {};
    } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
        if (auto* other = std::get_if<std::vector<double>>(&*found); other && other->empty())
            return {};
    }
    throw std::runtime_error("setting \"" + qualified(where) + "\" holds a " +
                             kTypeNames[found->index()] + ", not a " + kTypeNames[typeIndex<T>()]);
}

template <SettingValue T>
void Settings::set(const std::string& name, const T& value, const std::string& level) {
    const auto parsedLevel = detail::parseLevel(level);
    const auto where = locate(mPath, name);
    validate(value);
    SettingsStore::instance().set(where.first, where.second, SettingData(value), parsedLevel);
}

void Settings::set(const std::string& name, const char* value, const std::string& level) {
    if (value == nullptr)
        throw std::invalid_argument("a setting's text must not be a null pointer");
    set<std::string>(name, std::string(value), level);
}

template WSB_EXPORT bool Settings::get<bool>(const std::string&) const;
template WSB_EXPORT double Settings::get<double>(const std::string&) const;
template WSB_EXPORT std::string Settings::get<std::string>(const std::string&) const;
template WSB_EXPORT std::vector<double>
Settings::get<std::vector<double>>(const std::string&) const;
template WSB_EXPORT std::vector<std::string>
Settings::get<std::vector<std::string>>(const std::string&) const;

template WSB_EXPORT void Settings::set<bool>(const std::string&, const bool&, const std::string&);
template WSB_EXPORT void Settings::set<double>(const std::string&, const double&,
                                               const std::string&);
template WSB_EXPORT void Settings::set<std::string>(const std::string&, const std::string&,
                                                    const std::string&);
template WSB_EXPORT void Settings::set<std::vector<double>>(const std::string&,
                                                            const std::vector<double>&,
                                                            const std::string&);
template WSB_EXPORT void Settings::set<std::vector<std::string>>(const std::string&,
                                                                 const std::vector<std::string>&,
                                                                 const std::string&);

} // namespace settings::core

namespace settings::standalone {

settings::core::Settings getSettingsRoot() {
    return settings::core::Settings(std::string());
}

void reloadSettings() {
    detail::SettingsStore::instance().reload();
}

} // namespace settings::standalone
