// The page shows when its connection drops and comes back by itself: with a fixed token and
// port, a restarted wsbrowser gets the same page back, which asks again for everything it shows.

import assert from 'node:assert/strict';
import { writeFileSync } from 'node:fs';
import path from 'node:path';
import { after, before, test } from 'node:test';

import { closeAll, launchBrowser, openGrid, rowOf, runCode } from './support/browser.mjs';
import { exampleScript, freePort, makeTempDir, startWsbrowser } from './support/wsbrowser.mjs';

const token = 'reconnect-test-token-0123456789abcdef';
let browser;
const servers = [];

before(async () => {
  browser = await launchBrowser();
});

after(async () => {
  await closeAll(browser);
  for (const server of servers) await server.stop();
});

test('a page reconnects to a restarted wsbrowser and shows its new workspace', async () => {
  const port = String(await freePort());
  const start = async (scripts) => {
    const server = await startWsbrowser({
      scripts,
      args: ['--port', port],
      env: { WSB_TOKEN: token },
    });
    servers.push(server);
    return server;
  };
  const first = await start([exampleScript]);
  assert.equal(first.token, token);
  const { context, page, problems } = await openGrid(browser, first.url);
  try {
    await rowOf(page, 'answer');
    assert.equal((await first.stop()).code, 0);

    const state = page.locator('#connection');
    await page.locator('#connection:not([data-state="open"])').waitFor({ timeout: 10000 });
    assert.match(await state.textContent(), /connect/i);

    const later = path.join(makeTempDir('wsb-reconnect-'), 'later.py');
    writeFileSync(later, 'after_restart = 7\n');
    await start([later]);
    await page.locator('#connection[data-state="open"]').waitFor({ timeout: 20000 });
    const row = await rowOf(page, 'after_restart', { timeout: 15000 });
    assert.equal(row.cells.Value, '7');
    // The old workspace is gone from the grid, and the console works on the new one.
    assert.equal(await page.locator('#grid .wsb-name', { hasText: /^answer$/ }).count(), 0);
    assert.equal((await runCode(page, 'after_restart * 6')).text, '42\n');
    assert.deepEqual(problems, []);
  } finally {
    await context.close();
  }
});
