#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace settings::detail {

// One setting's value, of one of the types Settings::get and Settings::set accept.
using SettingData =
    std::variant<bool, double, std::string, std::vector<double>, std::vector<std::string>>;
// The settings of one level: dotted node path -> setting name -> value.
using Layer = std::map<std::string, std::map<std::string, SettingData>>;

// Reads and writes the JSON files holding one level of settings:
//   { "<dotted node path>": { "<setting name>": <value>, ... }, ... }
// where a value is a boolean, a number, a string, or an array of numbers or of strings.
// Stateless; safe to call from any thread, but callers must not write the same file from two
// threads at once.
class SettingsFile {
public:
    struct ReadResult {
        bool exists = false;
        Layer layer;         // empty whenever `problem` is set
        std::string problem; // why the file was rejected; empty when it was read
    };

    // Reads a whole file. A file that is empty, unreadable, not JSON or holds anything but the
    // shapes above is rejected as a whole: a half-read file could silently mix old and wrong
    // values.
    static ReadResult read(const std::filesystem::path& file);

    // Parses file content; `problem` tells why it was rejected.
    static ReadResult parse(std::string_view text);

    static std::string serialize(const Layer& layer);

    // Replaces `file` by `text` so that readers only ever see the old or the new content, even
    // across a crash: a uniquely named temporary file in the same folder is written, flushed
    // to disk and renamed over `file`, then the folder itself is flushed. Creates the folder
    // when missing. When `keepOldAs` is not empty the previous file is renamed to it first.
    // Throws std::system_error or std::filesystem::filesystem_error on failure and leaves
    // `file` untouched then.
    static void writeAtomically(const std::filesystem::path& file, std::string_view text,
                                const std::filesystem::path& keepOldAs = {});

    // The folder of the user's settings.json: $WSB_SETTINGS_DIR, else
    // $XDG_CONFIG_HOME/workspace-browser, else ~/.config/workspace-browser; empty when the
    // environment names no home at all.
    static std::filesystem::path userDirectory();
};

} // namespace settings::detail
