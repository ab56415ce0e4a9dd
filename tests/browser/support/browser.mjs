// Headless Chromium and the page-side helpers the browser tests share: reading the grid as
// rows of texts, waiting for conditions, the command box, and a record of the page's
// WebSocket frames so that tests can see what really went to the server and came back.

import { after, before } from 'node:test';

import { chromium } from 'playwright-core';

import { startWsbrowser } from './wsbrowser.mjs';

export const chromiumPath = process.env.CHROMIUM || '/usr/bin/chromium';

export function launchBrowser() {
  return chromium.launch({
    executablePath: chromiumPath,
    args: [
      '--headless',
      '--no-sandbox',
      '--disable-gpu',
      '--no-first-run',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
    ],
  });
}

/**
 * Retries `check` until it returns without throwing (resolving with its result) or the time
 * is up, then throws the last failure, so an assertion's own message says what was wrong.
 */
export async function eventually(check, { timeout = 10000, interval = 50 } = {}) {
  const deadline = Date.now() + timeout;
  for (;;) {
    try {
      return await check();
    } catch (error) {
      if (Date.now() >= deadline) throw error;
    }
    await new Promise((resolve) => setTimeout(resolve, interval));
  }
}

/** Records the JSON envelopes a page sends and receives over its WebSocket. */
export class FrameLog {
  constructor(page) {
    this.sent = [];
    this.received = [];
    this.sockets = 0;
    page.on('websocket', (socket) => {
      this.sockets += 1;
      socket.on('framesent', ({ payload }) => this.#add(this.sent, payload));
      socket.on('framereceived', ({ payload }) => this.#add(this.received, payload));
    });
  }

  #add(list, payload) {
    try {
      list.push(JSON.parse(typeof payload === 'string' ? payload : payload.toString('utf8')));
    } catch {
      list.push({ unparsed: String(payload) });
    }
  }

  /** Messages published to the page on channels whose name ends with `suffix`. */
  receivedOn(suffix) {
    return this.received
      .filter((f) => f.op === 'message' && f.channel.endsWith(suffix))
      .map((f) => f.message);
  }

  /** Messages the page published on channels whose name ends with `suffix`. */
  sentOn(suffix) {
    return this.sent
      .filter((f) => f.op === 'publish' && f.channel.endsWith(suffix))
      .map((f) => f.message);
  }

  /** View-model messages from the server (the channel without the "_who" suffix). */
  viewModelReceived() {
    return this.received
      .filter((f) => f.op === 'message' && /^\/WorkspaceBrowser\/[^/]*$/.test(f.channel)
        && !f.channel.endsWith('_who'))
      .map((f) => f.message);
  }

  viewModelSent() {
    return this.sent
      .filter((f) => f.op === 'publish' && /^\/WorkspaceBrowser\/[^/]*$/.test(f.channel)
        && !f.channel.endsWith('_who'))
      .map((f) => f.message);
  }
}

/**
 * Opens the grid page in a context of its own and waits until it is connected and shows
 * data rows. Resolves with the context, the page and the page's frame log.
 */
export async function openGrid(browser, url, { viewport = { width: 1280, height: 720 } } = {}) {
  const context = await browser.newContext({ viewport });
  const page = await context.newPage();
  const frames = new FrameLog(page);
  const problems = [];
  page.on('pageerror', (error) => problems.push(String(error)));
  await page.goto(url);
  await page.locator('#connection[data-state="open"]').waitFor({ timeout: 15000 });
  await eventually(async () => {
    const rows = await gridRows(page);
    if (rows.length === 0 || !rows[0].name) throw new Error('no data rows painted');
  }, { timeout: 15000 });
  return { context, page, frames, problems };
}

/**
 * The painted rows of the grid in row order: { index, name, selected, cells: {colId: text} }.
 * The Name column holds only the name's text, without the class icon.
 */
export function gridRows(page) {
  return page.evaluate(() => {
    const rows = new Map();
    for (const row of document.querySelectorAll('#grid .ag-row[row-index]')) {
      const index = Number(row.getAttribute('row-index'));
      const entry = rows.get(index) ?? { index, name: '', selected: false, cells: {} };
      if (row.classList.contains('ag-row-selected')) entry.selected = true;
      for (const cell of row.querySelectorAll('.ag-cell[col-id]')) {
        const id = cell.getAttribute('col-id');
        if (id === 'Name') {
          entry.name = cell.querySelector('.wsb-name')?.textContent ?? '';
          entry.cells.Name = entry.name;
          entry.iconClass = cell.querySelector('.wsb-class-icon')?.getAttribute('data-class');
        } else {
          entry.cells[id] = cell.textContent;
        }
      }
      rows.set(index, entry);
    }
    return [...rows.values()].sort((a, b) => a.index - b.index);
  });
}

/** The painted row showing variable `name`, waiting until it is there. */
export function rowOf(page, name, options) {
  return eventually(async () => {
    const row = (await gridRows(page)).find((r) => r.name === name);
    if (!row) throw new Error(`no row shows ${name}`);
    return row;
  }, options);
}

export function cell(page, rowIndex, colId) {
  return page.locator(`#grid .ag-row[row-index="${rowIndex}"] .ag-cell[col-id="${colId}"]`);
}

export function header(page, colId) {
  return page.locator(`#grid .ag-header-cell[col-id="${colId}"]`);
}

/** Runs code in the command box; resolves with the reply shown in #output. */
export async function runCode(page, code, { timeout = 10000 } = {}) {
  const replies = page.locator('#output .wsb-output');
  const before = await replies.count();
  await page.locator('#command').fill(code);
  await page.locator('#command').press('Enter');
  const reply = replies.nth(before);
  // A reply without output is an empty element: present, but not visible.
  await reply.waitFor({ state: 'attached', timeout });
  return {
    text: await reply.textContent(),
    error: await reply.evaluate((element) => element.classList.contains('wsb-error')),
  };
}

/** Closes what a test file opened, whatever state the test left it in. */
export async function closeAll(...things) {
  for (const thing of things) {
    try {
      await thing?.close?.();
    } catch {
      // Already gone: nothing left to release.
    }
  }
}

/**
 * One wsbrowser on the example workspace and one grid page for all the tests of a file: started
 * before them, closed after them. The returned object gets the page's fields (page, frames,
 * problems, context) once started.
 */
export function sharedGrid(options) {
  const shared = {};
  let server;
  let browser;
  before(async () => {
    server = await startWsbrowser();
    browser = await launchBrowser();
    Object.assign(shared, await openGrid(browser, server.url, options));
  });
  after(async () => {
    await closeAll(shared.context, browser);
    await server?.stop();
  });
  return shared;
}
