// The command box under the grid: code goes to the host's interpreter, every reply is appended
// to the output with stderr apart from stdout, the section shows a busy state while code runs,
// Ctrl+C interrupts it, and ArrowUp/ArrowDown walk the command history.

import { CommandHistory } from './history';
import { readConsoleReply } from './protocol';

const MAX_OUTPUT_ENTRIES = 500;

export interface ConsoleOutbox {
  run(code: string): boolean;
  interrupt(): boolean;
  notice(text: string): void;
}

export class CommandBox {
  private readonly history = new CommandHistory();
  /** Commands sent and not answered yet. */
  private running = 0;

  constructor(
    private readonly section: HTMLElement,
    private readonly input: HTMLTextAreaElement,
    run: HTMLButtonElement,
    private readonly output: HTMLElement,
    private readonly out: ConsoleOutbox,
  ) {
    section.setAttribute('aria-busy', 'false');
    run.addEventListener('click', () => this.run());
    input.addEventListener('keydown', (event) => this.onKey(event));
  }

  /** The connection dropped: nothing sent is still running as far as this page can tell. */
  disconnected(): void {
    this.setRunning(0);
  }

  onMessage(message: unknown): void {
    const reply = readConsoleReply(message);
    if (!reply) {
      console.warn('Ignoring a malformed console message:', message);
      return;
    }
    const entry = document.createElement('div');
    entry.className = reply.error ? 'wsb-output wsb-error' : 'wsb-output';
    for (const run of reply.runs) {
      const part = document.createElement('span');
      part.className = run.stream === 'stderr' ? 'wsb-stderr' : 'wsb-stdout';
      part.textContent = run.text;
      entry.append(part);
    }
    this.append(entry);
    if (!reply.notice) this.setRunning(this.running - 1);
    if (reply.error) {
      // The last line of a traceback says what went wrong.
      const summary = reply.output.trim().split('\n').pop() ?? '';
      if (summary) this.out.notice(summary.length > 200 ? summary.slice(0, 199) + '…' : summary);
    }
  }

  private onKey(event: KeyboardEvent): void {
    const { input } = this;
    if (event.key === 'Enter' && !event.shiftKey && !event.isComposing) {
      event.preventDefault();
      this.run();
    } else if (event.key === 'c' && event.ctrlKey && input.selectionStart === input.selectionEnd) {
      // With text selected, Ctrl+C copies as everywhere else.
      event.preventDefault();
      if (this.running > 0 && !this.out.interrupt()) this.out.notice('Not connected: nothing was interrupted.');
    } else if (event.key === 'ArrowUp' && !input.value.slice(0, input.selectionStart).includes('\n')) {
      const older = this.history.back(input.value);
      if (older !== null) this.show(event, older);
    } else if (event.key === 'ArrowDown' && !input.value.slice(input.selectionEnd).includes('\n')) {
      const newer = this.history.forward();
      if (newer !== null) this.show(event, newer);
    }
  }

  private show(event: KeyboardEvent, text: string): void {
    event.preventDefault();
    this.input.value = text;
    this.input.setSelectionRange(text.length, text.length);
  }

  private run(): void {
    const code = this.input.value;
    if (code.trim() === '') return;
    if (!this.out.run(code)) {
      this.out.notice('Not connected: the command was not run.');
      return;
    }
    this.history.add(code);
    const echo = document.createElement('div');
    echo.className = 'wsb-echo';
    echo.textContent = code;
    this.append(echo);
    this.input.value = '';
    this.setRunning(this.running + 1);
  }

  private setRunning(count: number): void {
    this.running = Math.max(0, count);
    this.section.setAttribute('aria-busy', this.running > 0 ? 'true' : 'false');
  }

  private append(entry: HTMLElement): void {
    this.output.append(entry);
    while (this.output.childElementCount > MAX_OUTPUT_ENTRIES) this.output.firstElementChild?.remove();
    this.output.scrollTop = this.output.scrollHeight;
  }
}
