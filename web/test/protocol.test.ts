// The readers of what the server sends and the builders of what the page sends: malformed input
// is dropped, never guessed at, and every outgoing message has the shape the server reads.

import { describe, expect, it } from 'vitest';

import { paging, viewModel } from '../src/messages';
import { readColumnKeys, readColumns, readData, toRanges } from '../src/protocol';

const keys = ['Name', 'Size', 'Mean'];

describe('column keys', () => {
  it('takes distinct non-empty texts and nothing else', () => {
    expect(readColumnKeys({ columns: keys })).toEqual(keys);
    for (const bad of [null, [], { columns: 'Name' }, { columns: ['Name', 'Name'] },
      { columns: ['Name', 3] }, { columns: ['', 'Size'] }]) {
      expect(readColumnKeys(bad)).toBeNull();
    }
  });

  it('names each described column by its position in the keys, skipping unknown positions', () => {
    const columns = readColumns(
      {
        properties: [
          { ColumnNumber: 3, HeaderName: 'Mittelwert', ColumnWidth: 90, IsSortable: true },
          { ColumnNumber: 1, HeaderName: 'Name', editable: true, DataAttributes: 'IconLabelNameColumn' },
          { ColumnNumber: 9, HeaderName: 'beyond the keys' },
          { ColumnNumber: 0 },
          'not an object',
        ],
      },
      keys,
    );
    expect(columns?.map((c) => [c.key, c.index, c.header])).toEqual([
      ['Name', 0, 'Name'],
      ['Mean', 2, 'Mittelwert'],
    ]);
    expect(columns?.[1]).toMatchObject({ width: 90, sortable: true, editable: false });
  });
});

describe('data pages', () => {
  it('maps cells to keys from the start column and empties unreadable cells', () => {
    const data = readData(
      {
        startRow: 4,
        endRow: 5,
        startColumn: 1,
        partialData: JSON.stringify([
          [JSON.stringify({ value: '3×4' }), JSON.stringify({ value: 2.5 })],
          ['{broken', JSON.stringify(['not', 'an', 'object'])],
        ]),
      },
      keys,
    );
    expect(data?.rows).toEqual([
      { Size: { value: '3×4', editable: false }, Mean: { value: '2.5', editable: false } },
      { Size: { value: '' }, Mean: { value: '' } },
    ]);
  });

  it('drops a page whose frame is malformed', () => {
    expect(readData({ startRow: 0, endRow: 0, partialData: '[1, 2]' }, keys)).toBeNull();
    expect(readData({ startRow: 0, partialData: '[]' }, keys)).toBeNull();
    expect(readData({ startRow: 0, endRow: 0, partialData: 'not json' }, keys)).toBeNull();
  });
});

describe('outgoing messages', () => {
  it('counts an edited cell from 1 on the wire and sends the selection as JSON text', () => {
    expect(paging.setData(0, 1, 'x')).toEqual({ eventType: 12, row: 1, column: 2, data: 'x' });
    const ranges = toRanges([5, 1, 2, 2, 3]);
    expect(ranges).toEqual([{ start: 1, end: 3 }, { start: 5, end: 5 }]);
    expect(viewModel.selection(ranges)).toEqual({
      type: 'propertySet',
      propertyName: 'Selection',
      propertyValue: { selectedRows: '[{"start":1,"end":3},{"start":5,"end":5}]' },
    });
  });
});
