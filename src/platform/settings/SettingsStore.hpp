#pragma once

#include "platform/settings/SettingsFile.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>

#include <array>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace settings::detail {

enum class Level { Factory = 0, User = 1, Session = 2 };

// "factory", "user" or "session"; anything else is std::invalid_argument.
Level parseLevel(const std::string& name);

// The process-wide settings: three levels of values, the factory defaults read from the
// library's data folder and the user level read from and saved to settings.json. Both files
// are read on first use. Thread-safe.
class SettingsStore {
public:
    static SettingsStore& instance();

    // The value at the highest level holding node/name, if any.
    std::optional<SettingData> find(const std::string& node, const std::string& name);
    // Stores the value; at the user level also saves the whole level to settings.json, unless
    // the file already holds that value.
    void set(const std::string& node, const std::string& name, SettingData value, Level level);
    // Drops the session level and the user level; the user file is read again on next use.
    void reload();

private:
    SettingsStore() = default;
    // Requires mStateMutex.
    void ensureLoaded();
    void loadFactory();
    void loadUser();

    foundation::log::basic_diagnostic_logger mLog{"zentra::settings"};
    // Serialises saves of settings.json so that the last value set is the one on disk; it is
    // always taken before mStateMutex, and readers never wait for the disk.
    std::mutex mFileMutex;
    std::mutex mStateMutex;
    std::array<Layer, 3> mLayers;
    bool mFactoryLoaded = false;
    bool mUserLoaded = false;
    std::filesystem::path mUserFile; // empty: no place to save user settings
    // The file on disk was rejected; the next save moves it to settings.json.corrupt instead of
    // overwriting it, so that nothing the user had is lost without a trace.
    bool mUserFileRejected = false;
    // The last save failed, so the file may lack values held in memory.
    bool mUserFileStale = false;
};

} // namespace settings::detail
