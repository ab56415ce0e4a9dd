// A column width set with the mouse is kept by the program's settings, so it survives a
// restart; a fresh browser context makes sure the page did not keep it by itself.

import assert from 'node:assert/strict';
import { existsSync, readdirSync, readFileSync, rmSync } from 'node:fs';
import path from 'node:path';
import { after, before, test } from 'node:test';

import { closeAll, eventually, header, launchBrowser, openGrid } from './support/browser.mjs';
import { makeTempDir, startWsbrowser } from './support/wsbrowser.mjs';

let browser;
let settingsDir;
const servers = [];

before(async () => {
  browser = await launchBrowser();
  settingsDir = makeTempDir('wsb-columns-');
});

after(async () => {
  await closeAll(browser);
  for (const server of servers) await server.stop();
  rmSync(settingsDir, { recursive: true, force: true });
});

async function width(page, colId) {
  return (await header(page, colId).boundingBox()).width;
}

// Every file the settings folder holds, read as text.
function storedSettings() {
  if (!existsSync(settingsDir)) return '';
  return readdirSync(settingsDir, { recursive: true })
    .map((name) => path.join(settingsDir, name))
    .filter((file) => !file.endsWith('/') && existsSync(file))
    .map((file) => {
      try {
        return readFileSync(file, 'utf8');
      } catch {
        return '';
      }
    })
    .join('\n');
}

test('a resized column keeps its width after a restart', async () => {
  const first = await startWsbrowser({ settingsDir });
  servers.push(first);
  const { context, page, frames } = await openGrid(browser, first.url);
  let wanted;
  try {
    const before = await width(page, 'Value');
    const handle = header(page, 'Value').locator('.ag-header-cell-resize');
    const box = await handle.boundingBox();
    const x = box.x + box.width / 2;
    const y = box.y + box.height / 2;
    await page.mouse.move(x, y);
    await page.mouse.down();
    await page.mouse.move(x + 60, y, { steps: 5 });
    await page.mouse.move(x + 130, y, { steps: 5 });
    await page.mouse.up();
    wanted = await width(page, 'Value');
    assert.ok(Math.abs(wanted - (before + 130)) <= 3, `dragged from ${before} to ${wanted}`);

    // The page reports the width of the second column to the server...
    await eventually(() => {
      const reports = frames.viewModelSent().filter(
        (m) => m.propertyName === 'ColumnModelProperty'
          && m.propertyValue?.property === 'ColumnWidth',
      );
      assert.ok(reports.length > 0, 'a column width was reported');
      assert.equal(reports.at(-1).propertyValue.column, 1);
      assert.ok(Math.abs(reports.at(-1).propertyValue.value - wanted) <= 1);
    });
    // ...and the server writes it down.
    await eventually(() => assert.match(storedSettings(), new RegExp(`\\b${Math.floor(wanted)}\\b`)));
  } finally {
    await context.close();
  }
  const status = await first.stop();
  assert.deepEqual(status, { code: 0, signal: null });

  const second = await startWsbrowser({ settingsDir });
  servers.push(second);
  const again = await openGrid(browser, second.url);
  try {
    await eventually(async () => {
      assert.ok(Math.abs((await width(again.page, 'Value')) - wanted) <= 1);
    });
    // The neighbours keep their own widths: only the resized column changed.
    assert.ok(Math.abs((await width(again.page, 'Size')) - 90) <= 1);
  } finally {
    await again.context.close();
  }
});
