// Edit texts reach the editor that asked for them and no other; console replies and edit texts
// from the server are read strictly.

import { describe, expect, it } from 'vitest';

import { EditTextRequests } from '../src/editor';
import { readConsoleReply, readDeleted, readEditText } from '../src/protocol';

describe('edit-text requests', () => {
  it('hands each answer to its own editor once, and drops late, unknown and unsent ones', () => {
    const requests = new EditTextRequests();
    const sent: [string, number][] = [];
    const got: string[] = [];
    const send = (name: string, id: number) => (sent.push([name, id]), true);
    const first = requests.ask('s', send, (a) => got.push(`first:${a.editable ? a.text : a.reason}`));
    const second = requests.ask('big', send, (a) => got.push(`second:${a.editable ? a.text : a.reason}`));
    expect(sent).toEqual([['s', first], ['big', second]]);

    expect(requests.answer({ answer: 'editText', id: second, name: 'big', editable: false, reason: 'too large' })).toBe(true);
    expect(requests.answer({ answer: 'editText', id: second, name: 'big', editable: false, reason: 'again' })).toBe(false);
    requests.forget(first!);
    expect(requests.answer({ answer: 'editText', id: first, name: 's', editable: true, text: "'x'" })).toBe(false);
    expect(got).toEqual(['second:too large']);
    expect(requests.ask('x', () => false, () => undefined)).toBeNull();
    expect(requests.pending).toBe(0);
  });

  it('reads only well-formed answers', () => {
    expect(readEditText({ answer: 'editText', id: 3, name: 'a', editable: true, text: '[1, 2]' })).toEqual({
      id: 3, name: 'a', editable: true, text: '[1, 2]',
    });
    for (const bad of [null, { answer: 'editText', id: 3, name: 'a', editable: true },
      { answer: 'editText', id: '3', name: 'a', editable: false, reason: 'r' },
      { id: 3, name: 'a', editable: true, text: '' }, { answer: 'editText', id: 3, editable: false, reason: 'r' }]) {
      expect(readEditText(bad)).toBeNull();
    }
    expect(readDeleted({ answer: 'delete', deleted: 2 })).toBe(2);
    expect(readDeleted({ answer: 'delete', deleted: 'x' })).toBeNull();
    expect(readDeleted({ answer: 'editText', deleted: 2 })).toBeNull();
  });
});

describe('console replies', () => {
  it('keeps stdout and stderr apart in order and tells notices from answers', () => {
    const reply = readConsoleReply({
      output: '1\ne\n', error: false,
      runs: [{ stream: 'stdout', text: '1\n' }, { stream: 'stderr', text: 'e\n' }, { stream: 'other', text: 'x' }],
    });
    expect(reply?.runs).toEqual([{ stream: 'stdout', text: '1\n' }, { stream: 'stderr', text: 'e\n' }]);
    expect(reply?.notice).toBe(false);
    // Without runs, the whole text goes to the stream its outcome says.
    expect(readConsoleReply({ output: 'Traceback', error: true, notice: true })).toEqual({
      output: 'Traceback', error: true, notice: true, runs: [{ stream: 'stderr', text: 'Traceback' }],
    });
    expect(readConsoleReply({ error: true })).toBeNull();
  });
});
