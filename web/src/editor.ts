// The grid's cell editor. The cells carry a shortened display text ("[0, 1, 2, ...]"); an
// editor that started from it would write the shortening back and destroy the value. So a Value
// editor asks the host for the exact Python text first and starts from that, or does not open
// when the value cannot be edited in place. Only Enter commits: Escape, Tab and clicking
// elsewhere cancel, and committing the text unchanged sends nothing.

import type { ICellEditorComp, ICellEditorParams } from 'ag-grid-community';

import { readEditText, type EditText } from './protocol';

/** Matches the host's edit-text answers to the editors that asked. DOM-free. */
export class EditTextRequests {
  private nextId = 1;
  private readonly waiting = new Map<number, (answer: EditText) => void>();

  /** Sends a request through `send`; null when it could not be sent. */
  ask(name: string, send: (name: string, id: number) => boolean, onAnswer: (answer: EditText) => void): number | null {
    const id = this.nextId++;
    if (!send(name, id)) return null;
    this.waiting.set(id, onAnswer);
    return id;
  }

  /** Hands an answer to its editor; false for anything else (late, unknown, malformed). */
  answer(message: unknown): boolean {
    const answer = readEditText(message);
    const onAnswer = answer ? this.waiting.get(answer.id) : undefined;
    if (!answer || !onAnswer) return false;
    this.waiting.delete(answer.id);
    onAnswer(answer);
    return true;
  }

  /** The editor closed: its answer, if it still comes, is dropped. */
  forget(id: number): void {
    this.waiting.delete(id);
  }

  /** The connection changed: nothing asked before will be answered. */
  clear(): void {
    this.waiting.clear();
  }

  get pending(): number {
    return this.waiting.size;
  }
}

export interface EditorContext {
  requests: EditTextRequests;
  send(name: string, id: number): boolean;
  notice(text: string): void;
}

export interface CellEditorParams extends ICellEditorParams {
  texts: EditorContext;
  /** Set for the Value column: start from the host's exact text. */
  fetchText: boolean;
}

function typedCharacter(key: string | null): string | null {
  return key !== null && key.length === 1 ? key : null;
}

export class CellTextEditor implements ICellEditorComp {
  private input!: HTMLInputElement;
  private initial: string | null = null;
  private enterPressed = false;
  private requestId: number | null = null;
  private context: EditorContext | null = null;

  init(params: CellEditorParams): void {
    this.context = params.texts;
    const input = document.createElement('input');
    input.type = 'text';
    input.className = 'ag-input-field-input ag-text-field-input wsb-cell-editor';
    input.setAttribute('aria-label', `Edit ${params.colDef.headerName ?? 'cell'}`);
    input.addEventListener('keydown', (event) => {
      if (event.key === 'Enter') this.enterPressed = true;
    });
    this.input = input;

    const typed = typedCharacter(params.eventKey);
    const name = params.data?.Name?.value as string | undefined;
    if (typed !== null) {
      // Typing over a cell replaces its whole value, as in any grid: nothing to load.
      input.value = typed;
      this.initial = '';
    } else if (!params.fetchText || name === undefined) {
      input.value = String(params.value ?? '');
      this.initial = input.value;
    } else {
      input.readOnly = true;
      input.placeholder = 'Loading the full value…';
      this.requestId = params.texts.requests.ask(name, params.texts.send, (answer) => {
        this.requestId = null;
        if (!answer.editable) {
          params.texts.notice(`${name} cannot be edited here: ${answer.reason}.`);
          params.api.stopEditing(true);
          return;
        }
        input.readOnly = false;
        input.placeholder = '';
        input.value = answer.text;
        this.initial = answer.text;
        input.focus();
        input.select();
      });
      if (this.requestId === null) {
        params.texts.notice('Not connected: the value cannot be edited now.');
        input.placeholder = 'Not connected';
      }
    }
  }

  getGui(): HTMLElement {
    return this.input;
  }

  afterGuiAttached(): void {
    this.input.focus();
    if (this.initial !== null && this.initial !== '') this.input.select();
  }

  getValue(): string {
    return this.input.value;
  }

  isCancelAfterEnd(): boolean {
    // Only Enter commits, and only a loaded, changed text.
    return !this.enterPressed || this.initial === null || this.input.value === this.initial;
  }

  destroy(): void {
    if (this.requestId !== null) this.context?.requests.forget(this.requestId);
  }
}
