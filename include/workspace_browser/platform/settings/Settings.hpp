#pragma once

#include <workspace_browser/Export.hpp>

#include <concepts>
#include <string>
#include <vector>

namespace settings::core {

// The value types a setting can hold.
template <class T>
concept SettingValue =
    std::same_as<T, bool> || std::same_as<T, double> || std::same_as<T, std::string> ||
    std::same_as<T, std::vector<double>> || std::same_as<T, std::vector<std::string>>;

class Settings;

} // namespace settings::core

namespace settings::standalone {
// The process-wide settings tree. Thread-safe.
WSB_EXPORT settings::core::Settings getSettingsRoot();
} // namespace settings::standalone

namespace settings::core {

// One node of the process-wide settings tree, addressed by its dotted path. A node is only a
// name: copies are cheap and every node reaches the same shared store.
//
// Each setting may be held at three levels, lowest to highest precedence: "factory" (defaults
// shipped with the library), "user" (persisted in settings.json) and "session" (memory only).
// A setting name may itself contain dots: "a.b" names setting "b" of the child node "a".
//
// A user-level set replaces settings.json at once; when the file cannot be written the failure
// is logged, the new value still holds for this process, and set does not throw.
//
// Thread-safe: any number of threads may read and write any nodes at the same time.
class WSB_EXPORT Settings {
public:
    // The child node at `dottedPath` below this one ("" is this node). Nodes exist as soon as
    // they are named. An empty path segment ("a..b") is std::invalid_argument.
    Settings node(const std::string& dottedPath) const;

    // Whether any level holds the setting.
    bool has(const std::string& name) const;

    // The value at the highest level that holds the setting. No level holds it:
    // std::out_of_range. It holds a value of another type: std::runtime_error.
    template <SettingValue T> T get(const std::string& name) const;

    // Stores the value at `level` ("factory", "user" or "session"; anything else is
    // std::invalid_argument). Non-finite numbers and strings that are not UTF-8 are
    // std::invalid_argument, since they could not be saved.
    template <SettingValue T>
    void set(const std::string& name, const T& value, const std::string& level = "user");
    void set(const std::string& name, const char* value, const std::string& level = "user");

    // This node's dotted path; "" for the root.
    const std::string& path() const { return mPath; }

private:
    friend Settings settings::standalone::getSettingsRoot();
    explicit Settings(std::string path);

    std::string mPath;
};

extern template WSB_EXPORT bool Settings::get<bool>(const std::string&) const;
extern template WSB_EXPORT double Settings::get<double>(const std::string&) const;
extern template WSB_EXPORT std::string Settings::get<std::string>(const std::string&) const;
extern template WSB_EXPORT std::vector<double>
Settings::get<std::vector<double>>(const std::string&) const;
extern template WSB_EXPORT std::vector<std::string>
Settings::get<std::vector<std::string>>(const std::string&) const;

extern template WSB_EXPORT void Settings::set<bool>(const std::string&, const bool&,
                                                    const std::string&);
extern template WSB_EXPORT void Settings::set<double>(const std::string&, const double&,
                                                      const std::string&);
extern template WSB_EXPORT void Settings::set<std::string>(const std::string&, const std::string&,
                                                           const std::string&);
extern template WSB_EXPORT void Settings::set<std::vector<double>>(const std::string&,
                                                                   const std::vector<double>&,
                                                                   const std::string&);
extern template WSB_EXPORT void
Settings::set<std::vector<std::string>>(const std::string&, const std::vector<std::string>&,
                                        const std::string&);

} // namespace settings::core

namespace settings::standalone {
// Forgets the session level and the user level read so far; the user file (found again from
// the environment) is read anew on next use. Factory defaults stay. Thread-safe.
WSB_EXPORT void reloadSettings();
} // namespace settings::standalone
