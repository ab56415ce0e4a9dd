// Only the page opened with the program's token may see and talk to the workspace.

import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { closeAll, launchBrowser, openGrid, rowOf } from './support/browser.mjs';
import { freePort, startWsbrowser } from './support/wsbrowser.mjs';

let server;
let browser;

// The program's token with its last digit changed.
function wrongToken() {
  const last = server.token.at(-1) === '0' ? '1' : '0';
  return server.token.slice(0, -1) + last;
}

before(async () => {
  server = await startWsbrowser();
  browser = await launchBrowser();
});

after(async () => {
  await closeAll(browser);
  await server?.stop();
});

test('the page is refused with a wrong token, and without one says where its link is', async () => {
  const context = await browser.newContext();
  try {
    const page = await context.newPage();
    // A token that differs only in its last digit must fail as well as an empty one.
    for (const address of [`${server.origin}/?token=`, `${server.origin}/?token=${wrongToken()}`]) {
      const response = await page.goto(address);
      assert.equal(response.status(), 403, address);
      assert.equal(await page.locator('#grid, #command').count(), 0, address);
    }
    // With no token at all (a bookmark, a new tab) the page loads, opens no connection and says
    // where to find its address.
    const sockets = [];
    page.on('websocket', (socket) => sockets.push(socket.url()));
    for (const address of [`${server.origin}/`, `${server.origin}/index.html`]) {
      const response = await page.goto(address);
      assert.equal(response.status(), 200, address);
      await page.getByText('This page needs its access link').waitFor({ timeout: 10000 });
      assert.equal(await page.locator('#connection').getAttribute('data-state'), 'closed');
    }
    assert.deepEqual(sockets, []);
  } finally {
    await context.close();
  }
});

test('the served page cannot open a connection with another token', async () => {
  const { context, page } = await openGrid(browser, server.url);
  try {
    const outcome = await page.evaluate(
      (token) => new Promise((resolve) => {
        const socket = new WebSocket(`ws://${location.host}/ws?token=${token}`);
        socket.onopen = () => resolve('open');
        socket.onclose = () => resolve('refused');
      }),
      wrongToken(),
    );
    assert.equal(outcome, 'refused');
  } finally {
    await context.close();
  }
});

test('the token leaves the address bar once the page has it, and reconnecting still works', async () => {
  // A fixed token and port, so that the restarted program takes the same page back.
  const token = 'address-bar-test-token-0123456789abcdef';
  const port = String(await freePort());
  const start = () => startWsbrowser({ args: ['--port', port], env: { WSB_TOKEN: token } });
  const first = await start();
  let second;
  const { context, page, problems } = await openGrid(browser, first.url);
  try {
    const shown = await page.evaluate(() => location.href);
    assert.equal(shown, `${first.origin}/`);

    // A reload asks for the page without the token and connects with the one the tab kept.
    await page.reload();
    await page.locator('#connection[data-state="open"]').waitFor({ timeout: 20000 });
    await rowOf(page, 'answer', { timeout: 15000 });
    assert.equal(await page.evaluate(() => location.href), shown);

    assert.equal((await first.stop()).code, 0);
    await page.locator('#connection:not([data-state="open"])').waitFor({ timeout: 10000 });
    second = await start();
    await page.locator('#connection[data-state="open"]').waitFor({ timeout: 20000 });
    await rowOf(page, 'answer', { timeout: 15000 });
    assert.equal(await page.evaluate(() => location.href), shown);
    assert.deepEqual(problems, []);
  } finally {
    await context.close();
    await second?.stop();
  }
});
