// The paging state machine against a scripted server and a manual clock: the races between the
// grid's requests, the server's pushes and the user's selection play out in a fixed order.

import { beforeEach, describe, expect, it } from 'vitest';

import type { PagingRequest, ViewModelMessage } from '../src/messages';
import {
  PagingState,
  REDELIVERY_MS,
  REFRESH_DELAY_MS,
  type Block,
  type Clock,
  type PagingView,
  type SortState,
} from '../src/paging';
import type { ColumnInfo, Row, RowRange } from '../src/protocol';

class ManualClock implements Clock {
  time = 0;
  private timers = new Map<number, { at: number; run: () => void }>();
  private next = 1;
  now(): number {
    return this.time;
  }
  setTimeout(run: () => void, ms: number): unknown {
    const id = this.next++;
    this.timers.set(id, { at: this.time + ms, run });
    return id;
  }
  clearTimeout(handle: unknown): void {
    this.timers.delete(handle as number);
  }
  advance(ms: number): void {
    this.time += ms;
    for (const [id, timer] of [...this.timers]) {
      if (timer.at <= this.time) {
        this.timers.delete(id);
        timer.run();
      }
    }
  }
}

class FakeView implements PagingView<string> {
  started = 0;
  refreshes = 0;
  rowCounts: number[] = [];
  delivered: Array<[string, number, number | undefined]> = [];
  updated: number[] = [];
  columns: ColumnInfo[] = [];
  selection: readonly RowRange[] = [];
  sort: SortState | null = null;
  startRows(): void {
    this.started += 1;
  }
  setRowCount(count: number): void {
    this.rowCounts.push(count);
  }
  deliver(block: Block<string>, rows: Row[], lastRow: number | undefined): void {
    this.delivered.push([block.params, rows.length, lastRow]);
  }
  update(startRow: number): void {
    this.updated.push(startRow);
  }
  refresh(): void {
    this.refreshes += 1;
  }
  showColumns(columns: ColumnInfo[]): void {
    this.columns = columns;
  }
  showSelection(ranges: readonly RowRange[]): void {
    this.selection = ranges;
  }
  currentSort(): SortState | null {
    return this.sort;
  }
  visibleRows() {
    return { first: 0, last: 9 };
  }
  size() {
    return { width: 800, height: 600 };
  }
  firstRowsArrived(): void {}
}

class Sent {
  paging: PagingRequest[] = [];
  viewModel: ViewModelMessage[] = [];
  open = true;
  sender = {
    paging: (m: PagingRequest) => this.open && this.paging.push(m) > 0,
    viewModel: (m: ViewModelMessage) => this.open && this.viewModel.push(m) > 0,
  };
  codes(): number[] {
    return this.paging.map((m) => m.eventType);
  }
}

const KEYS = { columns: ['Name', 'Value', 'Size'] };
const cell = (value: string) => JSON.stringify({ value });
const size = (rowCount: number) => ({ eventType: 1, rowCount, columnCount: 3 });
const data = (startRow: number, endRow: number, sizeChanged = false) => ({
  eventType: 2,
  startRow,
  endRow,
  sizeChanged,
  partialData: JSON.stringify(
    Array.from({ length: endRow - startRow + 1 }, (_, i) => [cell(`v${startRow + i}`), cell(''), cell('1')]),
  ),
});
const columnMetaData = {
  eventType: 4,
  properties: [
    { ColumnNumber: 1, HeaderName: 'Name', IsSortable: true },
    { ColumnNumber: 3, HeaderName: 'Size', IsSortable: true },
  ],
};

let clock: ManualClock;
let view: FakeView;
let sent: Sent;
let state: PagingState<string>;

beforeEach(() => {
  clock = new ManualClock();
  view = new FakeView();
  sent = new Sent();
  state = new PagingState(view, sent.sender, clock);
});

function open(rows = 100): void {
  state.connected();
  state.onColumnKeys(KEYS);
  state.onPaging(size(rows));
  state.onPaging(columnMetaData);
}

describe('paging', () => {
  it('holds data and columns until the host names the columns, then reads them', () => {
    state.connected();
    state.onPaging(size(10));
    state.requestRows('block', 0, 9, null);
    state.onPaging(data(0, 9));
    state.onPaging(columnMetaData);
    expect(view.delivered).toEqual([]);
    state.onColumnKeys({ columns: 'not a list' });
    expect(view.delivered).toEqual([]);
    state.onColumnKeys(KEYS);
    expect(view.delivered).toEqual([['block', 10, 10]]);
    expect(view.columns.map((c) => c.key)).toEqual(['Name', 'Size']);
  });

  it('takes a second copy of a delivered block as its refresh, but a late one as a push', () => {
    open();
    state.requestRows('block', 0, 9, null);
    state.onPaging(data(0, 9));
    state.onPaging(data(0, 9)); // the fresh values after the cached ones
    clock.advance(REFRESH_DELAY_MS);
    expect(view.updated).toEqual([0]);
    expect(view.refreshes).toBe(0);

    clock.advance(REDELIVERY_MS);
    state.onPaging(data(0, 9)); // a change in the workspace, long after
    clock.advance(REFRESH_DELAY_MS);
    expect(view.refreshes).toBe(1);
  });

  it('does not refresh again for the push that answers its own sort', () => {
    open();
    state.requestRows('block', 0, 9, { column: 'Size', ascending: false });
    expect(sent.paging).toContainEqual({ eventType: 24, column: 2, ascending: false });
    state.onPaging(data(40, 49, true)); // the server's reordered rows in view, pushed
    clock.advance(REFRESH_DELAY_MS);
    expect(view.refreshes).toBe(0);
    expect(sent.codes().filter((c) => c === 13)).toHaveLength(2); // the size is asked again

    state.onPaging(data(20, 29, true)); // a later push is a real change
    clock.advance(REFRESH_DELAY_MS);
    expect(view.refreshes).toBe(1);
  });

  it('a size change while scrolling resizes the grid, refreshes it once and reports the size', () => {
    open(100);
    state.onPaging(size(120));
    state.onPaging(size(120));
    clock.advance(REFRESH_DELAY_MS);
    expect(view.rowCounts).toEqual([120, 120]);
    expect(view.refreshes).toBe(1);
    expect(sent.viewModel).toContainEqual({
      type: 'propertySet',
      propertyName: 'GridSize',
      propertyValue: { width: 800, height: 600, rows: 120 },
    });
  });

  it('ignores selected rows computed before the server saw the user\'s latest selection', () => {
    open();
    state.userSelected([3, 4]);
    const before = { type: 'SelectedRowsChanged', selectedRows: [{ start: 7, end: 7 }] };
    state.onViewModel(before); // crossed the user's report on the wire
    expect(state.selectedRanges).toEqual([{ start: 3, end: 4 }]);
    // An action on the selection (Delete) waits for the server's names of the latest one.
    const acted: string[][] = [];
    state.whenSelectionSettled(() => acted.push(state.selectedNames));
    expect(acted).toEqual([]);
    state.onViewModel({ type: 'SelectedVariablesChanged', Variables: ['a', 'b'] });
    expect(acted).toEqual([['a', 'b']]);
    state.whenSelectionSettled(() => acted.push(state.selectedNames));
    expect(acted.length).toBe(2);
    state.onViewModel({ type: 'SelectedRowsChanged', selectedRows: [{ start: 5, end: 6 }] });
    expect(view.selection).toEqual([{ start: 5, end: 6 }]);
    state.onViewModel({ type: 'SelectedRowsChanged', selectedRows: 'garbage' });
    expect(view.selection).toEqual([{ start: 5, end: 6 }]);
  });

  it('after a reconnect asks again for unanswered blocks and restores the selection once sorted', () => {
    open();
    state.userSelected([2]);
    view.sort = { column: 'Size', ascending: true };
    state.requestRows('block', 0, 9, view.sort);
    sent.paging.length = 0;
    sent.viewModel.length = 0;

    state.connected();
    expect(sent.codes()).toEqual([24, 13, 21, 20, 11]);
    expect(sent.viewModel).toEqual([]);
    state.onPaging(data(0, 9));
    expect(sent.viewModel).toEqual([
      { type: 'propertySet', propertyName: 'Selection', propertyValue: { selectedRows: '[{"start":2,"end":2}]' } },
    ]);
  });

  it('sends a column width once per change and an edit only while connected', () => {
    open();
    state.columnResized('Size', 120);
    state.columnResized('Size', 120);
    state.columnResized('Unknown', 50);
    expect(sent.viewModel).toHaveLength(1);
    const name = view.columns[0];
    expect(state.edit(name, 0, 'b')).toBe(true);
    sent.open = false;
    expect(state.edit(name, 0, 'c')).toBe(false);
  });

  it('drops malformed messages and holds at most a bounded number before the keys', () => {
    state.connected();
    for (const bad of [null, 'text', { eventType: 1, rowCount: -1 }, { eventType: 2 }]) state.onPaging(bad);
    expect(view.started).toBe(0);
    for (let i = 0; i < 1000; i += 1) state.onPaging(data(0, 0));
    state.onPaging(size(1));
    state.requestRows('block', 0, 0, null);
    state.onColumnKeys(KEYS);
    expect(view.delivered).toHaveLength(1);
    expect(view.updated.length).toBeLessThanOrEqual(256);
  });
});
