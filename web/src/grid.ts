// The variable grid on screen: an infinite-scrolling grid whose blocks, sort order, edits,
// selection and column widths all live on the server. This adapter owns the grid library's
// instance and the grid's DOM (its column definitions are built in columns.ts, its cell editor
// in editor.ts); what to ask the server and what its answers mean is decided by the paging
// state machine (paging.ts). It runs a little over 250 lines because every callback the grid
// library calls lands here, next to the grid object it acts on.

import 'ag-grid-community/styles/ag-grid.css';
import 'ag-grid-community/styles/ag-theme-quartz.css';

import {
  CellStyleModule,
  ColumnApiModule,
  CustomEditorModule,
  InfiniteRowModelModule,
  ModuleRegistry,
  RowApiModule,
  RowSelectionModule,
  ScrollApiModule,
  TextEditorModule,
  TooltipModule,
  ValidationModule,
  createGrid,
  type GridApi,
  type IGetRowsParams,
  type IRowNode,
  type ValueSetterParams,
} from 'ag-grid-community';
import { columnDefs } from './columns';
import { EditTextRequests, type EditorContext } from './editor';
import { workspace } from './messages';
import { PagingState, type Block, type PagingSender, type PagingView, type SortState } from './paging';
import { RowMenu } from './rowMenu';
import { inRanges, readStatistics, type ColumnInfo, type Row, type RowRange } from './protocol';
import type { StatisticsSettings } from './statsNote';

ModuleRegistry.registerModules([
  InfiniteRowModelModule,
  CellStyleModule,
  ColumnApiModule,
  CustomEditorModule,
  RowApiModule,
  RowSelectionModule,
  ScrollApiModule,
  TextEditorModule,
  TooltipModule,
  // Explains a missing module or a wrong option in the console while developing.
  ...(import.meta.env.DEV ? [ValidationModule] : []),
]);

const ROW_HEIGHT = 28;
const BLOCK_SIZE = 100;

export interface Outbox extends PagingSender {
  /** Requests to the workspace itself (edit texts). */
  workspace(message: unknown): boolean;
  /** Tells the user something short, e.g. why an edit did not happen. */
  notice(text: string): void;
  /** The user asked to delete these variables (the page confirms first). */
  deleteRequested(names: string[]): void;
  /** How many variables there are and how many are selected, for the status line. */
  status(count: number, selected: number): void;
}

// Selection changes the user made, as opposed to the grid's own (a re-sort drops them).
const USER_SELECTION_SOURCES = new Set<string>([
  'rowClicked',
  'checkboxSelected',
  'spaceKey',
  'keyboardSelectAll',
  'uiSelectAll',
  'uiSelectAllFiltered',
  'uiSelectAllCurrentPage',
]);

export class WorkspaceGrid implements PagingView<IGetRowsParams<Row>> {
  readonly api: GridApi<Row>;
  readonly state: PagingState<IGetRowsParams<Row>>;
  private applyingSelection = false;
  private firstRowsAt: number | null = null;
  private readonly editTexts = new EditTextRequests();
  private statistics: StatisticsSettings | null = null;
  private readonly menu: RowMenu;
  private readonly editorContext: EditorContext;

  constructor(
    readonly element: HTMLElement,
    private readonly out: Outbox,
  ) {
    this.state = new PagingState(this, out);
    this.editorContext = {
      requests: this.editTexts,
      send: (name, id) => out.workspace(workspace.editText(name, id)),
      notice: (text) => out.notice(text),
    };
    this.api = createGrid<Row>(element, {
      theme: 'legacy',
      rowModelType: 'infinite',
      rowHeight: ROW_HEIGHT,
      headerHeight: 32,
      cacheBlockSize: BLOCK_SIZE,
      maxBlocksInCache: 30,
      blockLoadDebounceMillis: 40,
      maxConcurrentDatasourceRequests: 4,
      tooltipShowDelay: 400,
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
      // Leaving the cell ends the edit; the editor decides that this cancels it.
      stopEditingWhenCellsLoseFocus: true,
      getRowId: undefined,
      onSelectionChanged: (event) => {
        // The grid also drops its selection by itself, e.g. when the rows are re-sorted; only
        // the user's own changes go to the server, which keeps the selection by name.
        if (!USER_SELECTION_SOURCES.has(event.source) || this.applyingSelection) return;
        this.state.userSelected(
          this.api
            .getSelectedNodes()
            .map((node) => Number(node.id))
            .filter((row) => Number.isInteger(row) && row >= 0),
        );
        this.updateStatus();
      },
      onColumnResized: (event) => {
        if (!event.finished || event.source !== 'uiColumnResized') return;
        for (const column of event.columns ?? []) this.state.columnResized(column.getColId(), column.getActualWidth());
      },
      preventDefaultOnContextMenu: true,
      onCellContextMenu: (event) => {
        const name = event.data?.Name?.value;
        const mouse = event.event instanceof MouseEvent ? event.event : null;
        if (name && mouse) this.menu.open(name, mouse.clientX, mouse.clientY);
      },
      onBodyScroll: () => this.state.scheduleViewport(),
      onViewportChanged: () => this.state.scheduleViewport(),
    });
    this.menu = new RowMenu({
      copyName: (name) => this.copy(name),
      copyValue: (name) => this.copyValue(name),
      rename: (name) => this.startRename(name),
      delete: (name) => out.deleteRequested([name]),
    });
    element.addEventListener('keydown', (event) => {
      if (this.api.getEditingCells().length > 0) return;
      if (event.key === 'ContextMenu' || (event.key === 'F10' && event.shiftKey)) {
        event.preventDefault();
        const focused = this.focusedRow();
        const cell = document.activeElement?.getBoundingClientRect();
        if (focused && cell) this.menu.open(focused.name, cell.left + 8, cell.bottom);
        return;
      }
      if (event.key === 'F2') {
        event.preventDefault();
        const focused = this.focusedRow();
        if (focused) this.startRename(focused.name);
        return;
      }
      if (event.key === 'c' && (event.ctrlKey || event.metaKey)) {
        event.preventDefault();
        this.copySelectedRows();
        return;
      }
      if (event.key !== 'Delete') return;
      event.preventDefault();
      // The rows on screen name themselves; a selection reaching rows not loaded is named by
      // the server, once it has seen the latest one.
      const loaded = this.api.getSelectedNodes().flatMap((node) => node.data?.Name?.value ?? []);
      if (loaded.length > 0 && loaded.length >= this.state.selectedRowCount) out.deleteRequested(loaded);
      else
        this.state.whenSelectionSettled(() => {
          if (this.state.selectedNames.length > 0) out.deleteRequested([...this.state.selectedNames]);
        });
    });
    element.addEventListener('focusin', () => this.state.focusChanged(true));
    element.addEventListener('focusout', (event) => {
      const next = event.relatedTarget;
      if (!(next instanceof Node) || !element.contains(next)) this.state.focusChanged(false);
    });
    let sizeTimer: number | undefined;
    let lastSize = '';
    new ResizeObserver(() => {
      window.clearTimeout(sizeTimer);
      sizeTimer = window.setTimeout(() => {
        const size = `${element.clientWidth}x${element.clientHeight}`;
        if (size === lastSize) return;
        lastSize = size;
        this.state.resized();
      }, 250);
    }).observe(element);
  }

  connected(): void {
    this.editTexts.clear();
    this.state.connected();
  }

  onWorkspace(message: unknown): void {
    if (!this.editTexts.answer(message)) console.warn('Ignoring a workspace message:', message);
  }

  onPaging(message: unknown): void {
    this.state.onPaging(message);
  }

  onColumnKeys(message: unknown): void {
    this.statistics = readStatistics(message);
    this.state.onColumnKeys(message);
  }

  onViewModel(message: unknown): void {
    this.state.onViewModel(message);
  }

  firstRowsMs(): number | null {
    return this.firstRowsAt;
  }

  // ---- what the state machine shows ----

  startRows(): void {
    this.api.setGridOption('datasource', {
      rowCount: undefined,
      getRows: (params) => {
        const rows = params as IGetRowsParams<Row>;
        const wanted = rows.sortModel[0];
        const sort = wanted ? { column: wanted.colId, ascending: wanted.sort !== 'desc' } : null;
        this.state.requestRows(rows, rows.startRow, rows.endRow - 1, sort);
      },
    });
  }

  setRowCount(count: number): void {
    if (this.api.getDisplayedRowCount() !== count) this.api.setRowCount(count, true);
    this.updateStatus();
  }

  private updateStatus(): void {
    this.out.status(this.state.rowCount, this.state.selectedRowCount);
  }

  deliver(block: Block<IGetRowsParams<Row>>, rows: Row[], lastRow: number | undefined): void {
    block.params.successCallback(rows, lastRow);
  }

  update(startRow: number, rows: Row[]): void {
    rows.forEach((row, i) => this.api.getRowNode(String(startRow + i))?.setData(row));
  }

  refresh(): void {
    this.api.refreshInfiniteCache();
  }

  showColumns(columns: ColumnInfo[], sort: SortState): void {
    const defs = columnDefs(columns, sort, {
      statistics: this.statistics,
      editorContext: this.editorContext,
      edit: (column, params) => this.edit(column, params),
    });
    this.api.setGridOption('columnDefs', defs);
  }

  showSelection(ranges: readonly RowRange[]): void {
    this.updateStatus();
    const select: IRowNode<Row>[] = [];
    const deselect: IRowNode<Row>[] = [];
    this.api.forEachNode((node) => {
      if (node.id === undefined || node.data === undefined) return;
      const wanted = inRanges(ranges, Number(node.id));
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

  currentSort(): SortState | null {
    const sorted = this.api.getColumnState().find((c) => c.sort);
    return sorted ? { column: sorted.colId, ascending: sorted.sort !== 'desc' } : null;
  }

  visibleRows(): { first: number; last: number } | null {
    const first = this.api.getFirstDisplayedRowIndex();
    const last = this.api.getLastDisplayedRowIndex();
    return first < 0 || last < first ? null : { first, last };
  }

  size(): { width: number; height: number } {
    return { width: this.element.clientWidth, height: this.element.clientHeight };
  }

  firstRowsArrived(): void {
    // The time until the first rows are painted, not merely received.
    const check = () => {
      if (this.element.querySelector('.ag-row [col-id="Name"] .wsb-name:not(:empty)')) {
        this.firstRowsAt = performance.now();
      } else {
        requestAnimationFrame(check);
      }
    };
    requestAnimationFrame(check);
  }

  private focusedRow(): { row: number; name: string } | null {
    const focused = this.api.getFocusedCell();
    const node = focused ? this.api.getDisplayedRowAtIndex(focused.rowIndex) : undefined;
    const name = node?.data?.Name?.value;
    return focused && name ? { row: focused.rowIndex, name } : null;
  }

  /** The loaded row that shows variable `name`, if any. */
  private nodeOf(name: string): IRowNode<Row> | undefined {
    let found: IRowNode<Row> | undefined;
    this.api.forEachNode((node) => {
      if (!found && node.data?.Name?.value === name) found = node;
    });
    return found;
  }

  private startRename(name: string): void {
    const rowIndex = this.nodeOf(name)?.rowIndex;
    if (rowIndex != null) this.api.startEditingCell({ rowIndex, colKey: 'Name' });
  }

  private copy(text: string, what = 'Copied.'): void {
    navigator.clipboard.writeText(text).then(
      () => this.out.notice(what),
      () => this.out.notice('The browser did not allow copying to the clipboard.'),
    );
  }

  /** The selected rows on screen as tab-separated text: the visible columns, in their order. */
  private copySelectedRows(): void {
    const keys = (this.api.getColumns() ?? []).map((column) => column.getColId());
    const rows = this.api
      .getSelectedNodes()
      .filter((node) => node.data)
      .sort((a, b) => Number(a.id) - Number(b.id))
      .map((node) => keys.map((key) => (node.data?.[key]?.value ?? '').replace(/[\t\n]/g, ' ')).join('\t'));
    if (rows.length === 0) return;
    this.copy(rows.join('\n') + '\n', rows.length === 1 ? 'Copied 1 row.' : `Copied ${rows.length} rows.`);
  }

  /** The whole value as Python text, from the host; the cell's text when there is none. */
  private copyValue(name: string): void {
    const sent = this.editTexts.ask(name, this.editorContext.send, (answer) => {
      if (answer.editable) {
        this.copy(answer.text, `Copied the value of ${name}.`);
        return;
      }
      const shown = this.nodeOf(name)?.data?.Value?.value ?? '';
      this.copy(shown, `Copied the shortened text of ${name}: ${answer.reason}.`);
    });
    if (sent === null) this.out.notice('Not connected: nothing was copied.');
  }

  private edit(column: ColumnInfo, params: ValueSetterParams<Row>): boolean {
    const row = params.node?.rowIndex;
    const text = params.newValue == null ? '' : String(params.newValue);
    if (row == null || text === String(params.oldValue ?? '')) return false;
    if (column.key === 'Name' && text.trim() === '') {
      this.out.notice('A variable name cannot be empty.');
      return false;
    }
    if (!this.state.edit(column, row, text)) this.out.notice('Not connected: the edit was not sent.');
    // The cell keeps its old text until the server publishes the change.
    return false;
  }
}
