#include <workspace_browser/platform/json/ParseResult.hpp>
#include <workspace_browser/platform/json/ParserException.hpp>

#include <algorithm>

namespace foundation::json {

namespace {
bool isContinuationByte(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}
} // namespace

struct ParserException::Location {
    std::size_t line = 1;
    std::size_t column = 1;
    std::string_view lineText; // without its line break
    std::string_view beforeColumn;

    Location(std::string_view text, std::size_t position) {
        position = std::min(position, text.size());
        const std::string_view head = text.substr(0, position);
        line += static_cast<std::size_t>(std::count(head.begin(), head.end(), '\n'));
        const std::size_t lastBreak = head.rfind('\n');
        const std::size_t lineStart = lastBreak == std::string_view::npos ? 0 : lastBreak + 1;
        beforeColumn = head.substr(lineStart);
        column +=
            static_cast<std::size_t>(std::count_if(beforeColumn.begin(), beforeColumn.end(),
                                                   [](char c) { return !isContinuationByte(c); }));
        std::size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string_view::npos)
            lineEnd = text.size();
        lineText = text.substr(lineStart, lineEnd - lineStart);
        // A CRLF line break would otherwise leave a carriage return in the printed line.
        if (!lineText.empty() && lineText.back() == '\r')
            lineText.remove_suffix(1);
    }

    std::string message(int code) const {
        std::string text = "JSON ParserException (E";
        text += std::to_string(code);
        text += "): ";
        text += get_parse_result_description(code);
        text += " (Line ";
        text += std::to_string(line);
        text += ", Column ";
        text += std::to_string(column);
        text += ")\n";
        text += lineText;
        text += '\n';
        for (char c : beforeColumn) {
            if (c == '\t')
                text += '\t';
            else if (!isContinuationByte(c))
                text += ' ';
        }
        text += '^';
        return text;
    }
};

ParserException::ParserException(int code, std::string_view text, std::size_t position)
    : ParserException(code, Location(text, position)) {}

ParserException::ParserException(int code, const Location& where)
    : std::runtime_error(where.message(code)), mCode(code), mLine(where.line),
      mColumn(where.column) {}

} // namespace foundation::json
