// Builders for every message the page sends, one per kind, so that each message's shape is
// written once and checked by the compiler. Their counterparts, the readers of what the server
// sends, are in protocol.ts; docs/protocol.md describes both sides.

import { Request, type RowRange } from './protocol';

/** Rows and columns of a request, inclusive, counted from 0. */
export interface CellRange {
  startRow: number;
  endRow: number;
  startColumn: number;
  endColumn: number;
}

export type PagingRequest =
  | { eventType: typeof Request.getSize }
  | ({ eventType: typeof Request.getData | typeof Request.setViewport } & CellRange)
  | ({ eventType: typeof Request.getColumnMetaData | typeof Request.getTableMetaData } & CellRange)
  | { eventType: typeof Request.setData; row: number; column: number; data: string }
  | { eventType: typeof Request.setSortColumn; column: number; ascending: boolean };

export type ViewModelMessage =
  | { type: 'propertySet'; propertyName: 'Selection'; propertyValue: { selectedRows: string } }
  | {
      type: 'propertySet';
      propertyName: 'GridSize';
      propertyValue: { width: number; height: number; rows: number };
    }
  | { type: 'propertySet'; propertyName: 'HasFocus'; HasFocus: boolean }
  | {
      type: 'propertySet';
      propertyName: 'ColumnModelProperty';
      propertyValue: { property: 'ColumnWidth'; column: number; value: number };
    };

export const paging = {
  getSize: (): PagingRequest => ({ eventType: Request.getSize }),
  getData: (range: CellRange): PagingRequest => ({ eventType: Request.getData, ...range }),
  setViewport: (range: CellRange): PagingRequest => ({ eventType: Request.setViewport, ...range }),
  getColumnMetaData: (range: CellRange): PagingRequest => ({
    eventType: Request.getColumnMetaData,
    ...range,
  }),
  getTableMetaData: (range: CellRange): PagingRequest => ({
    eventType: Request.getTableMetaData,
    ...range,
  }),
  /** An edit of one cell; row and column count from 0 here and from 1 on the wire. */
  setData: (row: number, column: number, text: string): PagingRequest => ({
    eventType: Request.setData,
    row: row + 1,
    column: column + 1,
    data: text,
  }),
  setSortColumn: (column: number, ascending: boolean): PagingRequest => ({
    eventType: Request.setSortColumn,
    column,
    ascending,
  }),
};

export const viewModel = {
  /** The selected rows; the server keeps the selection by the names on them. */
  selection: (ranges: readonly RowRange[]): ViewModelMessage => ({
    type: 'propertySet',
    propertyName: 'Selection',
    // The server reads the ranges as JSON text inside the message.
    propertyValue: { selectedRows: JSON.stringify(ranges) },
  }),
  gridSize: (width: number, height: number, rows: number): ViewModelMessage => ({
    type: 'propertySet',
    propertyName: 'GridSize',
    propertyValue: { width, height, rows },
  }),
  hasFocus: (focus: boolean): ViewModelMessage => ({
    type: 'propertySet',
    propertyName: 'HasFocus',
    HasFocus: focus,
  }),
  columnWidth: (column: number, width: number): ViewModelMessage => ({
    type: 'propertySet',
    propertyName: 'ColumnModelProperty',
    propertyValue: { property: 'ColumnWidth', column, value: width },
  }),
};

export const consoleRequest = (code: string): { code: string } => ({ code });

/** Ctrl+C: breaks into the code running now. */
export const consoleInterrupt = (): { interrupt: true } => ({ interrupt: true });

export const workspace = {
  /** Asks for the exact text of a value for the cell editor; the answer carries `id` back. */
  editText: (name: string, id: number): { get: 'editText'; name: string; id: number } => ({
    get: 'editText',
    name,
    id,
  }),
  /** Lists only the variables whose names contain `text` (any case); "" lists all. */
  filter: (text: string): { do: 'filter'; text: string } => ({ do: 'filter', text }),
  /** Deletes these variables (names that are not variables are skipped). */
  delete: (names: string[]): { do: 'delete'; names: string[] } => ({ do: 'delete', names }),
  /** Re-reads every variable, also one changed where no scan could see it. */
  refresh: (): { do: 'refresh' } => ({ do: 'refresh' }),
};

export const columnsRequest = (): { get: 'columns' } => ({ get: 'columns' });
