// Shapes of the messages exchanged with the server, and the checks that turn untrusted JSON
// into them. Every reader here returns null (or skips an element) instead of throwing, so a
// malformed message can be logged and dropped without disturbing the page.

import type { StatisticsSettings } from './statsNote';

/** Codes of the requests the page sends on its paging channel. */
export const Request = {
  setViewport: 10,
  getData: 11,
  setData: 12,
  getSize: 13,
  getTableMetaData: 20,
  getColumnMetaData: 21,
  setSortColumn: 24,
} as const;

/** Codes of the replies and updates the server publishes on the paging channel. */
export const Reply = { size: 1, data: 2, table: 3, columns: 4 } as const;

/** One cell as the server describes it: the text to show plus a few flags. */
export interface Cell {
  value: string;
  class?: string;
  editable?: boolean;
}

/** One grid row: cells by column key. */
export type Row = Record<string, Cell>;

export interface SizeReply { rowCount: number; columnCount: number }

export interface DataReply {
  startRow: number;
  endRow: number;
  fullEndRow: number;
  sizeChanged: boolean;
  rows: Row[];
}

export interface ColumnInfo {
  key: string;
  /** Position among the server's columns; requests about a column use it. */
  index: number;
  header: string;
  width: number;
  sortable: boolean;
  editable: boolean;
}

export interface RowRange { start: number; end: number }

type Json = Record<string, unknown>;

export function isObject(value: unknown): value is Json {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

function int(value: unknown): number | null {
  return typeof value === 'number' && Number.isFinite(value) ? Math.trunc(value) : null;
}

export function readSize(message: Json): SizeReply | null {
  const rowCount = int(message.rowCount);
  const columnCount = int(message.columnCount);
  if (rowCount === null || rowCount < 0) return null;
  return { rowCount, columnCount: columnCount ?? 0 };
}

function readCell(text: unknown): Cell {
  // A cell arrives as JSON text of its own; anything unreadable shows as an empty cell.
  if (typeof text !== 'string') return { value: '' };
  try {
    const parsed: unknown = JSON.parse(text);
    if (!isObject(parsed)) return { value: '' };
    return {
      value: typeof parsed.value === 'string' ? parsed.value : String(parsed.value ?? ''),
      class: typeof parsed.class === 'string' ? parsed.class : undefined,
      editable: parsed.editable === true,
    };
  } catch {
    return { value: '' };
  }
}

/**
 * A page of cell values. `columns` names the keys of the page's columns in order, starting at
 * the reply's first column.
 */
export function readData(message: Json, columns: readonly string[]): DataReply | null {
  const startRow = int(message.startRow);
  const endRow = int(message.endRow);
  const startColumn = int(message.startColumn) ?? 0;
  if (startRow === null || endRow === null || typeof message.partialData !== 'string') return null;
  let page: unknown;
  try {
    page = JSON.parse(message.partialData);
  } catch {
    return null;
  }
  if (!Array.isArray(page) || !page.every(Array.isArray)) return null;
  const rows = page.map((cells: unknown[]): Row => {
    const row: Row = {};
    cells.forEach((text, i) => {
      const key = columns[startColumn + i];
      if (key !== undefined) row[key] = readCell(text);
    });
    return row;
  });
  return {
    startRow,
    endRow,
    fullEndRow: int(message.fullEndRow) ?? -1,
    sizeChanged: message.sizeChanged === true,
    rows,
  };
}

/**
 * The host's answer on the columns channel: the key of each column position, in the order the
 * column metadata and the data pages number the columns. Null unless it is a list of distinct,
 * non-empty texts.
 */
export function readColumnKeys(message: unknown): string[] | null {
  if (!isObject(message) || !Array.isArray(message.columns)) return null;
  const keys = message.columns;
  if (!keys.every((k): k is string => typeof k === 'string' && k !== '')) return null;
  return new Set(keys).size === keys.length ? keys : null;
}

/**
 * Column metadata, each column named by its position in `keys` (the host's answer on the
 * columns channel). A column whose position has no key is left out rather than guessed.
 */
export function readColumns(message: Json, keys: readonly string[]): ColumnInfo[] | null {
  if (!Array.isArray(message.properties)) return null;
  const columns: ColumnInfo[] = [];
  for (const item of message.properties) {
    if (!isObject(item)) continue;
    const number = int(item.ColumnNumber);
    if (number === null || number < 1) continue;
    const index = number - 1;
    const key = keys[index];
    if (key === undefined || columns.some((c) => c.key === key)) continue;
    const width = typeof item.ColumnWidth === 'number' && item.ColumnWidth > 0 ? item.ColumnWidth : 100;
    columns.push({
      key,
      index,
      header: typeof item.HeaderName === 'string' ? item.HeaderName : key,
      width,
      sortable: item.IsSortable === true,
      editable: item.editable === true,
    });
  }
  return columns.sort((a, b) => a.index - b.index);
}

export function readRanges(value: unknown): RowRange[] | null {
  if (!Array.isArray(value)) return null;
  const ranges: RowRange[] = [];
  for (const item of value) {
    if (!isObject(item)) continue;
    const start = int(item.start);
    const end = int(item.end);
    if (start !== null && end !== null && start <= end) ranges.push({ start, end });
  }
  return ranges;
}

/** Merges row indices into ranges of consecutive rows, in ascending order. */
export function toRanges(rows: Iterable<number>): RowRange[] {
  const sorted = [...new Set(rows)].sort((a, b) => a - b);
  const ranges: RowRange[] = [];
  for (const row of sorted) {
    const last = ranges[ranges.length - 1];
    if (last && row === last.end + 1) last.end = row;
    else ranges.push({ start: row, end: row });
  }
  return ranges;
}

export function inRanges(ranges: readonly RowRange[], row: number): boolean {
  return ranges.some((r) => row >= r.start && row <= r.end);
}

/** What console code wrote: the whole text, whether it raised, and the text by stream. */
export interface ConsoleReply {
  output: string;
  error: boolean;
  /** Host notices (a refused rename) as opposed to the answer to a command. */
  notice: boolean;
  runs: { stream: 'stdout' | 'stderr'; text: string }[];
}

export function readConsoleReply(message: unknown): ConsoleReply | null {
  if (!isObject(message) || typeof message.output !== 'string') return null;
  const error = message.error === true;
  const runs: ConsoleReply['runs'] = [];
  if (Array.isArray(message.runs)) {
    for (const run of message.runs) {
      if (isObject(run) && typeof run.text === 'string' && (run.stream === 'stdout' || run.stream === 'stderr'))
        runs.push({ stream: run.stream, text: run.text });
    }
  }
  // An older server sends the text alone: all of it goes where its outcome says.
  if (runs.length === 0 && message.output !== '')
    runs.push({ stream: error ? 'stderr' : 'stdout', text: message.output });
  return { output: message.output, error, notice: message.notice === true, runs };
}

/** The full text of a value for the cell editor, or why it cannot be edited in place. */
export type EditText =
  | { id: number; name: string; editable: true; text: string }
  | { id: number; name: string; editable: false; reason: string };

export function readEditText(message: unknown): EditText | null {
  if (!isObject(message) || message.answer !== 'editText') return null;
  const id = int(message.id);
  if (id === null || typeof message.name !== 'string') return null;
  if (message.editable === true && typeof message.text === 'string')
    return { id, name: message.name, editable: true, text: message.text };
  if (message.editable === false && typeof message.reason === 'string')
    return { id, name: message.name, editable: false, reason: message.reason };
  return null;
}

/** When and for which columns the host computes statistics (the columns channel says). */
export function readStatistics(message: unknown): StatisticsSettings | null {
  if (!isObject(message) || !isObject(message.statistics)) return null;
  const { on, limit, columns } = message.statistics;
  if (typeof on !== 'boolean' || typeof limit !== 'number' || !Array.isArray(columns)) return null;
  if (!columns.every((c): c is string => typeof c === 'string')) return null;
  return { on, limit, columns };
}

/** How many variables a delete removed, or null for any other message. */
export function readDeleted(message: unknown): number | null {
  if (!isObject(message) || message.answer !== 'delete') return null;
  return int(message.deleted);
}
