#pragma once

// What the source files of WSViewModel share. The class is one public class, its definitions
// are spread by concern: WSViewModel.cpp (construction, shutdown, the work queue, the small
// handlers), WSViewModelOrder.cpp (workspace changes, sorting, refresh: the display order),
// WSViewModelPages.cpp (viewport, data pages, edits) and WSViewModelMetadata.cpp (metadata,
// column and statistics settings, selection). Private to those files.

#include "ModelProperties.hpp"

#include <workspace_browser/platform/DiagnosticLogger.hpp>
#include <workspace_browser/viewmodel/WSViewModel.hpp>

#include <boost/locale/encoding_utf.hpp>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_set>
#include <vector>

namespace workspace_browser_startup {

namespace wsviewmodel {

inline constexpr int kLogLevel = foundation::log::kOrdinary;

inline const std::string kDesktopChannel = "/DesktopWSB";
inline const std::string kStartupServices = "StartupServices";
inline const std::string kPagingChannelSuffix = "_who";
inline const std::string kQueueName = "wsViewModel";
inline const std::string kNameColumn = "Name";
inline const std::string kValueColumn = "Value";
inline const char* const kDashedLine = "-----------------------------";

// Above this many variables sorting every row by a column costs too much: only the name
// column stays sortable, and a column sort in force falls back to the name.
inline constexpr std::size_t kMaxSortableVariables = ModelProperties::kMaxSortableRows;
// Rows fetched beyond the viewport's end on a refresh, so that a little scrolling needs no fetch.
inline constexpr std::int64_t kRefreshRowMargin = 200;

inline const foundation::log::basic_diagnostic_logger& logger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatools::WSViewModel");
    return instance;
}

inline const foundation::log::basic_diagnostic_logger& perfLogger() {
    static const foundation::log::basic_diagnostic_logger instance(
        "zentra::datatoolsperf::WSViewModel");
    return instance;
}

inline std::string toUtf8(const std::u16string& text) {
    return boost::locale::conv::utf_to_utf<char>(text);
}

inline std::vector<std::string>
uStringVectorToStdStringVector(const std::vector<std::u16string>& texts) {
    std::vector<std::string> result;
    result.reserve(texts.size());
    for (const std::u16string& text : texts)
        result.push_back(toUtf8(text));
    return result;
}

// Streams a list of texts separated by ", ".
struct Joined {
    const std::vector<std::string>& texts;
};

inline std::ostream& operator<<(std::ostream& out, const Joined& joined) {
    for (std::size_t i = 0; i < joined.texts.size(); ++i)
        out << (i == 0 ? "" : ", ") << joined.texts[i];
    return out;
}

inline std::string rowsText(const std::vector<std::int32_t>& rows) {
    std::string text;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (i != 0)
            text += ", ";
        text += std::to_string(rows[i]);
    }
    return text;
}

} // namespace wsviewmodel

// What a page publication needs from the view state, taken once when the page is requested:
// a host that answers late must still publish the rows it was asked for, in the order asked.
// What a page publication needs from the view state, taken once when the page is requested:
// a host that answers late must still publish the rows it was asked for, in the order asked.
struct WSViewModel::PageRequest {
    std::size_t start = 0; // first row, inclusive
    std::size_t end = 0;   // last row, exclusive
    bool byName = true;
    std::string sortColumn;
    bool ascending = true;
    std::vector<std::string> orderedColumns;
    std::unordered_set<std::string> visible;
    // The order the rows were taken from, and under a column sort the names of the rows.
    std::uint64_t generation = 0;
    std::vector<std::string> rowNames;
};

} // namespace workspace_browser_startup
