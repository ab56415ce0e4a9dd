#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/i18n/MessageID.hpp>

#include <string>

namespace fl::i18n {

// Translated texts from the gettext catalogs shipped with the library (English, German,
// Japanese), in one process-wide locale. Catalogs are read from $WSB_MESSAGES_DIR when set,
// else from the "messages" folder of the library's data folder; the folder is fixed at first
// use. Thread-safe: any thread may look up texts while another switches the locale.
class WSB_EXPORT MessageCatalog {
public:
    // The text of `id` in the process-wide locale. A language without a catalog or without this
    // entry gives the English text; an id no catalog holds gives the id itself.
    static std::u16string get_message(const MessageID& id);

    // Switches the process-wide locale, e.g. "de_DE.UTF-8" or "ja". "C", "POSIX", "" and names
    // that are not locale names select English; this never throws for a bad name. Until the
    // first call the locale comes from LC_ALL, LC_MESSAGES or LANG, in that order.
    static void set_locale(const std::string& name);
};

} // namespace fl::i18n
