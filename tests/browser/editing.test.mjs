// Changing the workspace from the page: code in the command box, renames and value edits in
// the grid, the host refusing a rename, and variable texts that look like markup.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { cell, eventually, gridRows, rowOf, runCode, sharedGrid } from './support/browser.mjs';

const grid = sharedGrid();

async function names() {
  return (await gridRows(grid.page)).map((r) => r.name);
}

// Opens the editor of a variable's Name or Value cell, types `text` and presses Enter.
async function editCell(name, colId, text) {
  const { page } = grid;
  const row = await rowOf(page, name);
  await cell(page, row.index, colId).dblclick();
  const editor = page.locator('#grid .ag-cell-inline-editing input, #grid .ag-popup-editor input');
  await editor.first().waitFor();
  await editor.first().fill(text);
  await editor.first().press('Enter');
}

async function echo(code) {
  return (await runCode(grid.page, code)).text.trim();
}

test('code in the command box changes the grid and shows its output', async () => {
  const { page } = grid;
  const count = await page.evaluate(() => window.wsbrowser.rowCount());
  const reply = await runCode(page, 'added = [1, "two", 3]\nlen(added) * 14');
  assert.deepEqual([reply.text.trim(), reply.error], ['42', false]);

  const row = await rowOf(page, 'added');
  assert.deepEqual(
    [row.cells.Value, row.cells.Size, row.cells.Class],
    ["[1, 'two', 3]", '3', 'list'],
  );
  assert.equal(await page.evaluate(() => window.wsbrowser.rowCount()), count + 1);

  const failure = await runCode(page, '1 / 0');
  assert.equal(failure.error, true);
  assert.match(failure.text, /ZeroDivisionError/);
  assert.equal(await page.locator('#output .wsb-output').count(), 2, 'one element per reply');

  // Shift+Enter continues the code on a new line instead of running it.
  await page.locator('#command').fill('total = 1');
  await page.locator('#command').press('Shift+Enter');
  await page.locator('#command').pressSequentially('total += 1');
  assert.equal(await page.locator('#command').inputValue(), 'total = 1\ntotal += 1');
  await page.locator('#command').press('Enter');
  await eventually(async () => assert.equal((await rowOf(page, 'total')).cells.Value, '2'));
  assert.deepEqual(grid.problems, []);
});

test('renames and value edits in the grid reach the host', async () => {
  await editCell('answer', 'Name', 'the_answer');
  await eventually(async () => {
    const current = await names();
    assert.ok(current.includes('the_answer'), 'the new name is shown');
    assert.ok(!current.includes('answer'), 'the old name is gone');
  });
  assert.equal(await echo('the_answer'), '42');
  assert.equal(await echo("'answer' in globals()"), 'False');

  await editCell('ratio', 'Value', '2 ** 10');
  await eventually(async () => {
    const row = await rowOf(grid.page, 'ratio');
    assert.deepEqual([row.cells.Value, row.cells.Class], ['1024', 'int']);
  });
  assert.equal(await echo('ratio + 1'), '1025');
  assert.deepEqual(grid.problems, []);
});

test('a rename the host refuses leaves the name and says why', async () => {
  const { page } = grid;
  const cases = [
    ['1bad', "Cannot rename 'flag' to '1bad': not a valid variable name."],
    ['class', "Cannot rename 'flag' to 'class': not a valid variable name."],
    ['grid', "Cannot rename 'flag' to 'grid': the name is taken."],
  ];
  for (const [target, message] of cases) {
    const errors = page.locator('#output .wsb-output.wsb-error');
    const before = await errors.count();
    await editCell('flag', 'Name', target);
    await eventually(async () => {
      assert.ok((await page.locator('#notice').textContent()).includes(message), message);
    });
    await errors.nth(before).waitFor({ state: 'attached' });
    assert.ok((await errors.nth(before).textContent()).includes(message));
    const current = await names();
    assert.ok(current.includes('flag'), `flag is still shown after trying ${target}`);
    if (target !== 'grid') assert.ok(!current.includes(target));
  }
  assert.equal(await echo('flag'), 'True');
  assert.equal(await echo('grid.shape'), '(3, 4)');
  assert.deepEqual(grid.problems, []);
});

test('variable texts that look like markup are shown as text', async () => {
  const { page } = grid;
  const markup = '<img src=x onerror=window.__pwned=1><b>bold</b>';
  await runCode(page, `s = ${JSON.stringify(markup)}`);
  const row = await rowOf(page, 's');
  assert.equal(row.cells.Value, `'${markup}'`);
  assert.equal(await echo('s'), `'${markup}'`);

  // The host repeats a refused name in its message: that text stays text as well.
  await editCell('s', 'Name', '<b>x</b>');
  await eventually(async () => {
    assert.ok((await page.locator('#notice').textContent()).includes("to '<b>x</b>'"));
  });

  assert.equal(await page.locator('#grid img, #grid b, #output img, #output b, #notice b').count(), 0);
  assert.equal(await page.evaluate(() => window.__pwned), undefined);
  assert.deepEqual(grid.problems, []);
});

// The cell editor of a variable's Value, once it holds the host's text (it starts read-only).
async function openValueEditor(name) {
  const { page } = grid;
  const row = await rowOf(page, name);
  await cell(page, row.index, 'Value').dblclick();
  const editor = page.locator('#grid .wsb-cell-editor');
  await editor.waitFor();
  await eventually(async () => assert.equal(await editor.getAttribute('readonly'), null));
  return editor;
}

test('a value edited from its whole text, or not at all, loses nothing', async () => {
  const { page, frames } = grid;
  await runCode(page, "import numpy as np\nlong_text = 'x' * 136\nitems = list(range(100))\n" +
    'small = np.array([-3, -1, 0, 2, 7], dtype=np.int8)');
  const edits = () => frames.sentOn('_who').filter((m) => m.eventType === 12).length;
  const before = edits();

  // The grid shows shortened texts; the editor starts from the whole one, and committing it
  // unchanged sends nothing.
  for (const name of ['long_text', 'items']) {
    const editor = await openValueEditor(name);
    assert.ok((await editor.inputValue()).length > 100, `${name} starts from its whole text`);
    await editor.press('Enter');
  }
  // Escape and clicking elsewhere cancel what was typed.
  let editor = await openValueEditor('items');
  await editor.fill('[]');
  await editor.press('Escape');
  editor = await openValueEditor('items');
  await editor.fill('[]');
  await page.locator('#output').click();
  await editor.waitFor({ state: 'detached' });
  assert.equal(edits(), before);
  assert.equal(await echo('len(long_text), len(items), items[-1]'), '(136, 100, 99)');

  // An array edited in its text keeps its dtype.
  editor = await openValueEditor('small');
  const text = await editor.inputValue();
  assert.match(text, /int8/);
  await editor.fill(text.replace('7', '8'));
  await editor.press('Enter');
  await eventually(async () => assert.equal(await echo('small.dtype.name, int(small[-1])'), "('int8', 8)"));
  assert.deepEqual(grid.problems, []);
});

test('the console is busy while code runs, Ctrl+C interrupts it, and its history and streams work', async () => {
  const { page } = grid;
  const section = page.getByRole('region', { name: 'Command window' });
  const command = page.getByRole('textbox', { name: 'Command' });
  const replies = page.locator('#output .wsb-output');
  const count = await replies.count();
  await command.fill('while True: pass');
  await command.press('Enter');
  await eventually(async () => assert.equal(await section.getAttribute('aria-busy'), 'true'));
  await command.press('Control+c');
  await replies.nth(count).waitFor({ state: 'attached' });
  assert.match(await replies.nth(count).textContent(), /KeyboardInterrupt/);
  assert.equal(await section.getAttribute('aria-busy'), 'false');

  await command.press('ArrowUp');
  assert.equal(await command.inputValue(), 'while True: pass');
  await command.press('ArrowDown');
  assert.equal(await command.inputValue(), '');

  await runCode(page, "import sys\nprint('to stdout')\n_ = sys.stderr.write('to stderr\\n')");
  const last = replies.last();
  const color = (selector) => last.locator(selector).evaluate((e) => getComputedStyle(e).color);
  assert.equal(await last.locator('.wsb-stderr').textContent(), 'to stderr\n');
  assert.equal(await last.locator('.wsb-stdout').textContent(), 'to stdout\n');
  assert.notEqual(await color('.wsb-stderr'), await color('.wsb-stdout'));
  assert.equal(await color('.wsb-stderr'), 'rgb(179, 38, 30)');
  assert.deepEqual(grid.problems, []);
});

test('Delete removes the selected variables after a confirmation that names how many', async () => {
  const { page } = grid;
  await runCode(page, 'gone_a = 1\ngone_b = 2\nkept = 3');
  const classCell = async (name) => cell(page, (await rowOf(page, name)).index, 'Class');
  await (await classCell('gone_a')).click();
  await (await classCell('gone_b')).click({ modifiers: ['Control'] });
  await eventually(async () => assert.deepEqual(
    (await page.evaluate(() => window.wsbrowser.selectedNames())).sort(), ['gone_a', 'gone_b']));
  await page.keyboard.press('Delete');
  const dialog = page.getByRole('dialog');
  await dialog.waitFor();
  assert.match(await dialog.textContent(), /Delete 2 variables\?/);
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  assert.equal(await echo("'gone_a' in globals()"), 'True', 'Cancel deletes nothing');

  await (await classCell('gone_b')).focus();
  await page.keyboard.press('Delete');
  await dialog.getByRole('button', { name: 'Delete' }).click();
  await eventually(async () => {
    const current = await names();
    assert.ok(!current.includes('gone_a') && !current.includes('gone_b'), `both rows left: ${current}`);
  });
  assert.equal(await echo("'gone_a' in globals(), 'gone_b' in globals(), kept"), '(False, False, 3)');
  assert.deepEqual(grid.problems, []);
});

test('the row menu and the keyboard copy, rename and delete; the status line counts', async () => {
  const { page, context } = grid;
  await context.grantPermissions(['clipboard-read', 'clipboard-write']);
  await runCode(page, "menu_text = 'x' * 200\nmenu_other = 7");
  const status = page.locator('#status[role="status"]');
  assert.match(await status.textContent(), /^\d+ variables$/);

  // Right click: the menu, its items, Copy value gives the whole text, not the cell's.
  const row = await rowOf(page, 'menu_text');
  await cell(page, row.index, 'Class').click({ button: 'right' });
  const menu = page.getByRole('menu');
  await menu.waitFor();
  assert.deepEqual(await menu.getByRole('menuitem').allTextContents(),
    ['Copy name', 'Copy value', 'Rename', 'Delete', 'Open']);
  await menu.getByRole('menuitem', { name: 'Copy value' }).click();
  await eventually(async () =>
    assert.equal(await page.evaluate(() => navigator.clipboard.readText()), `'${'x'.repeat(200)}'`));
  await cell(page, row.index, 'Class').click();
  await eventually(async () => assert.match(await status.textContent(), /· 1 selected$/));

  // Keyboard: the context-menu key opens it, arrows and Enter choose; Ctrl+C copies the rows.
  await cell(page, row.index, 'Class').press('Shift+F10');
  await page.keyboard.press('Enter'); // Copy name
  await eventually(async () => assert.equal(await page.evaluate(() => navigator.clipboard.readText()), 'menu_text'));
  await cell(page, row.index, 'Class').press('Control+c');
  await eventually(async () => {
    const copied = await page.evaluate(() => navigator.clipboard.readText());
    assert.match(copied, /^menu_text\t'x+\.\.\.x+'\t200\tstr\t/);
  });
  // F2 renames from any cell of the row.
  await cell(page, row.index, 'Size').press('F2');
  const editor = page.locator('#grid .wsb-cell-editor');
  await editor.fill('menu_renamed');
  await editor.press('Enter');
  await eventually(async () => assert.ok((await names()).includes('menu_renamed')));
  assert.deepEqual(grid.problems, []);
});
