#include "platform/settings/SettingsStore.hpp"

#include "platform/DataDir.hpp"

#include <stdexcept>
#include <utility>

namespace settings::detail {

namespace fs = std::filesystem;

Level parseLevel(const std::string& name) {
    if (name == "factory")
        return Level::Factory;
    if (name == "user")
        return Level::User;
    if (name == "session")
        return Level::Session;
    throw std::invalid_argument("unknown settings level \"" + name +
                                "\"; the levels are factory, user and session");
}

SettingsStore& SettingsStore::instance() {
    static SettingsStore store;
    return store;
}

std::optional<SettingData> SettingsStore::find(const std::string& node, const std::string& name) {
    std::lock_guard lock(mStateMutex);
    ensureLoaded();
    for (auto level = mLayers.rbegin(); level != mLayers.rend(); ++level) {
        const auto n = level->find(node);
        if (n == level->end())
            continue;
        const auto s = n->second.find(name);
        if (s != n->second.end())
            return s->second;
    }
    return std::nullopt;
}

void SettingsStore::set(const std::string& node, const std::string& name, SettingData value,
                        Level level) {
    if (level != Level::User) {
        std::lock_guard lock(mStateMutex);
        ensureLoaded();
        mLayers[static_cast<int>(level)][node][name] = std::move(value);
        return;
    }

    std::lock_guard fileLock(mFileMutex);
    std::string text;
    fs::path file;
    bool moveRejected = false;
    {
        std::lock_guard lock(mStateMutex);
        ensureLoaded();
        Layer& user = mLayers[static_cast<int>(Level::User)];
        // Rewriting the file costs two flushes to disk; when it already holds this value there
        // is nothing to save. A value that only lives in memory after a failed save is saved.
        if (!mUserFileStale && !mUserFileRejected && !mUserFile.empty()) {
            const auto n = user.find(node);
            if (n != user.end()) {
                const auto s = n->second.find(name);
                if (s != n->second.end() && s->second == value)
                    return;
            }
        }
        user[node][name] = std::move(value);
        if (mUserFile.empty())
            return; // already warned when loading: user settings last for this process only
        text = SettingsFile::serialize(mLayers[static_cast<int>(Level::User)]);
        file = mUserFile;
        moveRejected = std::exchange(mUserFileRejected, false);
    }
    try {
        fs::path keepAs;
        if (moveRejected)
            keepAs = file.string() + ".corrupt";
        SettingsFile::writeAtomically(file, text, keepAs);
        std::lock_guard lock(mStateMutex);
        if (mUserFile == file)
            mUserFileStale = false;
    } catch (const std::exception& e) {
        // The value still holds in memory and goes to disk with the next successful save; a
        // failing disk must not break the caller's operation.
        WSB_LOG(mLog, foundation::log::kError)
            << "Could not save user settings to " << file.string() << ": " << e.what();
        std::lock_guard lock(mStateMutex);
        if (mUserFile == file) {
            mUserFileStale = true;
            if (moveRejected)
                mUserFileRejected = true;
        }
    }
}

void SettingsStore::reload() {
    std::lock_guard fileLock(mFileMutex);
    std::lock_guard lock(mStateMutex);
    mLayers[static_cast<int>(Level::Session)].clear();
    mLayers[static_cast<int>(Level::User)].clear();
    mUserLoaded = false;
    mUserFile.clear();
    mUserFileRejected = false;
    mUserFileStale = false;
}

void SettingsStore::ensureLoaded() {
    if (!mFactoryLoaded) {
        mFactoryLoaded = true;
        loadFactory();
    }
    if (!mUserLoaded) {
        mUserLoaded = true;
        loadUser();
    }
}

void SettingsStore::loadFactory() {
    const fs::path file = wsb::platform::dataDir() / "factory-settings.json";
    auto result = SettingsFile::read(file);
    if (!result.exists) {
        WSB_LOG(mLog, foundation::log::kWarning)
            << "No factory settings at " << file.string() << "; running without defaults";
        return;
    }
    if (!result.problem.empty()) {
        WSB_LOG(mLog, foundation::log::kWarning)
            << "Ignoring the factory settings " << file.string() << ": " << result.problem;
        return;
    }
    // Values set at factory level before first use stay on top of the shipped ones.
    auto& layer = mLayers[static_cast<int>(Level::Factory)];
    for (auto& [node, settings] : result.layer)
        layer[node].merge(settings);
}

void SettingsStore::loadUser() {
    const fs::path dir = SettingsFile::userDirectory();
    if (dir.empty()) {
        WSB_LOG(mLog, foundation::log::kWarning)
            << "No home folder is known, so user settings are not saved";
        return;
    }
    mUserFile = dir / "settings.json";
    auto result = SettingsFile::read(mUserFile);
    if (!result.problem.empty()) {
        mUserFileRejected = true;
        WSB_LOG(mLog, foundation::log::kWarning)
            << "Ignoring the user settings in " << mUserFile.string() << ": " << result.problem
            << ". The file is kept as " << mUserFile.filename().string()
            << ".corrupt when a user setting is next saved";
        return;
    }
    auto& layer = mLayers[static_cast<int>(Level::User)];
    for (auto& [node, settings] : result.layer)
        layer[node].merge(settings);
}

} // namespace settings::detail
