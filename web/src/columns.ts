// The grid's column definitions: what each column shows, how it sorts and edits, its cell
// renderers and tooltips. Built from the column metadata the server sends.

import type { ColDef, ICellRendererParams, ValueSetterParams } from 'ag-grid-community';

import { CellTextEditor, type EditorContext } from './editor';
import type { SortState } from './paging';
import type { ColumnInfo, Row } from './protocol';
import { statsNote, type StatisticsSettings } from './statsNote';

/** Above this many variables the server sorts only by name. */
const SORTABLE_LIMIT = 10000;

export interface ColumnDeps {
  statistics: StatisticsSettings | null;
  editorContext: EditorContext;
  /** Sends a committed edit; returns what the grid's value setter returns. */
  edit(column: ColumnInfo, params: ValueSetterParams<Row>): boolean;
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

/** A statistic with a tooltip that says why it is blank, or that it is of magnitudes. */
function statCell(statistics: StatisticsSettings) {
  return (params: ICellRendererParams<Row>): HTMLElement => {
    const text = document.createElement('span');
    text.textContent = String(params.value ?? '');
    const row = params.data;
    const note = row ? statsNote({ Class: row.Class?.value, Size: row.Size?.value, Min: row.Min?.value }, statistics) : null;
    if (note) text.title = note;
    return text;
  };
}

export function columnDefs(columns: ColumnInfo[], sort: SortState, deps: ColumnDeps): ColDef<Row>[] {
  const { statistics } = deps;
  return columns.map((column) => ({
    colId: column.key,
    headerName: column.header,
    initialWidth: column.width,
    initialSort: column.key === sort.column ? (sort.ascending ? 'asc' : 'desc') : undefined,
    sortable: column.sortable,
    // The server turns sorting off for every column but Name above 10,000 variables; a
    // header that ignores clicks says why.
    headerTooltip:
      !column.sortable && column.key !== 'Value'
        ? `${column.header}: not sortable above ${SORTABLE_LIMIT.toLocaleString('en')} variables; the rows are in name order`
        : undefined,
    // A text cut off by the column's width shows whole on hover.
    tooltipValueGetter:
      column.key === 'Value' || column.key === 'Name' || column.key === 'Class'
        ? (params) => params.data?.[column.key]?.value || undefined
        : undefined,
    editable: column.editable && (column.key === 'Name' || column.key === 'Value'),
    // F2 renames whichever cell of the row has the focus (the grid handles it).
    suppressKeyboardEvent: (params) => params.event.key === 'F2' && !params.editing,
    cellEditor: CellTextEditor,
    cellEditorParams: { texts: deps.editorContext, fetchText: column.key === 'Value' },
    valueGetter: (params) => params.data?.[column.key]?.value ?? '',
    valueSetter: (params) => deps.edit(column, params),
    cellRenderer:
      column.key === 'Name' ? nameCell : statistics?.columns.includes(column.key) ? statCell(statistics) : undefined,
    cellClass: `wsb-col-${column.key.toLowerCase()}`,
  }));
}
