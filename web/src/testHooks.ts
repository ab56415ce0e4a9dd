// What the browser tests and the browser benchmark read from a running page. Only test builds
// (vite's "e2e" mode) include this module; the shipped page has no such global.

import type { WorkspaceGrid } from './grid';

export interface TestHooks {
  rowCount(): number;
  /** The names on the selected rows, top to bottom. */
  selectedNames(): string[];
  /** Scrolls `row` to the top and resolves with the ms until its Name cell shows its data. */
  jumpTo(row: number): Promise<number>;
  /** Ms from the page's start until the first rows were painted, once they were. */
  firstRowsMs(): number | null;
  /**
   * Types `text` into the filter box and resolves with the ms until the row count changed and
   * the first row is painted with a name that matches it (any name, for "").
   */
  filterTo(text: string): Promise<number>;
  /** Selects rows first to last as the user would, also rows not loaded. */
  selectRows(first: number, last: number): void;
}

declare global {
  interface Window {
    wsbrowser: TestHooks;
  }
}

function namePainted(element: HTMLElement, row: number): boolean {
  const name = element.querySelector(`.ag-row[row-index="${row}"] [col-id="Name"] .wsb-name`);
  return name !== null && (name.textContent ?? '') !== '';
}

export function installTestHooks(grid: WorkspaceGrid): void {
  window.wsbrowser = {
    rowCount: () => grid.state.rowCount,
    selectedNames: () =>
      grid.api
        .getSelectedNodes()
        .filter((node) => node.data?.Name)
        .sort((a, b) => Number(a.id) - Number(b.id))
        .map((node) => node.data?.Name?.value ?? ''),
    jumpTo: (row) => {
      const started = performance.now();
      grid.api.ensureIndexVisible(row, 'top');
      return new Promise((resolve, reject) => {
        const check = () => {
          if (namePainted(grid.element, row)) resolve(performance.now() - started);
          else if (performance.now() - started > 30000) reject(new Error(`row ${row} did not load`));
          else requestAnimationFrame(check);
        };
        requestAnimationFrame(check);
      });
    },
    firstRowsMs: () => grid.firstRowsMs(),
    selectRows: (first, last) => {
      const rows = { *[Symbol.iterator]() { for (let r = first; r <= last; ++r) yield r; } };
      grid.state.userSelected(rows);
      grid.showSelection(grid.state.selectedRanges);
    },
    filterTo: (text) => {
      const box = document.getElementById('filter') as HTMLInputElement;
      const before = grid.state.rowCount;
      const started = performance.now();
      box.value = text;
      box.dispatchEvent(new Event('input'));
      return new Promise((resolve, reject) => {
        const check = () => {
          const first = grid.element.querySelector('.ag-row[row-index="0"] [col-id="Name"] .wsb-name');
          const name = (first?.textContent ?? '').toLowerCase();
          if (grid.state.rowCount !== before && name !== '' && name.includes(text.toLowerCase()))
            resolve(performance.now() - started);
          else if (performance.now() - started > 30000) reject(new Error(`the filter ${text} did not apply`));
          else requestAnimationFrame(check);
        };
        requestAnimationFrame(check);
      });
    },
  };
}
