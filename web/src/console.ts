// The command box under the grid: code goes to the host's interpreter, and every reply is
// appended to the output as plain text.

import { isObject } from './protocol';

const MAX_OUTPUT_ENTRIES = 500;

export class CommandBox {
  constructor(
    private readonly input: HTMLTextAreaElement,
    run: HTMLButtonElement,
    private readonly output: HTMLElement,
    private readonly send: (code: string) => boolean,
    private readonly notice: (text: string) => void,
  ) {
    run.addEventListener('click', () => this.run());
    input.addEventListener('keydown', (event) => {
      if (event.key === 'Enter' && !event.shiftKey && !event.isComposing) {
        event.preventDefault();
        this.run();
      }
    });
  }

  onMessage(message: unknown): void {
    if (!isObject(message) || typeof message.output !== 'string') {
      console.warn('Ignoring a malformed console message:', message);
      return;
    }
    const error = message.error === true;
    this.append(message.output, error ? 'wsb-output wsb-error' : 'wsb-output');
    if (error) {
      // The last line of a traceback says what went wrong.
      const summary = message.output.trim().split('\n').pop() ?? '';
      if (summary) this.notice(summary.length > 200 ? summary.slice(0, 199) + '…' : summary);
    }
  }

  private run(): void {
    const code = this.input.value;
    if (code.trim() === '') return;
    if (!this.send(code)) {
      this.notice('Not connected: the command was not run.');
      return;
    }
    this.append(code, 'wsb-echo');
    this.input.value = '';
  }

  private append(text: string, className: string): void {
    const entry = document.createElement('div');
    entry.className = className;
    entry.textContent = text;
    this.output.append(entry);
    while (this.output.childElementCount > MAX_OUTPUT_ENTRIES) this.output.firstElementChild?.remove();
    this.output.scrollTop = this.output.scrollHeight;
  }
}
