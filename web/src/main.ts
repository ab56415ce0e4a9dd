// Wires the page together: connection, grid, command box and the status line. The socket opens
// before the grid's large chunk is even fetched: the server builds the page's view of the
// workspace (long on a big one) while the browser loads and parses the grid.

import './styles.css';

import {
  type Channels,
  Connection,
  type ConnectionState,
  socketUrl,
  takeToken,
} from './connection';
import { CommandBox } from './console';
import { readDeleted } from './protocol';
import { columnsRequest, consoleInterrupt, consoleRequest, workspace } from './messages';
import type { WorkspaceGrid } from './grid';

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

const token = takeToken();
const url = socketUrl(token);

let connection: Connection;
let grid: WorkspaceGrid | undefined;
let open = false;
// What arrives before the grid exists, handed to it in order once it does.
const early: Array<[keyof Channels, unknown]> = [];
const commands = new CommandBox(
  byId<HTMLElement>('console'),
  byId<HTMLTextAreaElement>('command'),
  byId<HTMLButtonElement>('run'),
  byId('output'),
  {
    run: (code) => connection.publish('console', consoleRequest(code)),
    interrupt: () => connection.publish('console', consoleInterrupt()),
    notice: showNotice,
  },
);
// Deleting asks first, naming how many; the grid follows the host's change batch.
const confirmDelete = byId<HTMLDialogElement>('confirm-delete');
let pendingDelete: string[] = [];
function askToDelete(names: string[]): void {
  pendingDelete = names;
  byId('confirm-delete-text').textContent =
    names.length === 1 ? `Delete the variable ${names[0]}?` : `Delete ${names.length.toLocaleString('en')} variables?`;
  confirmDelete.showModal();
}
confirmDelete.addEventListener('close', () => {
  if (confirmDelete.returnValue === 'delete' && pendingDelete.length > 0) {
    if (!connection.publish('workspace', workspace.delete(pendingDelete))) showNotice('Not connected: nothing was deleted.');
  }
  pendingDelete = [];
  confirmDelete.returnValue = '';
});
function onWorkspaceAnswer(message: unknown): void {
  const deleted = readDeleted(message);
  if (deleted !== null) showNotice(deleted === 1 ? 'Deleted 1 variable.' : `Deleted ${deleted.toLocaleString('en')} variables.`);
  else grid?.onWorkspace(message);
}

// The filter runs on the server, in this page's view model: a keystroke sends the text (a
// short pause first, so that fast typing sends the last text, not every one).
const filterBox = byId<HTMLInputElement>('filter');
let filterTimer: number | undefined;
function sendFilter(): void {
  connection.publish('workspace', workspace.filter(filterBox.value.trim()));
}
filterBox.addEventListener('input', () => {
  window.clearTimeout(filterTimer);
  filterTimer = window.setTimeout(sendFilter, 30);
});

byId<HTMLButtonElement>('refresh').addEventListener('click', () => {
  if (!connection.publish('workspace', workspace.refresh())) showNotice('Not connected: nothing was refreshed.');
});

function deliver(channel: keyof Channels, message: unknown): void {
  // A bad message must not take the page down with it.
  try {
    if (channel === 'console') commands.onMessage(message);
    else if (channel === 'columns' && grid) grid.onColumnKeys(message);
    else if (channel === 'workspace') onWorkspaceAnswer(message);
    else if (!grid) early.push([channel, message]);
    else if (channel === 'paging') grid.onPaging(message);
    else grid.onViewModel(message);
  } catch (error) {
    console.warn(`Ignoring a message on the ${channel} channel that could not be handled:`, error);
  }
}

connection = new Connection(url, {
  onOpen: () => {
    // A new page id: whatever was held for the old one means nothing now.
    open = true;
    early.length = 0;
    // Asked first: the grid can read no column until it knows which key each position holds.
    connection.publish('columns', columnsRequest());
    // A new page on the server starts unfiltered.
    if (filterBox.value.trim() !== '') sendFilter();
    grid?.connected();
  },
  onState: (state, text) => {
    if (state !== 'open') {
      open = false;
      commands.disconnected();
    }
    showState(state, text);
  },
  onMessage: deliver,
});

if (token) {
  connection.start();
} else {
  // Opened without its access link (a bookmark, a new tab): connecting would only be refused.
  showState('closed', 'Not connected');
  notice.textContent =
    'This page needs its access link: open the address wsbrowser printed when it started ' +
    '(it ends in ?token=…).';
}

const { WorkspaceGrid: Grid } = await import('./grid');
grid = new Grid(byId('grid'), {
  paging: (message) => connection.publish('paging', message),
  viewModel: (message) => connection.publish('viewModel', message),
  workspace: (message) => connection.publish('workspace', message),
  notice: showNotice,
  deleteRequested: askToDelete,
  status: (count, selected) => {
    const variables = count === 1 ? '1 variable' : `${count.toLocaleString('en')} variables`;
    byId('status').textContent = selected > 0 ? `${variables} · ${selected.toLocaleString('en')} selected` : variables;
  },
});
if (open) grid.connected();
for (const [channel, message] of early.splice(0)) deliver(channel, message);

if (import.meta.env.MODE === 'e2e') {
  const { installTestHooks } = await import('./testHooks');
  installTestHooks(grid);
}
