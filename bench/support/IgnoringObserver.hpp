#pragma once

// A paging observer that ignores every request, for benchmarks that answer only one kind.
// Thread-safety: as the overriding class's.
#include <workspace_browser/viewmodel/DSObserver.hpp>

namespace wsb_bench {

class IgnoringObserver : public DSObserver {
public:
    void handleClientReady() override {}
    void handleSetViewportRange(const DSEvent&) override {}
    void handleClientGetSize() override {}
    void handleClientGetData(const DSEvent&) override {}
    void handleClientSetData(const DSEvent&) override {}
    void handleClientGetMetaData(const DSEvent&) override {}
    void handleClientGetTableMetaData(const DSEvent&) override {}
    void handleClientGetColumnMetaData(const DSEvent&) override {}
    void handleClientGetRowMetaData(const DSEvent&) override {}
    void handleClientGetCellMetaData(const DSEvent&) override {}
    void handleClientSetTableMetaData(const DSModelEvent&) override {}
    void handleClientSetColumnMetaData(const DSModelEvent&) override {}
    void handleClientSetRowMetaData(const DSModelEvent&) override {}
    void handleClientSetCellMetaData(const DSModelEvent&) override {}
    void handleSortChanged(int, bool) override {}
};

} // namespace wsb_bench
