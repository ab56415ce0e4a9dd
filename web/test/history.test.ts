// The command history walks back and forward like a shell's and gives back the draft.

import { describe, expect, it } from 'vitest';

import { CommandHistory } from '../src/history';

describe('command history', () => {
  it('walks back to the oldest, forward to the draft, and skips repeats and blanks', () => {
    const history = new CommandHistory();
    expect(history.back('draft')).toBeNull();
    for (const command of ['a = 1', 'a = 1', '  ', 'b = 2']) history.add(command);
    expect(history.back('typing')).toBe('b = 2');
    expect(history.back('b = 2')).toBe('a = 1');
    expect(history.back('a = 1')).toBeNull();
    expect(history.forward()).toBe('b = 2');
    expect(history.forward()).toBe('typing');
    expect(history.forward()).toBeNull();
    history.add('c = 3');
    expect(history.back('')).toBe('c = 3');
  });
});
