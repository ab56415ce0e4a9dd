#pragma once

#include <workspace_browser/Export.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace foundation::json {

// A JSON parse failure with its location. what() reads
//   JSON ParserException (E<code>): <description> (Line <l>, Column <c>)
// then, on the next lines, the offending line of text and a line with '^' under the failing
// column. Columns count characters, a UTF-8 multi-byte sequence being one character; in the
// caret line each tab before the column is kept as a tab and every other character becomes
// one space, so the caret lines up whatever the tab width. A position past the end of the
// text is taken as the end. Immutable after construction, so safe to read from any thread.
class WSB_EXPORT ParserException : public std::runtime_error {
public:
    ParserException(int code, std::string_view text, std::size_t position);

    int code() const noexcept { return mCode; }
    std::size_t line() const noexcept { return mLine; }     // 1-based
    std::size_t column() const noexcept { return mColumn; } // 1-based

private:
    struct Location;
    ParserException(int code, const Location& where);

    int mCode;
    std::size_t mLine;
    std::size_t mColumn;
};

} // namespace foundation::json
