// The page's side of the paging protocol, without the DOM: which blocks the grid waits for, the
// sort the server has applied, the selection, the column keys, and the timing rules that tell
// a fresh push from a repeated answer. The grid adapter tells it what the grid and the server
// do and shows what it decides. The clock is injected so that tests can play races out exactly.
// (Longer than most modules: it is one state machine, and splitting it would spread its state.)

import { paging, viewModel, type PagingRequest, type ViewModelMessage } from './messages';
import {
  Reply,
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

export interface Clock {
  now(): number;
  setTimeout(run: () => void, ms: number): unknown;
  clearTimeout(handle: unknown): void;
}

export const browserClock: Clock = {
  now: () => performance.now(),
  setTimeout: (run, ms) => window.setTimeout(run, ms),
  clearTimeout: (handle) => window.clearTimeout(handle as number),
};

/** A block of rows the grid asked for; `endRow` is inclusive, as the server counts. */
export interface Block<P> {
  params: P;
  startRow: number;
  endRow: number;
}

export interface SortState {
  column: string;
  ascending: boolean;
}

export const DEFAULT_SORT: SortState = { column: 'Name', ascending: true };

export interface PagingSender {
  paging(message: PagingRequest): boolean;
  viewModel(message: ViewModelMessage): boolean;
}

/** What the state machine needs from the grid on screen. */
export interface PagingView<P> {
  /** The row count is known for the first time: the grid may start asking for blocks. */
  startRows(): void;
  setRowCount(count: number): void;
  deliver(block: Block<P>, rows: Row[], lastRow: number | undefined): void;
  /** Replaces rows in place, keeping the scroll position. */
  update(startRow: number, rows: Row[]): void;
  /** Drops the cached blocks so that the grid asks for them again. */
  refresh(): void;
  showColumns(columns: ColumnInfo[], sort: SortState): void;
  showSelection(ranges: readonly RowRange[]): void;
  currentSort(): SortState | null;
  visibleRows(): { first: number; last: number } | null;
  size(): { width: number; height: number };
  firstRowsArrived(): void;
}

// How long after a block was delivered a second copy of it is taken as the refreshed version of
// the same request (the server answers from its cache first, then with fresh values).
export const REDELIVERY_MS = 30000;
export const REFRESH_DELAY_MS = 60;
export const VIEWPORT_DELAY_MS = 80;
// Data and column metadata held until the column keys arrive; a server that never names its
// columns cannot make the page grow.
const MAX_UNREAD = 256;

function blockId(startRow: number, endRow: number): string {
  return `${startRow}:${endRow}`;
}

export class PagingState<P> {
  private columns: ColumnInfo[] = [];
  private columnKeys: readonly string[] = [];
  private unread: Record<string, unknown>[] = [];
  private columnCount = 0;
  private count: number | null = null;
  private started = false;
  private pending = new Map<string, Block<P>>();
  private delivered = new Map<string, number>();
  // The sort the server has been told about on the current connection.
  private serverSort: SortState = DEFAULT_SORT;
  private expectSortEcho = false;
  private selection: RowRange[] = [];
  /** The selected names as the server last reported them (it keeps the selection by name). */
  selectedNames: string[] = [];

  /**
   * Runs `action` once the server has answered every selection the page reported, so that
   * `selectedNames` holds the user's latest selection (a Delete right after a click).
   */
  whenSelectionSettled(action: () => void): void {
    if (this.selectionReportsInFlight === 0) action();
    else this.settledWaiters.push(action);
  }
  // Selection reports the server has not answered yet; its older selection replies are stale.
  private selectionReportsInFlight = 0;
  private settledWaiters: (() => void)[] = [];
  private restoreSelection = false;
  // The width last sent per column key, forgotten whenever the server describes the columns.
  private reportedWidths = new Map<string, number>();
  private focused = false;
  private refreshTimer: unknown;
  private viewportTimer: unknown;
  private lastViewport = '';
  private firstRowsSeen = false;

  constructor(
    private readonly view: PagingView<P>,
    private readonly send: PagingSender,
    private readonly clock: Clock = browserClock,
  ) {}

  get rowCount(): number {
    return this.count ?? 0;
  }

  get selectedRanges(): readonly RowRange[] {
    return this.selection;
  }

  /** How many rows the selection covers. */
  get selectedRowCount(): number {
    return this.selection.reduce((n, r) => n + r.end - r.start + 1, 0);
  }

  column(key: string): ColumnInfo | undefined {
    return this.columns.find((c) => c.key === key);
  }

  // ---- connection life ----

  /** A (new) connection is open: the server's view model for it starts from scratch. */
  connected(): void {
    this.serverSort = DEFAULT_SORT;
    this.expectSortEcho = false;
    this.selectionReportsInFlight = 0;
    this.settledWaiters = [];
    this.lastViewport = '';
    const sort = this.view.currentSort();
    if (sort) this.sendSort(sort);
    this.send.paging(paging.getSize());
    this.requestMetaData();
    // Blocks asked for on the old connection would never be answered; ask again.
    for (const block of this.pending.values()) this.sendGetData(block);
    // The new server side learns the selection once it has applied the sort: it maps rows to
    // names at once, and any data reply shows that the sort is done.
    this.restoreSelection = this.selection.length > 0;
    if (this.focused) this.send.viewModel(viewModel.hasFocus(true));
    if (this.started) this.scheduleRefresh();
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
      if (this.unread.length < MAX_UNREAD) this.unread.push(message);
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
      default:
        break; // table, row and cell metadata carry nothing this grid shows
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
    for (const held of this.unread.splice(0)) this.onPaging(held);
  }

  onViewModel(message: unknown): void {
    if (!isObject(message)) {
      console.warn('Ignoring a view-model message that is not an object:', message);
      return;
    }
    if (message.type === 'SelectedVariablesChanged') {
      this.selectionReportsInFlight = Math.max(0, this.selectionReportsInFlight - 1);
      const names = message.Variables;
      if (Array.isArray(names) && names.every((n): n is string => typeof n === 'string')) this.selectedNames = names;
      if (this.selectionReportsInFlight === 0) for (const waiter of this.settledWaiters.splice(0)) waiter();
    } else if (message.type === 'SelectedRowsChanged') {
      const ranges = readRanges(message.selectedRows);
      if (!ranges) {
        console.warn('Ignoring a malformed selection:', message);
        return;
      }
      // Computed before the server saw the user's latest selection: that one wins.
      if (this.selectionReportsInFlight > 0 || this.restoreSelection) return;
      this.selection = ranges;
      this.view.showSelection(this.selection);
    }
  }

  private onSize(rowCount: number, columnCount: number): void {
    const changed = this.count !== null && this.count !== rowCount;
    this.count = rowCount;
    if (columnCount > 0) this.columnCount = columnCount;
    if (!this.started) {
      this.started = true;
      this.view.startRows();
      return;
    }
    this.view.setRowCount(rowCount);
    if (changed) {
      this.scheduleRefresh();
      // Rows may have moved; the server then tells which rows its selected names are on now.
      this.reportGridSize();
    }
  }

  private onColumns(columns: ColumnInfo[]): void {
    this.columns = columns;
    this.reportedWidths.clear();
    this.view.showColumns(columns, this.view.currentSort() ?? this.serverSort);
  }

  private onData(data: DataReply): void {
    if (this.restoreSelection) {
      this.restoreSelection = false;
      this.sendSelection(this.selection);
    }
    const id = blockId(data.startRow, data.endRow);
    const block = this.pending.get(id);
    if (block) {
      this.pending.delete(id);
      this.noteDelivered(id);
      const wanted = block.endRow - block.startRow + 1;
      let lastRow: number | undefined;
      if (data.rows.length < wanted) lastRow = block.startRow + data.rows.length;
      else if (this.count !== null && this.count >= block.startRow + data.rows.length) lastRow = this.count;
      this.view.deliver(block, data.rows, lastRow);
      this.view.showSelection(this.selection);
      if (!this.firstRowsSeen && data.rows.length > 0) {
        this.firstRowsSeen = true;
        this.view.firstRowsArrived();
      }
      return;
    }
    // Anything else updates rows in place, so the scroll position and selection stay.
    this.view.update(data.startRow, data.rows);
    this.view.showSelection(this.selection);
    const seen = this.delivered.get(id);
    const redelivery = seen !== undefined && this.clock.now() - seen < REDELIVERY_MS && !data.sizeChanged;
    if (redelivery) return;
    // A push after a change in the workspace: only the rows in view came along; rows cached
    // outside the view may have moved or changed too.
    if (data.sizeChanged) this.send.paging(paging.getSize());
    if (data.sizeChanged && this.expectSortEcho) {
      // The grid already asked for its blocks in the new order.
      this.expectSortEcho = false;
      return;
    }
    this.scheduleRefresh();
  }

  private noteDelivered(id: string): void {
    const now = this.clock.now();
    if (this.delivered.size > 500) {
      for (const [old, at] of this.delivered) if (now - at > REDELIVERY_MS) this.delivered.delete(old);
    }
    this.delivered.set(id, now);
  }

  // ---- what the grid and the user do ----

  /** The grid wants rows `startRow` to `endRow` (inclusive) in the given order. */
  requestRows(params: P, startRow: number, endRow: number, sort: SortState | null): void {
    const wanted = sort ?? DEFAULT_SORT;
    if (wanted.column !== this.serverSort.column || wanted.ascending !== this.serverSort.ascending) {
      this.sendSort(wanted);
    }
    const block: Block<P> = { params, startRow, endRow };
    this.pending.set(blockId(startRow, endRow), block);
    this.sendGetData(block);
  }

  /** Sends an edit of one cell; false when it could not be sent. */
  edit(column: ColumnInfo, row: number, text: string): boolean {
    return this.send.paging(paging.setData(row, column.index, text));
  }

  /** The user selected these rows. */
  userSelected(rows: Iterable<number>): void {
    this.selection = toRanges(rows);
    this.sendSelection(this.selection);
  }

  focusChanged(focus: boolean): void {
    if (focus === this.focused) return;
    this.focused = focus;
    this.send.viewModel(viewModel.hasFocus(focus));
  }

  columnResized(key: string, width: number): void {
    const column = this.column(key);
    if (!column) return;
    // Each width the server stores is a settings write on the thread that serves every page:
    // a drag that ends where it began, or a column the drag did not change, sends nothing.
    if (this.reportedWidths.get(key) === width) return;
    this.reportedWidths.set(key, width);
    this.send.viewModel(viewModel.columnWidth(column.index, width));
  }

  resized(): void {
    this.reportGridSize();
    this.scheduleViewport();
  }

  scheduleViewport(): void {
    this.clock.clearTimeout(this.viewportTimer);
    this.viewportTimer = this.clock.setTimeout(() => {
      const rows = this.view.visibleRows();
      if (!rows || rows.first < 0 || rows.last < rows.first) return;
      const viewport = blockId(rows.first, rows.last);
      if (viewport === this.lastViewport) return;
      if (this.send.paging(paging.setViewport(this.range(rows.first, rows.last)))) {
        this.lastViewport = viewport;
      }
    }, VIEWPORT_DELAY_MS);
  }

  // ---- requests ----

  private range(startRow: number, endRow: number) {
    return { startRow, endRow, startColumn: 0, endColumn: Math.max(this.columnCount - 1, 0) };
  }

  private sendGetData(block: Block<P>): void {
    this.send.paging(paging.getData(this.range(block.startRow, block.endRow)));
  }

  private sendSort(sort: SortState): void {
    const index = this.column(sort.column)?.index ?? this.columnKeys.indexOf(sort.column);
    if (index < 0) return;
    if (this.send.paging(paging.setSortColumn(index, sort.ascending))) {
      this.serverSort = sort;
      this.expectSortEcho = true;
    }
  }

  private sendSelection(ranges: RowRange[]): void {
    if (this.send.viewModel(viewModel.selection(ranges))) this.selectionReportsInFlight += 1;
  }

  private requestMetaData(): void {
    const range = this.range(0, Math.max((this.count ?? 1) - 1, 0));
    this.send.paging(paging.getColumnMetaData(range));
    this.send.paging(paging.getTableMetaData(range));
  }

  private reportGridSize(): void {
    const { width, height } = this.view.size();
    this.send.viewModel(viewModel.gridSize(width, height, this.count ?? 0));
  }

  private scheduleRefresh(): void {
    this.clock.clearTimeout(this.refreshTimer);
    this.refreshTimer = this.clock.setTimeout(() => {
      if (this.started) this.view.refresh();
    }, REFRESH_DELAY_MS);
  }
}
