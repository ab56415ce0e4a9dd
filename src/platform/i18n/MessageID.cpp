#include <workspace_browser/platform/i18n/MessageID.hpp>

#include <utility>

namespace fl::i18n {

MessageID::MessageID(std::string id) : mId(std::move(id)) {}

const std::string& MessageID::id() const {
    return mId;
}

} // namespace fl::i18n
