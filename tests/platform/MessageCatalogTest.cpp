#include <workspace_browser/platform/i18n/MessageCatalog.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using fl::i18n::MessageCatalog;
using fl::i18n::MessageID;

namespace {

std::u16string header(const std::string& key) {
    return MessageCatalog::get_message(MessageID("ZENTRA:codetools:variableeditor:" + key));
}

} // namespace

TEST(MessageCatalog, ColumnHeadersInEveryShippedLanguage) {
    const std::vector<std::string> keys = {"Name", "Value", "Size", "Class",  "Min",
                                           "Max",  "Range", "Mean", "Median", "Mode",
                                           "Var",  "Std",   "Bytes"};
    const std::vector<std::u16string> english = {u"Name", u"Value", u"Size", u"Class",  u"Min",
                                                 u"Max",  u"Range", u"Mean", u"Median", u"Mode",
                                                 u"Var",  u"Std",   u"Bytes"};
    const std::vector<std::u16string> german = {
        u"Name",       u"Wert",   u"Größe", u"Klasse",  u"Min",       u"Max",  u"Spannweite",
        u"Mittelwert", u"Median", u"Modus", u"Varianz", u"Std.-Abw.", u"Bytes"};
    const std::vector<std::u16string> japanese = {
        u"名前", u"値",     u"サイズ", u"クラス", u"最小値",   u"最大値", u"範囲",
        u"平均", u"中央値", u"最頻値", u"分散",   u"標準偏差", u"バイト"};
    for (const auto& [locale, texts] :
         {std::pair{"en_US.UTF-8", english}, {"de_DE.UTF-8", german}, {"ja_JP.UTF-8", japanese}}) {
        MessageCatalog::set_locale(locale);
        for (std::size_t i = 0; i < keys.size(); ++i)
            EXPECT_EQ(header(keys[i]), texts[i]) << locale << " " << keys[i];
    }
    // Other spellings of the same languages reach the same catalogs; texts stay UTF-16
    // whatever codeset was asked for.
    for (const auto& [locale, key, text] : {std::tuple{"de", "Value", u"Wert"},
                                            {"de_AT.ISO-8859-1", "Size", u"Größe"},
                                            {"ja_JP.eucJP@latin", "Name", u"名前"}}) {
        MessageCatalog::set_locale(locale);
        EXPECT_EQ(header(key), text) << locale;
    }
}

TEST(MessageCatalog, MissingIdsAndUnknownLocalesFallBack) {
    MessageCatalog::set_locale("de_DE.UTF-8");
    EXPECT_EQ(MessageCatalog::get_message(MessageID("ZENTRA:no:such")), u"ZENTRA:no:such");
    EXPECT_EQ(MessageCatalog::get_message(MessageID("")), u"") << "not the catalog header";
    EXPECT_EQ(MessageCatalog::get_message(MessageID("Grüße")), u"Grüße");

    for (const char* name : {"fr_FR.UTF-8", "C", "", "not a locale", "de_DE.NOPE@@",
                             "../../etc/passwd", "de_DE_EXTRA.UTF-8"}) {
        EXPECT_NO_THROW(MessageCatalog::set_locale(name)) << name;
        EXPECT_EQ(header("Value"), u"Value") << "English for \"" << name << "\"";
    }
}

TEST(MessageCatalog, ShippedCatalogsAndTheDefaultLocaleAreFoundWithoutSettings) {
    ::unsetenv("WSB_MESSAGES_DIR");
    ::unsetenv("LC_ALL");
    ::setenv("LC_MESSAGES", "", 1);
    ::setenv("LANG", "ja_JP.UTF-8", 1);
    EXPECT_EQ(header("Value"), u"値");
}

TEST(MessageCatalog, MessagesDirOverridesTheShippedFolder) {
    const fs::path shipped = WSB_TEST_BUILT_MESSAGES_DIR;
    const fs::path dir = fs::temp_directory_path() / ("wsb-messages-" + std::to_string(::getpid()));
    fs::create_directories(dir / "fr" / "LC_MESSAGES");
    // A German catalog posing as French proves the texts come from this folder.
    fs::copy_file(shipped / "de" / "LC_MESSAGES" / "workspace_browser.mo",
                  dir / "fr" / "LC_MESSAGES" / "workspace_browser.mo");
    ::setenv("WSB_MESSAGES_DIR", dir.c_str(), 1);
    MessageCatalog::set_locale("fr_FR.UTF-8");
    EXPECT_EQ(header("Value"), u"Wert");
    MessageCatalog::set_locale("ja_JP.UTF-8");
    EXPECT_EQ(header("Value"), u"ZENTRA:codetools:variableeditor:Value")
        << "no catalog in this folder at all gives the id";
    fs::remove_all(dir);
}

TEST(MessageCatalog, LookupsWhileTheLocaleChanges) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i)
                MessageCatalog::set_locale(i % 2 ? "de_DE.UTF-8" : "ja_JP.UTF-8");
        });
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                const auto text = header("Value");
                EXPECT_TRUE(text == u"Wert" || text == u"値" || text == u"Value");
            }
        });
    for (auto& th : threads)
        th.join();
}
