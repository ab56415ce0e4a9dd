// Builds against the installed package only: if a header, symbol, catalog or the factory
// settings file is missing from the installation, this program fails.
#include <workspace_browser/workspace_browser.hpp>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

namespace json = foundation::json;
namespace ms = connector::message_service;

static int failures = 0;
static void check(bool ok, const std::string& what) {
    if (!ok) {
        std::cerr << "consumer: FAILED " << what << "\n";
        ++failures;
    }
}

int main() {
    const auto settingsDir = std::filesystem::temp_directory_path() / "wsb-consumer-settings";
    std::filesystem::remove_all(settingsDir);
    ::setenv("WSB_SETTINGS_DIR", settingsDir.c_str(), 1);
    ::unsetenv("WSB_MESSAGES_DIR"); // the installed catalogs must be found on their own

    foundation::core::diag::setCurrentThreadName("consumer");
    check(foundation::core::diag::currentThreadName() == "consumer", "thread name");

    json::Object page{{"eventType", json::Value(2)}, {"big", json::Value(9007199254740993L)}};
    check(json::serialize(json::Value(page)) == R"({"big":9007199254740993,"eventType":2})",
          "serialize");

    auto service = std::make_shared<ms::LocalMessageService>();
    std::string received;
    auto sub = service->subscribeClient("/c", [&](const ms::JsonMessage& m) {
        received = std::string(m.text());
    });
    service->publish("/c", ms::JsonMessage(std::string_view(R"({"x":1})"))).get();
    check(received == R"({"x":1})", "local message service");

    auto columns = settings::standalone::getSettingsRoot().node("zentra.desktop.workspace.columns");
    check(columns.get<std::vector<double>>("ColumnWidths").size() == 13, "factory column widths");

    fl::i18n::MessageCatalog::set_locale("de_DE.UTF-8");
    check(fl::i18n::MessageCatalog::get_message(
              fl::i18n::MessageID("ZENTRA:codetools:variableeditor:Value")) == u"Wert",
          "German catalog");

    std::filesystem::remove_all(settingsDir);
    if (failures == 0)
        std::cout << "consumer: installed package works\n";
    return failures == 0 ? 0 : 1;
}
