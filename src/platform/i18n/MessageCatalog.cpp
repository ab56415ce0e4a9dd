#include <workspace_browser/platform/i18n/MessageCatalog.hpp>

#include "platform/DataDir.hpp"

#include <boost/locale/encoding_utf.hpp>
#include <boost/locale/generator.hpp>
#include <boost/locale/message.hpp>

#include <cctype>
#include <cstdlib>
#include <locale>
#include <map>
#include <mutex>
#include <optional>

namespace fl::i18n {

namespace {

constexpr const char* kDomain = "workspace_browser";
constexpr const char* kEnglish = "en_US.UTF-8";

bool allOf(const std::string& s, int (*pred)(int)) {
    for (unsigned char c : s)
        if (!pred(c))
            return false;
    return true;
}

// Rewrites a POSIX locale name (language[_territory][.codeset][@modifier]) to its UTF-8 form,
// since texts are always handed out as UTF-16 converted from UTF-8 catalogs. Anything that
// is not such a name becomes English.
std::string normalizeName(const std::string& name) {
    if (name.empty() || name == "C" || name == "POSIX" || name.rfind("C.", 0) == 0)
        return kEnglish;
    std::string rest = name;
    std::string modifier;
    if (const auto at = rest.find('@'); at != std::string::npos) {
        modifier = rest.substr(at + 1);
        rest.erase(at);
    }
    if (const auto dot = rest.find('.'); dot != std::string::npos)
        rest.erase(dot);
    std::string language = rest;
    std::string territory;
    if (const auto underscore = rest.find('_'); underscore != std::string::npos) {
        language = rest.substr(0, underscore);
        territory = rest.substr(underscore + 1);
    }
    if (language.size() < 2 || language.size() > 3 || !allOf(language, std::isalpha) ||
        territory.size() > 3 || !allOf(territory, std::isalnum) || modifier.size() > 16 ||
        !allOf(modifier, std::isalnum))
        return kEnglish;
    for (auto& c : language)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (auto& c : territory)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string result = language;
    if (!territory.empty())
        result += "_" + territory;
    result += ".UTF-8";
    if (!modifier.empty())
        result += "@" + modifier;
    return result;
}

std::string environmentLocale() {
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (const char* value = std::getenv(var); value != nullptr && *value != '\0')
            return value;
    return {};
}

// The generated locales and the current choice. Generating a locale reads the catalogs from
// disk, so each one is made once and kept.
class Catalogs {
public:
    static Catalogs& instance() {
        static Catalogs catalogs;
        return catalogs;
    }

    struct Current {
        std::locale locale;
        std::optional<std::locale> english; // set when `locale` is not English itself
    };

    Current current() {
        std::lock_guard lock(mMutex);
        initialize();
        return mCurrent;
    }

    void select(const std::string& name) {
        std::lock_guard lock(mMutex);
        initialize();
        selectLocked(name);
    }

private:
    Catalogs() = default;

    void initialize() {
        if (mInitialized)
            return;
        mInitialized = true;
        std::string dir;
        if (const char* env = std::getenv("WSB_MESSAGES_DIR"); env != nullptr && *env != '\0')
            dir = env;
        else
            dir = (wsb::platform::dataDir() / "messages").string();
        mGenerator.categories(boost::locale::category_t::message |
                              boost::locale::category_t::information);
        mGenerator.add_messages_path(dir);
        mGenerator.add_messages_domain(kDomain);
        selectLocked(environmentLocale());
    }

    void selectLocked(const std::string& name) {
        const std::string normalized = normalizeName(name);
        mCurrent.locale = generate(normalized);
        if (normalized.rfind("en_", 0) == 0 || normalized.rfind("en.", 0) == 0)
            mCurrent.english.reset();
        else
            mCurrent.english = generate(kEnglish);
    }

    std::locale generate(const std::string& name) {
        if (auto it = mCache.find(name); it != mCache.end())
            return it->second;
        std::locale result;
        try {
            result = mGenerator.generate(name);
        } catch (const std::exception&) {
            // A backend that rejects the name leaves the texts untranslated rather than failing
            // the caller; English is tried by the lookup anyway.
            result = std::locale::classic();
        }
        mCache.emplace(name, result);
        return result;
    }

    std::mutex mMutex;
    bool mInitialized = false;
    boost::locale::generator mGenerator;
    std::map<std::string, std::locale> mCache;
    Current mCurrent;
};

} // namespace

std::u16string MessageCatalog::get_message(const MessageID& id) {
    // gettext keeps the catalog's header under the empty id, and a C string ends at the first
    // NUL: neither kind of id can name an entry.
    if (id.id().empty() || id.id().find('\0') != std::string::npos)
        return boost::locale::conv::utf_to_utf<char16_t>(id.id());
    const auto current = Catalogs::instance().current();
    const char* key = id.id().c_str();
    std::string text = boost::locale::gettext(key, current.locale);
    if (text == id.id() && current.english)
        text = boost::locale::gettext(key, *current.english);
    return boost::locale::conv::utf_to_utf<char16_t>(text);
}

void MessageCatalog::set_locale(const std::string& name) {
    Catalogs::instance().select(name);
}

} // namespace fl::i18n
