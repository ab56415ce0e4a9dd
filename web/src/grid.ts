// The variable grid: an infinite-scrolling grid whose blocks, sort order, edits, selection and
// column widths all live on the server. The grid only shows what the server sends.

import 'ag-grid-community/styles/ag-grid.css';
import 'ag-grid-community/styles/ag-theme-quartz.css';

import {
  CellStyleModule,
  ColumnApiModule,
  InfiniteRowModelModule,
  ModuleRegistry,
  RowApiModule,
  RowSelectionModule,
  ScrollApiModule,
  TextEditorModule,
  ValidationModule,
  createGrid,
  type ColDef,
  type GridApi,
  type ICellRendererParams,
  type IGetRowsParams,
  type IRowNode,
  type ValueSetterParams,
} from 'ag-grid-community';
import {
  Reply,
  Request,
  inRanges,
  isObject,
  readColumnKeys,
  readColumns,
  readData,
  readRanges,
  readSize,
  toRanges,
  type ColumnInfo,
  type DataReply,
  type Row,
  type RowRange,
} from './protocol';

ModuleRegistry.registerModules([
  InfiniteRowModelModule,
  CellStyleModule,
  ColumnApiModule,
  RowApiModule,
  RowSelectionModule,
  ScrollApiModule,
  TextEditorModule,
  // Explains a missing module or a wrong option in the console while developing.
  ...(import.meta.env.DEV ? [ValidationModule] : []),
]);

const ROW_HEIGHT = 28;
const BLOCK_SIZE = 100;
// How long after a block was delivered a second copy of it is taken as the refreshed version
// of the same request (the server answers from its cache first, then with fresh values).
const REDELIVERY_MS = 30000;

export interface Outbox {
  paging(message: unknown): boolean;
  viewModel(message: unknown): boolean;
  /** Tells the user something short, e.g. why an edit did not happen. */
  notice(text: string): void;
}

interface PendingBlock {
  params: IGetRowsParams<Row>;
  startRow: number;
  endRow: number; // inclusive, as the server counts
}

interface SortState {
  column: string;
  ascending: boolean;
}

const USER_SELECTION_SOURCES = new Set<string>([
  'rowClicked',
  'checkboxSelected',
  'spaceKey',
  'keyboardSelectAll',
  'uiSelectAll',
  'uiSelectAllFiltered',
  'uiSelectAllCurrentPage',
]);

const DEFAULT_SORT: SortState = { column: 'Name', ascending: true };

function key(startRow: number, endRow: number): string {
  return `${startRow}:${endRow}`;
}

function nameCell(params: ICellRendererParams<Row>): HTMLElement {
  const cell = params.data?.Name;
  const box = document.createElement('span');
  box.className = 'wsb-name-cell';
  const icon = document.createElement('span');
  icon.className = 'wsb-class-icon';
  icon.setAttribute('data-class', cell?.class ?? '');
  icon.setAttribute('aria-hidden', 'true');
  const name = document.createElement('span');
  name.className = 'wsb-name';
  name.textContent = cell?.value ?? '';
  box.append(icon, name);
  return box;
}

export class WorkspaceGrid {
  readonly api: GridApi<Row>;
  private columns: ColumnInfo[] = [];
  // The key of each column position, as the host tells it; empty until it has.
  private columnKeys: readonly string[] = [];
  // Data and column metadata that came before the keys, read once the keys are known.
  private unreadPaging: Record<string, unknown>[] = [];
  private columnCount = 0;
  private count: number | null = null;
  private datasourceSet = false;
  private pending = new Map<string, PendingBlock>();
  private delivered = new Map<string, number>();
  // The sort the server has been told about on the current connection.
  private serverSort: SortState = DEFAULT_SORT;
  private expectSortEcho = false;
  private selection: RowRange[] = [];
  private applyingSelection = false;
  // Selection reports the server has not answered yet; its older selection replies are stale.
  private selectionReportsInFlight = 0;
  // The width last sent per column key, forgotten whenever the server describes the columns.
  private reportedWidths = new Map<string, number>();
  private restoreSelection = false;
  private refreshTimer: number | undefined;
  private viewportTimer: number | undefined;
  private lastViewport = '';
  private hasFocus = false;
  private firstRowsAt: number | null = null;

  constructor(
    private readonly element: HTMLElement,
    private readonly out: Outbox,
  ) {
    this.api = createGrid<Row>(element, {
      theme: 'legacy',
      rowModelType: 'infinite',
      rowHeight: ROW_HEIGHT,
      headerHeight: 32,
      cacheBlockSize: BLOCK_SIZE,
      maxBlocksInCache: 30,
      blockLoadDebounceMillis: 40,
      maxConcurrentDatasourceRequests: 4,
      columnDefs: [],
      defaultColDef: { resizable: true, sortingOrder: ['asc', 'desc'], minWidth: 40 },
      suppressMultiSort: true,
      suppressMovableColumns: true,
      rowSelection: {
        mode: 'multiRow',
        checkboxes: false,
        headerCheckbox: false,
        enableClickSelection: true,
      },
      stopEditingWhenCellsLoseFocus: true,
      getRowId: undefined,
      onSelectionChanged: (event) => {
        // The grid also drops its selection by itself, e.g. when the rows are re-sorted; only
        // the user's own changes go to the server, which keeps the selection by name.
        if (!USER_SELECTION_SOURCES.has(event.source) || this.applyingSelection) return;
        this.reportSelection();
      },
      onColumnResized: (event) => {
        if (!event.finished || event.source !== 'uiColumnResized') return;
        for (const column of event.columns ?? []) this.reportWidth(column.getColId(), column.getActualWidth());
      },
      onBodyScroll: () => this.scheduleViewport(),
      onViewportChanged: () => this.scheduleViewport(),
    });
    element.addEventListener('focusin', () => this.setFocus(true));
    element.addEventListener('focusout', (event) => {
      const next = event.relatedTarget;
      if (!(next instanceof Node) || !element.contains(next)) this.setFocus(false);
    });
    let sizeTimer: number | undefined;
    let lastSize = '';
    new ResizeObserver(() => {
      window.clearTimeout(sizeTimer);
      sizeTimer = window.setTimeout(() => {
        const size = `${element.clientWidth}x${element.clientHeight}`;
        if (size === lastSize) return;
        lastSize = size;
        this.reportGridSize();
        this.scheduleViewport();
      }, 250);
    }).observe(element);
  }

  // ---- connection life ----

  /** A (new) connection is open: the server's view model for it starts from scratch. */
  connected(): void {
    this.serverSort = DEFAULT_SORT;
    this.expectSortEcho = false;
    this.selectionReportsInFlight = 0;
    this.lastViewport = '';
    const sort = this.currentSort();
    if (sort) this.sendSort(sort);
    this.out.paging({ eventType: Request.getSize });
    this.requestMetaData();
    // Blocks asked for on the old connection would never be answered; ask again.
    for (const block of this.pending.values()) this.sendGetData(block);
    // The new server side learns the selection once it has applied the sort: it maps rows to
    // names at once, and any data reply shows that the sort is done.
    this.restoreSelection = this.selection.length > 0;
    if (this.hasFocus) this.out.viewModel({ type: 'propertySet', propertyName: 'HasFocus', HasFocus: true });
    if (this.datasourceSet) this.scheduleRefresh();
    this.scheduleViewport();
  }

  // ---- what the server sends ----

  onPaging(message: unknown): void {
    if (!isObject(message)) {
      console.warn('Ignoring a paging message that is not an object:', message);
      return;
    }
    const needsKeys = message.eventType === Reply.data || message.eventType === Reply.columns;
    if (needsKeys && this.columnKeys.length === 0) {
      // Bounded: a server that never names its columns cannot make the page grow.
      if (this.unreadPaging.length < 256) this.unreadPaging.push(message);
      return;
    }
    switch (message.eventType) {
      case Reply.size: {
        const size = readSize(message);
        if (size) this.onSize(size.rowCount, size.columnCount);
        else console.warn('Ignoring a malformed size message:', message);
        break;
      }
      case Reply.data: {
        const data = readData(message, this.columnKeys);
        if (data) this.onData(data);
        else console.warn('Ignoring a malformed data message:', message);
        break;
      }
      case Reply.columns: {
        const columns = readColumns(message, this.columnKeys);
        if (columns && columns.length > 0) this.onColumns(columns);
        else console.warn('Ignoring malformed column metadata:', message);
        break;
      }
      case Reply.table:
        break; // the selected names also arrive on the view-model channel
      default:
        break; // row and cell metadata carry nothing this grid shows
    }
  }

  /** The host's answer on the columns channel. */
  onColumnKeys(message: unknown): void {
    const keys = readColumnKeys(message);
    if (!keys) {
      console.warn('Ignoring a malformed list of column keys:', message);
      return;
    }
    this.columnKeys = keys;
    for (const held of this.unreadPaging.splice(0)) this.onPaging(held);
  }

  onViewModel(message: unknown): void {
    if (!isObject(message)) {
      console.warn('Ignoring a view-model message that is not an object:', message);
      return;
    }
    if (message.type === 'SelectedVariablesChanged') {
      this.selectionReportsInFlight = Math.max(0, this.selectionReportsInFlight - 1);
    } else if (message.type === 'SelectedRowsChanged') {
      const ranges = readRanges(message.selectedRows);
      if (!ranges) {
        console.warn('Ignoring a malformed selection:', message);
        return;
      }
      // Computed before the server saw the user's latest selection: that one wins.
      if (this.selectionReportsInFlight > 0 || this.restoreSelection) return;
      this.selection = ranges;
      this.applySelection();
    }
  }

  private onSize(rowCount: number, columnCount: number): void {
    const changed = this.count !== null && this.count !== rowCount;
    this.count = rowCount;
    if (columnCount > 0) this.columnCount = columnCount;
    if (!this.datasourceSet) {
      this.datasourceSet = true;
      this.api.setGridOption('datasource', {
        rowCount: undefined,
        getRows: (params) => this.getRows(params as IGetRowsParams<Row>),
      });
      return;
    }
    if (this.api.getDisplayedRowCount() !== rowCount) this.api.setRowCount(rowCount, true);
    if (changed) {
      this.scheduleRefresh();
      // Rows may have moved; the server then tells which rows its selected names are on now.
      this.reportGridSize();
    }
  }

  private onColumns(columns: ColumnInfo[]): void {
    this.columns = columns;
    this.reportedWidths.clear();
    const sort = this.currentSort() ?? this.serverSort;
    const defs: ColDef<Row>[] = columns.map((column) => ({
      colId: column.key,
      headerName: column.header,
      initialWidth: column.width,
      initialSort:
        column.key === sort.column ? (sort.ascending ? 'asc' : 'desc') : undefined,
      sortable: column.sortable,
      editable: column.editable && (column.key === 'Name' || column.key === 'Value'),
      valueGetter: (params) => params.data?.[column.key]?.value ?? '',
      valueSetter: (params) => this.edit(column, params),
      cellRenderer: column.key === 'Name' ? nameCell : undefined,
      cellClass: `wsb-col-${column.key.toLowerCase()}`,
    }));
    this.api.setGridOption('columnDefs', defs);
  }

  private onData(data: DataReply): void {
    if (this.restoreSelection) {
      this.restoreSelection = false;
      this.sendSelection(this.selection);
    }
    const id = key(data.startRow, data.endRow);
    const block = this.pending.get(id);
    if (block) {
      this.pending.delete(id);
      this.noteDelivered(id);
      const wanted = block.endRow - block.startRow + 1;
      let lastRow: number | undefined;
      if (data.rows.length < wanted) lastRow = block.startRow + data.rows.length;
      else if (this.count !== null && this.count >= block.startRow + data.rows.length) lastRow = this.count;
      block.params.successCallback(data.rows, lastRow);
      this.applySelection();
      if (this.firstRowsAt === null && data.rows.length > 0) this.watchFirstRows();
      return;
    }
    // Anything else updates rows in place, so the scroll position and selection stay.
    data.rows.forEach((row, i) => this.api.getRowNode(String(data.startRow + i))?.setData(row));
    this.applySelection();
    const seen = this.delivered.get(id);
    const redelivery = seen !== undefined && performance.now() - seen < REDELIVERY_MS && !data.sizeChanged;
    if (redelivery) return;
    // A push after a change in the workspace: only the rows in view came along; rows cached
    // outside the view may have moved or changed too.
    if (data.sizeChanged) this.out.paging({ eventType: Request.getSize });
    if (data.sizeChanged && this.expectSortEcho) {
      // The grid already asked for its blocks in the new order.
      this.expectSortEcho = false;
      return;
    }
    this.scheduleRefresh();
  }

  private noteDelivered(id: string): void {
    const now = performance.now();
    if (this.delivered.size > 500) {
      for (const [old, at] of this.delivered) if (now - at > REDELIVERY_MS) this.delivered.delete(old);
    }
    this.delivered.set(id, now);
  }

  // ---- requests ----

  private getRows(params: IGetRowsParams<Row>): void {
    const wanted = params.sortModel[0];
    const sort: SortState = wanted
      ? { column: wanted.colId, ascending: wanted.sort !== 'desc' }
      : DEFAULT_SORT;
    if (sort.column !== this.serverSort.column || sort.ascending !== this.serverSort.ascending) {
      this.sendSort(sort);
    }
    const block: PendingBlock = { params, startRow: params.startRow, endRow: params.endRow - 1 };
    this.pending.set(key(block.startRow, block.endRow), block);
    this.sendGetData(block);
  }

  private sendGetData(block: PendingBlock): void {
    this.out.paging({
      eventType: Request.getData,
      startRow: block.startRow,
      endRow: block.endRow,
      startColumn: 0,
      endColumn: Math.max(this.columnCount - 1, 0),
    });
  }

  private sendSort(sort: SortState): void {
    const column = this.columns.find((c) => c.key === sort.column);
    const index = column ? column.index : this.columnKeys.indexOf(sort.column);
    if (index < 0) return;
    if (this.out.paging({ eventType: Request.setSortColumn, column: index, ascending: sort.ascending })) {
      this.serverSort = sort;
      this.expectSortEcho = true;
    }
  }

  private currentSort(): SortState | null {
    const sorted = this.api.getColumnState().find((c) => c.sort);
    return sorted ? { column: sorted.colId, ascending: sorted.sort !== 'desc' } : null;
  }

  private requestMetaData(): void {
    const range = {
      startRow: 0,
      endRow: Math.max((this.count ?? 1) - 1, 0),
      startColumn: 0,
      endColumn: Math.max(this.columnCount - 1, 0),
    };
    this.out.paging({ eventType: Request.getColumnMetaData, ...range });
    this.out.paging({ eventType: Request.getTableMetaData, ...range });
  }

  private scheduleRefresh(): void {
    window.clearTimeout(this.refreshTimer);
    this.refreshTimer = window.setTimeout(() => {
      if (this.datasourceSet) this.api.refreshInfiniteCache();
    }, 60);
  }

  private scheduleViewport(): void {
    window.clearTimeout(this.viewportTimer);
    this.viewportTimer = window.setTimeout(() => {
      const first = this.api.getFirstDisplayedRowIndex();
      const last = this.api.getLastDisplayedRowIndex();
      if (first < 0 || last < first) return;
      const viewport = `${first}:${last}`;
      if (viewport === this.lastViewport) return;
      if (
        this.out.paging({
          eventType: Request.setViewport,
          startRow: first,
          endRow: last,
          startColumn: 0,
          endColumn: Math.max(this.columnCount - 1, 0),
        })
      ) {
        this.lastViewport = viewport;
      }
    }, 80);
  }

  private edit(column: ColumnInfo, params: ValueSetterParams<Row>): boolean {
    const row = params.node?.rowIndex;
    const text = params.newValue == null ? '' : String(params.newValue);
    if (row == null || text === String(params.oldValue ?? '')) return false;
    if (column.key === 'Name' && text.trim() === '') {
      this.out.notice('A variable name cannot be empty.');
      return false;
    }
    // Both numbers count from 1 on the wire.
    const sent = this.out.paging({
      eventType: Request.setData,
      row: row + 1,
      column: column.index + 1,
      data: text,
    });
    if (!sent) this.out.notice('Not connected: the edit was not sent.');
    // The cell keeps its old text until the server publishes the change.
    return false;
  }

  // ---- selection, focus, widths ----

  private reportSelection(): void {
    const rows = this.api
      .getSelectedNodes()
      .map((node) => Number(node.id))
      .filter((row) => Number.isInteger(row) && row >= 0);
    this.selection = toRanges(rows);
    this.sendSelection(this.selection);
  }

  private sendSelection(ranges: RowRange[]): void {
    const sent = this.out.viewModel({
      type: 'propertySet',
      propertyName: 'Selection',
      propertyValue: { selectedRows: JSON.stringify(ranges) },
    });
    if (sent) this.selectionReportsInFlight += 1;
  }

  private applySelection(): void {
    const select: IRowNode<Row>[] = [];
    const deselect: IRowNode<Row>[] = [];
    this.api.forEachNode((node) => {
      if (node.id === undefined || node.data === undefined) return;
      const wanted = inRanges(this.selection, Number(node.id));
      if (wanted !== Boolean(node.isSelected())) (wanted ? select : deselect).push(node);
    });
    if (select.length === 0 && deselect.length === 0) return;
    this.applyingSelection = true;
    try {
      if (deselect.length) this.api.setNodesSelected({ nodes: deselect, newValue: false, source: 'api' });
      if (select.length) this.api.setNodesSelected({ nodes: select, newValue: true, source: 'api' });
    } finally {
      this.applyingSelection = false;
    }
  }

  private reportGridSize(): void {
    this.out.viewModel({
      type: 'propertySet',
      propertyName: 'GridSize',
      propertyValue: {
        width: this.element.clientWidth,
        height: this.element.clientHeight,
        rows: this.count ?? 0,
      },
    });
  }

  private setFocus(focus: boolean): void {
    if (focus === this.hasFocus) return;
    this.hasFocus = focus;
    this.out.viewModel({ type: 'propertySet', propertyName: 'HasFocus', HasFocus: focus });
  }

  private reportWidth(colId: string, width: number): void {
    const column = this.columns.find((c) => c.key === colId);
    if (!column) return;
    // Each width the server stores is a settings write on the thread that serves every page:
    // a drag that ends where it began, or a column the drag did not change, sends nothing.
    if (this.reportedWidths.get(colId) === width) return;
    this.reportedWidths.set(colId, width);
    this.out.viewModel({
      type: 'propertySet',
      propertyName: 'ColumnModelProperty',
      propertyValue: { property: 'ColumnWidth', column: column.index, value: width },
    });
  }

  // ---- for tests and measurements ----

  rowCount(): number {
    return this.count ?? 0;
  }

  selectedNames(): string[] {
    return this.api
      .getSelectedNodes()
      .filter((node) => node.data?.Name)
      .sort((a, b) => Number(a.id) - Number(b.id))
      .map((node) => node.data?.Name?.value ?? '');
  }

  firstRowsMs(): number | null {
    return this.firstRowsAt;
  }

  /** Scrolls `row` to the top and resolves with the ms until its Name cell shows its data. */
  jumpTo(row: number): Promise<number> {
    const started = performance.now();
    this.api.ensureIndexVisible(row, 'top');
    return new Promise((resolve, reject) => {
      const check = () => {
        if (this.namePainted(row)) resolve(performance.now() - started);
        else if (performance.now() - started > 30000) reject(new Error(`row ${row} did not load`));
        else requestAnimationFrame(check);
      };
      requestAnimationFrame(check);
    });
  }

  private namePainted(row: number): boolean {
    const name = this.element.querySelector(
      `.ag-row[row-index="${row}"] [col-id="Name"] .wsb-name`,
    );
    return name !== null && (name.textContent ?? '') !== '';
  }

  private watchFirstRows(): void {
    const check = () => {
      if (this.element.querySelector('.ag-row [col-id="Name"] .wsb-name:not(:empty)')) {
        this.firstRowsAt = performance.now();
      } else {
        requestAnimationFrame(check);
      }
    };
    requestAnimationFrame(check);
  }
}
