// A blank statistic says why; a statistic of complex values says it is of their magnitude.

import { describe, expect, it } from 'vitest';

import { readStatistics } from '../src/protocol';
import { elementsOf, statsNote } from '../src/statsNote';

const on = { on: true, limit: 100000, columns: ['Min', 'Max'] };

describe('statistics notes', () => {
  it('names the reason a statistic is blank', () => {
    expect(statsNote({ Class: 'ndarray float64', Size: '1000\u00d71000' }, on)).toMatch(/1,000,000 elements, over the limit of 100,000/);
    expect(statsNote({ Class: 'str', Size: '5' }, on)).toMatch(/a str is not numeric/);
    expect(statsNote({ Class: 'list', Size: '3' }, on)).toMatch(/not every item/);
    expect(statsNote({ Class: 'DataFrame', Size: '5\u00d72' }, on)).toMatch(/no numeric columns/);
    expect(statsNote({ Class: 'ndarray float64', Size: '0' }, on)).toMatch(/empty/);
    expect(statsNote({ Class: 'ndarray float64', Size: '3' }, { ...on, on: false })).toMatch(/switched off/);
    expect(statsNote({ Class: 'ndarray complex128', Size: '3', Min: '1' }, on)).toMatch(/magnitude/);
    expect(statsNote({ Class: 'int', Size: '1\u00d71', Min: '4' }, on)).toBeNull();
    expect(statsNote({ Class: '', Size: '' }, on)).toBeNull();
  });

  it('reads sizes and settings strictly', () => {
    expect(elementsOf('2\u00d73\u00d74')).toBe(24);
    expect(elementsOf('?')).toBeNull();
    expect(readStatistics({ statistics: on })).toEqual(on);
    expect(readStatistics({ statistics: { ...on, limit: '1' } })).toBeNull();
    expect(readStatistics({ columns: [] })).toBeNull();
  });
});
