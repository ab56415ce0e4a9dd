// The page's WebSocket to the server: the envelope protocol, the page's channels, and
// reconnecting by itself when the connection drops.

import { isObject } from './protocol';

export type ConnectionState = 'connecting' | 'open' | 'closed';

export interface Channels {
  /** What the server's view model publishes to this page. */
  viewModel: string;
  /** Paging requests go here, and the paging replies come back on it. */
  paging: string;
  console: string;
  /** The host answers here which key each column position holds. */
  columns: string;
  /** Requests to the workspace itself: edit texts, refresh. */
  workspace: string;
}

export interface ConnectionHandlers {
  /** A new page id was assigned: every channel is subscribed again. */
  onOpen(channels: Channels): void;
  onMessage(channel: keyof Channels, message: unknown): void;
  onState(state: ConnectionState, text: string): void;
}

const FIRST_RETRY_MS = 500;
const TOKEN_KEY = 'wsbrowser.token';

/**
 * The access token this tab connects with. It arrives in the address the program printed; it is
 * taken out of the address bar and the history entry at once, so that it is not on screen,
 * in a bookmark or in a shared screenshot. The tab keeps it in its session storage, which lives
 * as long as the tab and is never sent anywhere.
 */
export function takeToken(): string {
  const params = new URLSearchParams(window.location.search);
  const given = params.get('token');
  if (given === null) return readStoredToken();
  try {
    window.sessionStorage.setItem(TOKEN_KEY, given);
  } catch {
    // Storage may be off; this page still has the token in memory.
  }
  params.delete('token');
  const query = params.toString();
  const { pathname, hash } = window.location;
  const address = `${pathname}${query ? `?${query}` : ''}${hash}`;
  window.history.replaceState(window.history.state, '', address);
  return given;
}

function readStoredToken(): string {
  try {
    return window.sessionStorage.getItem(TOKEN_KEY) ?? '';
  } catch {
    return '';
  }
}

/** The WebSocket address for a token, on the server that served this page. */
export function socketUrl(token: string): string {
  return `ws://${window.location.host}/ws?token=${encodeURIComponent(token)}`;
}
const LONGEST_RETRY_MS = 10000;

export function channelsOf(pageId: string): Channels {
  return {
    viewModel: `/WorkspaceBrowser/${pageId}`,
    paging: `/WorkspaceBrowser/${pageId}_who`,
    console: `/Console/${pageId}`,
    columns: `/Columns/${pageId}`,
    workspace: `/Workspace/${pageId}`,
  };
}

export class Connection {
  private socket: WebSocket | null = null;
  private channels: Channels | null = null;
  private failures = 0;
  private retryTimer: number | undefined;

  constructor(
    private readonly url: string,
    private readonly handlers: ConnectionHandlers,
  ) {}

  start(): void {
    window.clearTimeout(this.retryTimer);
    this.handlers.onState('connecting', this.failures ? 'Reconnecting…' : 'Connecting…');
    let socket: WebSocket;
    try {
      socket = new WebSocket(this.url);
    } catch (error) {
      console.warn('Cannot open the connection:', error);
      this.retry();
      return;
    }
    this.socket = socket;
    socket.addEventListener('message', (event) => this.receive(event.data));
    socket.addEventListener('close', () => {
      if (this.socket !== socket) return;
      this.socket = null;
      this.channels = null;
      this.retry();
    });
  }

  get isOpen(): boolean {
    return this.channels !== null;
  }

  /** Publishes on one of the page's channels; dropped while there is no connection. */
  publish(channel: keyof Channels, message: unknown): boolean {
    if (!this.socket || !this.channels || this.socket.readyState !== WebSocket.OPEN) return false;
    this.send({ op: 'publish', channel: this.channels[channel], message });
    return true;
  }

  private send(envelope: unknown): void {
    this.socket?.send(JSON.stringify(envelope));
  }

  private retry(): void {
    const delay = Math.min(LONGEST_RETRY_MS, FIRST_RETRY_MS * 2 ** this.failures);
    this.failures += 1;
    this.handlers.onState(
      'closed',
      `Disconnected; reconnecting in ${Math.round(delay / 100) / 10} s`,
    );
    this.retryTimer = window.setTimeout(() => this.start(), delay);
  }

  private receive(data: unknown): void {
    let envelope: unknown;
    try {
      envelope = typeof data === 'string' ? JSON.parse(data) : null;
    } catch {
      envelope = null;
    }
    if (!isObject(envelope) || typeof envelope.op !== 'string') {
      console.warn('Ignoring a frame that is not an envelope:', data);
      return;
    }
    if (envelope.op === 'hello' && typeof envelope.page === 'string' && envelope.page) {
      this.channels = channelsOf(envelope.page);
      for (const channel of Object.values(this.channels))
        this.send({ op: 'subscribe', channel });
      this.failures = 0;
      this.handlers.onState('open', 'Connected');
      this.handlers.onOpen(this.channels);
    } else if (envelope.op === 'message' && this.channels) {
      const name = (Object.keys(this.channels) as (keyof Channels)[]).find(
        (key) => this.channels?.[key] === envelope.channel,
      );
      if (name) this.handlers.onMessage(name, envelope.message);
      else console.warn('Ignoring a message on an unknown channel:', envelope.channel);
    } else if (envelope.op === 'error') {
      console.warn('The server did not understand a frame:', envelope.error);
    } else {
      console.warn('Ignoring an unexpected frame:', envelope);
    }
  }
}
