// Wires the page together: connection, grid, command box and the status line.

import 'ag-grid-community/styles/ag-grid.css';
import 'ag-grid-community/styles/ag-theme-quartz.css';
import './styles.css';

import { Connection, type ConnectionState } from './connection';
import { CommandBox } from './console';
import { WorkspaceGrid } from './grid';

function byId<T extends HTMLElement>(id: string): T {
  const element = document.getElementById(id);
  if (!element) throw new Error(`the page has no #${id}`);
  return element as T;
}

const connectionLabel = byId('connection');
const notice = byId('notice');
let noticeTimer: number | undefined;

function showNotice(text: string): void {
  notice.textContent = text;
  window.clearTimeout(noticeTimer);
  noticeTimer = window.setTimeout(() => (notice.textContent = ''), 15000);
}

function showState(state: ConnectionState, text: string): void {
  connectionLabel.setAttribute('data-state', state);
  connectionLabel.textContent = text;
}

const token = new URLSearchParams(window.location.search).get('token') ?? '';
const url = `ws://${window.location.host}/ws?token=${encodeURIComponent(token)}`;

let connection: Connection;
const grid = new WorkspaceGrid(byId('grid'), {
  paging: (message) => connection.publish('paging', message),
  viewModel: (message) => connection.publish('viewModel', message),
  notice: showNotice,
});
const commands = new CommandBox(
  byId<HTMLTextAreaElement>('command'),
  byId<HTMLButtonElement>('run'),
  byId('output'),
  (code) => connection.publish('console', { code }),
  showNotice,
);

connection = new Connection(url, {
  onOpen: () => grid.connected(),
  onState: showState,
  onMessage: (channel, message) => {
    // A bad message must not take the page down with it.
    try {
      if (channel === 'paging') grid.onPaging(message);
      else if (channel === 'viewModel') grid.onViewModel(message);
      else commands.onMessage(message);
    } catch (error) {
      console.warn(`Ignoring a message on the ${channel} channel that could not be handled:`, error);
    }
  },
});

if (!token) showNotice('The page address has no token; the server will refuse the connection.');
connection.start();

declare global {
  interface Window {
    wsbrowser: {
      api: WorkspaceGrid['api'];
      rowCount(): number;
      selectedNames(): string[];
      jumpTo(row: number): Promise<number>;
      firstRowsMs(): number | null;
    };
  }
}

window.wsbrowser = {
  api: grid.api,
  rowCount: () => grid.rowCount(),
  selectedNames: () => grid.selectedNames(),
  jumpTo: (row) => grid.jumpTo(row),
  firstRowsMs: () => grid.firstRowsMs(),
};
