#pragma once

#include <workspace_browser/Export.hpp>

#include <string>

namespace fl::i18n {

// The identifier of one translatable text, e.g. "ZENTRA:codetools:variableeditor:Name".
// Immutable; safe to share between threads.
class WSB_EXPORT MessageID {
public:
    explicit MessageID(std::string id);
    const std::string& id() const;

private:
    std::string mId;
};

} // namespace fl::i18n
