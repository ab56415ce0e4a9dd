// The console's command history: ArrowUp walks back through what was run, ArrowDown forward
// again, down to the draft the user was typing before they started walking. DOM-free.

const MAX_ENTRIES = 200;

export class CommandHistory {
  private entries: string[] = [];
  /** entries.length while not walking; otherwise the index shown. */
  private position = 0;
  private draft = '';

  /** Remembers a command that was run (not twice in a row) and stops walking. */
  add(command: string): void {
    if (command.trim() !== '' && this.entries[this.entries.length - 1] !== command) {
      this.entries.push(command);
      if (this.entries.length > MAX_ENTRIES) this.entries.shift();
    }
    this.position = this.entries.length;
    this.draft = '';
  }

  /** The older command to show instead of `current`, or null at the oldest. */
  back(current: string): string | null {
    if (this.position === 0) return null;
    if (this.position === this.entries.length) this.draft = current;
    this.position -= 1;
    return this.entries[this.position];
  }

  /** The newer command (the draft after the newest), or null when not walking. */
  forward(): string | null {
    if (this.position >= this.entries.length) return null;
    this.position += 1;
    return this.position === this.entries.length ? this.draft : this.entries[this.position];
  }
}
