#include "ViewportMath.hpp"

#include <algorithm>
#include <limits>

namespace workspace_browser_startup {

std::int32_t ViewportMath::toInt32(std::int64_t value) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(
        value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

std::int32_t ViewportMath::lastIndex(std::size_t count) {
    return toInt32(std::max<std::int64_t>(static_cast<std::int64_t>(count) - 1, 0));
}

std::shared_ptr<DSEvent> ViewportMath::tableEvent(std::size_t rowCount, std::size_t columnCount,
                                                  std::int32_t startRow, std::int32_t endRow,
                                                  std::int32_t startColumn, bool sizeChanged) {
    const std::int32_t lastRow = lastIndex(rowCount);
    auto event = std::make_shared<DSEvent>(wholeTable(rowCount, columnCount));
    event->startRow = std::clamp(startRow, 0, lastRow);
    event->endRow = std::clamp(endRow, 0, lastRow);
    event->startColumn = std::clamp(startColumn, 0, lastRow);
    event->sizeChanged = sizeChanged;
    return event;
}

DSEvent ViewportMath::wholeTable(std::size_t rowCount, std::size_t columnCount) {
    DSEvent event;
    event.startRow = event.fullStartRow = 0;
    event.endRow = event.fullEndRow = lastIndex(rowCount);
    event.startColumn = event.fullStartColumn = 0;
    event.endColumn = event.fullEndColumn = lastIndex(columnCount);
    return event;
}

std::pair<std::int64_t, std::int64_t> ViewportMath::rowsInGrid(const DSEvent& event,
                                                               std::size_t rowCount) {
    return {std::max<std::int64_t>(event.startRow, 0),
            std::min<std::int64_t>(event.endRow, static_cast<std::int64_t>(rowCount) - 1)};
}

void ViewportMath::copyRange(const DSEvent& event, DSModelEvent& model) {
    model.startRow = event.startRow;
    model.endRow = event.endRow;
    model.startColumn = event.startColumn;
    model.endColumn = event.endColumn;
    model.fullStartRow = event.fullStartRow;
    model.fullEndRow = event.fullEndRow;
    model.fullStartColumn = event.fullStartColumn;
    model.fullEndColumn = event.fullEndColumn;
}

} // namespace workspace_browser_startup
