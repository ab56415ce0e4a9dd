#pragma once

#include <workspace_browser/Export.hpp>

struct DSEvent;
struct DSModelEvent;

// What the paging endpoint calls when the client's grid asks for something. The endpoint holds
// plain, non-owning pointers and calls every registered observer in registration order.
// Thread-safety: called on the message service's delivery thread; implementations must return
// promptly and move lengthy work elsewhere.
class WSB_EXPORT DSObserver {
public:
    virtual ~DSObserver() = default;

    virtual void handleClientReady() = 0;
    virtual void handleSetViewportRange(const DSEvent& event) = 0;
    virtual void handleClientGetSize() = 0;
    virtual void handleClientGetData(const DSEvent& event) = 0;
    virtual void handleClientSetData(const DSEvent& event) = 0;
    virtual void handleClientGetMetaData(const DSEvent& event) = 0;
    virtual void handleClientGetTableMetaData(const DSEvent& event) = 0;
    virtual void handleClientGetColumnMetaData(const DSEvent& event) = 0;
    virtual void handleClientGetRowMetaData(const DSEvent& event) = 0;
    virtual void handleClientGetCellMetaData(const DSEvent& event) = 0;
    virtual void handleClientSetTableMetaData(const DSModelEvent& event) = 0;
    virtual void handleClientSetColumnMetaData(const DSModelEvent& event) = 0;
    virtual void handleClientSetRowMetaData(const DSModelEvent& event) = 0;
    virtual void handleClientSetCellMetaData(const DSModelEvent& event) = 0;
    virtual void handleSortChanged(int sortColumn, bool sortAscending) = 0;
};
