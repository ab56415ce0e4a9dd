#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/platform/settings/Settings.hpp>

#include <boost/json.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <sys/stat.h>

namespace fs = std::filesystem;
using settings::core::Settings;
using settings::standalone::getSettingsRoot;
using settings::standalone::reloadSettings;
using Widths = std::vector<double>;

namespace {

const std::string kColumnsNode = "zentra.desktop.workspace.columns";

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

long countLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "wsb-settings-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        mDir = pattern;
        ::setenv("WSB_SETTINGS_DIR", mDir.c_str(), 1);
        reloadSettings();
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(mDir, ec);
    }
    fs::path file() const { return mDir / "settings.json"; }
    void expectOnlyTheSettingsFile() const {
        for (const auto& entry : fs::directory_iterator(mDir))
            EXPECT_EQ(entry.path().filename(), "settings.json") << "no temporary file is left";
    }

    fs::path mDir;
};

} // namespace

TEST_F(SettingsTest, HighestLevelWinsAndSessionIsForgottenOnReload) {
    Settings columns = getSettingsRoot().node(kColumnsNode);
    auto user = columns.get<Widths>("ColumnWidths");
    ASSERT_EQ(user.size(), 13u) << "one factory width per column";
    user[3] = 333;
    columns.set("ColumnWidths", user);
    EXPECT_EQ(columns.get<Widths>("ColumnWidths"), user);
    columns.set("ColumnWidths", Widths{1, 2}, "session");
    // A lower level written later does not hide a higher one.
    columns.set("ColumnWidths", Widths{9}, "factory");
    EXPECT_EQ(columns.get<Widths>("ColumnWidths"), (Widths{1, 2}));

    // The user file is plain JSON without the session value.
    const auto onDisk = boost::json::parse(readFile(file()));
    EXPECT_EQ(boost::json::value_to<Widths>(onDisk.at(kColumnsNode).at("ColumnWidths")), user);
    expectOnlyTheSettingsFile();

    reloadSettings();
    EXPECT_EQ(columns.get<Widths>("ColumnWidths"), user) << "user level persisted";
    // The same setting reached through a dotted name and through nested nodes.
    EXPECT_EQ(getSettingsRoot().get<Widths>(kColumnsNode + ".ColumnWidths"), user);
    EXPECT_EQ(getSettingsRoot().node("zentra.desktop").node("workspace.columns").path(),
              kColumnsNode);
    EXPECT_THROW(getSettingsRoot().node("brand.new").get<bool>("Anything"), std::out_of_range);
}

TEST_F(SettingsTest, SettingTheStoredValueAgainLeavesTheFileAlone) {
    // Every save writes a new file and renames it over the old one, so the file's identity tells
    // whether a save happened.
    const auto identity = [this] {
        struct stat info {};
        EXPECT_EQ(::stat(file().c_str(), &info), 0);
        return info.st_ino;
    };
    Settings columns = getSettingsRoot().node(kColumnsNode);
    auto widths = columns.get<Widths>("ColumnWidths");
    widths[0] = 123;
    columns.set("ColumnWidths", widths);
    const auto saved = identity();
    columns.set("ColumnWidths", widths);
    EXPECT_EQ(identity(), saved) << "an unchanged value is not saved again";

    widths[0] = 124;
    columns.set("ColumnWidths", widths);
    EXPECT_NE(identity(), saved);
    const auto onDisk = boost::json::parse(readFile(file()));
    EXPECT_EQ(boost::json::value_to<Widths>(onDisk.at(kColumnsNode).at("ColumnWidths")), widths);

    // A value never set at user level is saved even when it equals a default.
    Settings other = getSettingsRoot().node("test");
    other.set("flag", false);
    EXPECT_FALSE(boost::json::parse(readFile(file())).at("test").at("flag").as_bool());
}

TEST_F(SettingsTest, EveryValueTypeSurvivesTheFileAndMismatchesAreClearErrors) {
    Settings node = getSettingsRoot().node("test.types");
    const std::string text = "Grüße \"quoted\" \\ \n 名前";
    node.set("flag", true);
    node.set("number", 0.1);
    node.set("negativeZero", -0.0);
    node.set("text", text);
    node.set("numbers", Widths{1.5, -2, 1e300});
    node.set("texts", std::vector<std::string>{"a", "", "ü"});
    node.set("emptyList", std::vector<std::string>{});
    reloadSettings();

    EXPECT_TRUE(node.get<bool>("flag"));
    EXPECT_EQ(node.get<double>("number"), 0.1);
    EXPECT_TRUE(std::signbit(node.get<double>("negativeZero")));
    EXPECT_EQ(node.get<std::string>("text"), text);
    EXPECT_EQ(node.get<Widths>("numbers"), (Widths{1.5, -2, 1e300}));
    EXPECT_EQ(node.get<std::vector<std::string>>("texts"),
              (std::vector<std::string>{"a", "", "ü"}));
    EXPECT_TRUE(node.get<Widths>("emptyList").empty());

    EXPECT_THAT([&] { (void)node.get<double>("text"); },
                ::testing::ThrowsMessage<std::runtime_error>(
                    "setting \"test.types.text\" holds a std::string, not a double"));
    EXPECT_THROW((void)node.get<std::vector<std::string>>("numbers"), std::runtime_error);
    EXPECT_THROW(node.set("x", true, "system"), std::invalid_argument);
    EXPECT_THROW(node.set("x", std::nan(""), "session"), std::invalid_argument);
    EXPECT_THROW(node.set("x", Widths{1, INFINITY}), std::invalid_argument);
    EXPECT_THROW(node.set("x", std::string("\xff\xfe")), std::invalid_argument);
    EXPECT_THROW(node.node("a..b"), std::invalid_argument);
    EXPECT_THROW(node.set("", true), std::invalid_argument);
    EXPECT_THROW(node.set("a.", true), std::invalid_argument);
    EXPECT_FALSE(node.has("x")) << "rejected values are not stored";
}

TEST_F(SettingsTest, UserFolderFollowsTheEnvironment) {
    ::unsetenv("WSB_SETTINGS_DIR");
    ::setenv("XDG_CONFIG_HOME", (mDir / "xdg").c_str(), 1);
    reloadSettings();
    getSettingsRoot().set("a.b", 1.0);
    EXPECT_TRUE(fs::exists(mDir / "xdg" / "workspace-browser" / "settings.json"));
}

TEST_F(SettingsTest, ConcurrentWritersLeaveOneWritersCompleteValue) {
    Settings node = getSettingsRoot().node(kColumnsNode);
    constexpr int kWriters = 4;
    constexpr int kWrites = 25;
    constexpr std::size_t kLength = 64;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done.load()) {
            if (node.has("Widths")) {
                const auto v = node.get<Widths>("Widths");
                ASSERT_EQ(v.size(), kLength);
                EXPECT_EQ(std::count(v.begin(), v.end(), v.front()),
                          static_cast<std::ptrdiff_t>(kLength));
            }
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kWriters; ++t)
        writers.emplace_back([&node, t] {
            for (int i = 0; i < kWrites; ++i)
                node.set("Widths", Widths(kLength, t * 1000.0 + i));
        });
    for (auto& w : writers)
        w.join();
    done = true;
    reader.join();

    const auto inMemory = node.get<Widths>("Widths");
    const auto json = boost::json::parse(readFile(file()));
    EXPECT_EQ(boost::json::value_to<Widths>(json.at(kColumnsNode).at("Widths")), inMemory)
        << "the file holds the last value";
    EXPECT_EQ(std::fmod(inMemory.front(), 1000.0), kWrites - 1)
        << "the last value is some writer's final write";
    expectOnlyTheSettingsFile();
}

TEST_F(SettingsTest, UnwritableFolderKeepsTheValueInMemoryAndLogsAnError) {
    std::ofstream(mDir / "blocker") << "a file where a folder is needed";
    ::setenv("WSB_SETTINGS_DIR", (mDir / "blocker" / "sub").c_str(), 1);
    reloadSettings();
    std::ostringstream log;
    auto sink = foundation::log::addConsoleSink(2, "zentra::settings", &log);
    Settings node = getSettingsRoot().node("test");
    EXPECT_NO_THROW(node.set("value", 5.0));
    EXPECT_EQ(node.get<double>("value"), 5.0);
    EXPECT_EQ(countLines(log.str()), 1) << log.str();
    EXPECT_EQ(log.str().rfind("1 zentra::settings: Could not save user settings", 0), 0u)
        << log.str();
}

namespace {

struct BadFile {
    const char* name;
    std::string bytes;
};

void PrintTo(const BadFile& file, std::ostream* os) {
    *os << file.name;
}

class CorruptSettingsFile : public SettingsTest, public ::testing::WithParamInterface<BadFile> {};

} // namespace

TEST_P(CorruptSettingsFile, ReadsAsNoUserSettingsWithOneWarningAndIsKeptAside) {
    const std::string& bytes = GetParam().bytes;
    std::ofstream(file(), std::ios::binary) << bytes;
    std::ostringstream log;
    auto sink = foundation::log::addConsoleSink(2, "zentra::settings", &log);

    Settings columns = getSettingsRoot().node(kColumnsNode);
    EXPECT_EQ(columns.get<Widths>("ColumnWidths").size(), 13u) << "factory value";
    EXPECT_FALSE(getSettingsRoot().has("other.Mine"));
    EXPECT_EQ(readFile(file()), bytes) << "reading never changes the file";

    columns.set("Mine", true);
    EXPECT_EQ(countLines(log.str()), 1) << log.str();
    EXPECT_EQ(log.str().rfind("2 zentra::settings: Ignoring the user settings", 0), 0u)
        << log.str();
    EXPECT_EQ(readFile(mDir / "settings.json.corrupt"), bytes);

    reloadSettings();
    EXPECT_TRUE(columns.get<bool>("Mine"));
    EXPECT_FALSE(getSettingsRoot().has("other.Mine")) << "nothing of the bad file was taken";
    EXPECT_EQ(countLines(log.str()), 1) << "the new file reads cleanly: " << log.str();
}

INSTANTIATE_TEST_SUITE_P(
    Settings, CorruptSettingsFile,
    ::testing::Values(BadFile{"Empty", ""}, BadFile{"NulBytes", std::string(64, '\0')},
                      BadFile{"Garbage", "\x89PNG\r\n not settings at all"},
                      BadFile{"Truncated", "{\"other\": {\"Mine\": [1, 2"},
                      BadFile{"TopLevelArray", "[1, 2, 3]"},
                      BadFile{"NodeNotObject", "{\"other\": 5}"},
                      BadFile{"NullValue", "{\"other\": {\"Mine\": true, \"x\": null}}"},
                      BadFile{"MixedList", "{\"other\": {\"Mine\": true, \"x\": [1, \"a\"]}}"},
                      BadFile{"ObjectValue", "{\"other\": {\"Mine\": {\"deep\": 1}}}"},
                      BadFile{"EmptyNodeSegment", "{\"other..x\": {\"Mine\": true}}"}),
    [](const auto& info) { return info.param.name; });
