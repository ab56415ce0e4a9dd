// The example workspace as a user sees it: its rows with the host's texts, sorting on the
// server, a selection that the server keeps by name, two pages that do not share state, and
// the picture of the running grid used in the README.

import assert from 'node:assert/strict';
import { mkdirSync } from 'node:fs';
import path from 'node:path';
import { after, before, test } from 'node:test';

import {
  closeAll,
  eventually,
  gridRows,
  header,
  launchBrowser,
  openGrid,
  rowOf,
  runCode,
} from './support/browser.mjs';
import { repoRoot, startWsbrowser } from './support/wsbrowser.mjs';

const COLUMNS = ['Name', 'Value', 'Size', 'Class', 'Min', 'Max', 'Range', 'Mean', 'Median',
  'Mode', 'Var', 'Std', 'Bytes'];
const NAMES = ['answer', 'flag', 'greeting', 'grid', 'mask', 'nothing', 'odd', 'prices', 'ratio',
  'settings', 'small_ints', 'things', 'waves'];

let server;
let browser;

before(async () => {
  server = await startWsbrowser();
  browser = await launchBrowser();
});

after(async () => {
  await closeAll(browser);
  await server?.stop();
});

// Number of elements a Size text such as "3×4" stands for.
function elements(size) {
  return size.split('\u00d7').reduce((product, n) => product * Number(n), 1);
}

function namesOf(rows) {
  return rows.map((r) => r.name);
}

// Waits until the page shows every row with its data and resolves with the rows.
function allRows(page, count = NAMES.length) {
  return eventually(async () => {
    const rows = await gridRows(page);
    assert.equal(rows.length, count);
    for (const row of rows) assert.notEqual(row.cells.Class, '', `${row.name} has no class yet`);
    return rows;
  });
}

// Clicks a header until it shows `direction`; ag-grid steps through none, ascending and
// descending, so each click waits for the header to move on before the next.
async function sortBy(page, colId, direction) {
  const cellHeader = header(page, colId);
  for (let clicks = 0; clicks < 3; ++clicks) {
    const shown = await cellHeader.getAttribute('aria-sort');
    if (shown === direction) return;
    await cellHeader.locator('.ag-header-cell-label').click();
    await eventually(async () => {
      assert.notEqual(await cellHeader.getAttribute('aria-sort'), shown);
    });
  }
  assert.equal(await cellHeader.getAttribute('aria-sort'), direction);
}

test('shows the example workspace with the texts the host computed', async () => {
  const { context, page, problems } = await openGrid(browser, server.url);
  try {
    const connection = page.locator('#connection');
    assert.equal(await connection.getAttribute('data-state'), 'open');
    assert.notEqual((await connection.textContent()).trim(), '');

    assert.deepEqual(
      await page.locator('#grid .ag-header-cell[col-id]').evaluateAll(
        (cells) => cells.map((c) => c.getAttribute('col-id')),
      ),
      COLUMNS,
    );
    assert.equal(
      (await header(page, 'Median').textContent()).trim(), 'Median',
      'header texts come from the column metadata',
    );

    const rows = await allRows(page);
    assert.equal(await page.evaluate(() => window.wsbrowser.rowCount()), NAMES.length);
    assert.deepEqual(namesOf(rows), NAMES);
    const byName = Object.fromEntries(rows.map((r) => [r.name, r]));

    assert.deepEqual(byName.grid.cells, {
      Name: 'grid',
      Value: '[[0. 0.25 0.5 0.75] [1. 1.25 1.5 1.75] [2. 2.25 2.5 2.75]]',
      Size: '3\u00d74',
      Class: 'ndarray float64',
      Min: '0',
      Max: '2.75',
      Range: '2.75',
      Mean: '1.375',
      Median: '1.375',
      Mode: '0',
      Var: '0.8125',
      Std: '0.90139',
      Bytes: '96',
    });
    // Python's words for Class, Size and Value; statistics skip NaN as pandas does.
    const texts = (name, ...columns) => columns.map((column) => byName[name].cells[column]);
    const expected = {
      small_ints: [['Value', 'Size', 'Class', 'Var', 'Mode'], ['[-3 -1 0 2 7]', '5', 'ndarray int8', '14.5', '-3']],
      odd: [['Value', 'Min', 'Median'], ['[ 1. nan inf -inf 2.5]', '-Inf', '1.75']],
      prices: [['Value', 'Size', 'Class', 'Min', 'Max', 'Mean'],
        ['DataFrame 5\u00d73: day, close, ticker', '5\u00d73', 'DataFrame', '1', '11.25', '6.4167']],
      waves: [['Class', 'Min', 'Max'], ['ndarray complex128', '1', '5']],
      greeting: [['Value', 'Size', 'Class', 'Mean'], ["'Hello, workspace'", '16', 'str', '']],
      nothing: [['Value', 'Size', 'Min'], ['[]', '0', '']],
      settings: [['Value', 'Class'], ["{'mode': 'fast', 'retries': 3, 'scale': 1.5}", 'dict']],
      things: [['Size', 'Class'], ['4', 'list']],
      flag: [['Value', 'Class'], ['True', 'bool']],
      answer: [['Value', 'Size', 'Class'], ['42', '1\u00d71', 'int']],
      ratio: [['Value', 'Class'], ['0.618034', 'float']],
    };
    for (const [name, [columns, values]] of Object.entries(expected))
      assert.deepEqual(texts(name, ...columns), values, name);

    // A blank statistic says why; those of complex values say they are of the magnitude.
    const title = (name, column) => page
      .locator(`#grid .ag-row[row-index="${byName[name].index}"] .ag-cell[col-id="${column}"] span`)
      .getAttribute('title');
    assert.equal(await title('greeting', 'Mean'), 'Not computed: a str is not numeric');
    assert.match(await title('waves', 'Max'), /magnitude/);
    assert.equal(await title('grid', 'Max'), null);

    // Each name carries an icon for its kind; arrays of numbers and texts differ.
    assert.ok(byName.grid.iconClass, 'the name has a class icon');
    assert.notEqual(byName.grid.iconClass, byName.greeting.iconClass);
    assert.deepEqual(problems, []);
  } finally {
    await context.close();
  }
});

test('sorts by Size on the server, both ways', async () => {
  const { context, page, frames, problems } = await openGrid(browser, server.url);
  try {
    await allRows(page);
    for (const [direction, ascending] of [['ascending', true], ['descending', false]]) {
      await sortBy(page, 'Size', direction);
      const rows = await eventually(async () => {
        const current = await allRows(page);
        // A row still waiting for its data has no name and an empty Size, which would pass
        // for the smallest size.
        assert.ok(current.every((r) => r.name), 'every row painted');
        const counts = current.map((r) => elements(r.cells.Size));
        const ordered = [...counts].sort((a, b) => (ascending ? a - b : b - a));
        assert.deepEqual(counts, ordered, `sizes in ${direction} order`);
        return current;
      });
      // The empty array has the fewest elements, the 16-character text the most.
      assert.equal(rows.at(ascending ? 0 : -1).name, 'nothing');
      assert.equal(rows.at(ascending ? -1 : 0).name, 'greeting');
      assert.equal(await header(page, 'Name').getAttribute('aria-sort'), 'none');
      assert.ok(
        frames.sentOn('_who').some((m) => m.eventType === 24 && m.column === 2
          && m.ascending === ascending),
        `the ${direction} sort was asked of the server`,
      );
    }

    await sortBy(page, 'Name', 'ascending');
    await eventually(async () => assert.deepEqual(namesOf(await allRows(page)), NAMES));
    assert.deepEqual(problems, []);
  } finally {
    await context.close();
  }
});

// Clicks the Class cell of a variable's row: a cell that is not edited by a click.
async function clickRow(page, name, modifiers = []) {
  const row = await rowOf(page, name);
  await page
    .locator(`#grid .ag-row[row-index="${row.index}"] .ag-cell[col-id="Class"]`)
    .click({ modifiers });
}

function rowsOfRanges(ranges) {
  const rows = [];
  for (const { start, end } of ranges) for (let r = start; r <= end; ++r) rows.push(r);
  return rows;
}

test('a selection made with Ctrl and Shift reaches the server and follows the names', async () => {
  const { context, page, frames, problems } = await openGrid(browser, server.url);
  try {
    await allRows(page);
    await clickRow(page, 'flag');
    await clickRow(page, 'grid', ['Shift']);
    await clickRow(page, 'small_ints', ['Control']);
    const chosen = ['flag', 'greeting', 'grid', 'small_ints'];

    // The page reports the rows; the server answers with the names it now holds.
    await eventually(() => {
      const answers = frames.viewModelReceived().filter(
        (m) => m.type === 'SelectedVariablesChanged',
      );
      assert.deepEqual([...(answers.at(-1)?.Variables ?? [])].sort(), chosen);
    });
    const reported = frames.viewModelSent().filter(
      (m) => m.type === 'propertySet' && m.propertyName === 'Selection',
    );
    assert.deepEqual(
      rowsOfRanges(JSON.parse(reported.at(-1).propertyValue.selectedRows)).sort((a, b) => a - b),
      [1, 2, 3, 10],
    );
    assert.deepEqual(
      (await page.evaluate(() => window.wsbrowser.selectedNames())).sort(),
      chosen,
    );

    // After a sort the same variables sit on other rows; the server says which. The header
    // passes through the ascending sort on its way, so only the last answer counts.
    const before = frames.viewModelReceived().length;
    await sortBy(page, 'Size', 'descending');
    const moved = await eventually(async () => {
      const rows = await allRows(page);
      assert.equal(rows[0].name, 'greeting');
      const answer = frames.viewModelReceived().slice(before).findLast(
        (m) => m.type === 'SelectedRowsChanged',
      );
      assert.ok(answer, 'the server sent the selected rows after the sort');
      assert.deepEqual(rowsOfRanges(answer.selectedRows).map((r) => rows[r].name).sort(), chosen);
      return rowsOfRanges(answer.selectedRows);
    });
    assert.notDeepEqual(moved.sort((a, b) => a - b), [1, 2, 3, 10]);
    await eventually(async () => {
      assert.deepEqual(
        (await gridRows(page)).filter((r) => r.selected).map((r) => r.name).sort(),
        chosen,
      );
    });
    assert.deepEqual(
      (await page.evaluate(() => window.wsbrowser.selectedNames())).sort(),
      chosen,
    );
    assert.deepEqual(problems, []);
  } finally {
    await context.close();
  }
});

test('two pages keep their own order and selection', async () => {
  const first = await openGrid(browser, server.url);
  const second = await openGrid(browser, server.url);
  try {
    await allRows(first.page);
    await allRows(second.page);
    await clickRow(first.page, 'answer');
    await clickRow(second.page, 'odd');
    await clickRow(second.page, 'things', ['Control']);
    await sortBy(first.page, 'Class', 'descending');

    await eventually(async () => {
      assert.deepEqual(await first.page.evaluate(() => window.wsbrowser.selectedNames()),
        ['answer']);
      assert.deepEqual(
        (await second.page.evaluate(() => window.wsbrowser.selectedNames())).sort(),
        ['odd', 'things'],
      );
    });
    await eventually(async () => {
      const rows = await allRows(first.page);
      const classes = rows.map((r) => r.cells.Class);
      assert.notDeepEqual(namesOf(rows), NAMES);
      assert.equal(classes[0], 'str');
    });
    // The second page still shows the names in order, and the first page's server never
    // spoke of the second page's selection.
    assert.deepEqual(namesOf(await allRows(second.page)), NAMES);
    assert.deepEqual(
      (await gridRows(second.page)).filter((r) => r.selected).map((r) => r.name).sort(),
      ['odd', 'things'],
    );
    for (const message of first.frames.viewModelReceived()) {
      if (message.type === 'SelectedVariablesChanged') {
        assert.deepEqual(message.Variables, ['answer']);
      }
    }
    assert.deepEqual([...first.problems, ...second.problems], []);
  } finally {
    await closeAll(first.context, second.context);
  }
});

test('picture of the running grid for the README', async () => {
  const { context, page } = await openGrid(browser, server.url);
  try {
    await allRows(page);
    await sortBy(page, 'Size', 'descending');
    await eventually(async () => assert.equal((await allRows(page))[0].name, 'greeting'));
    await clickRow(page, 'grid');
    await clickRow(page, 'small_ints', ['Control']);
    await clickRow(page, 'odd', ['Control']);
    const reply = await runCode(page, 'grid.mean(axis=0)');
    assert.equal(reply.error, false);
    await eventually(async () => {
      assert.equal((await gridRows(page)).filter((r) => r.selected).length, 3);
    });
    // No hover highlight or typing cursor in the picture.
    await page.locator('#command').blur();
    await page.mouse.move(0, 0);
    const target = path.join(repoRoot, 'docs/images/wsbrowser.png');
    mkdirSync(path.dirname(target), { recursive: true });
    await page.screenshot({ path: target });
  } finally {
    await context.close();
  }
});
