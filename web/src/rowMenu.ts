// The context menu of a variable's row: copy its name or its whole value, rename, delete, and
// open in the viewer (not there yet). A plain DOM menu with the menu roles, reached by the
// mouse (right click) and the keyboard (the context-menu key or Shift+F10 on a cell; arrows,
// Enter and Escape inside).

export interface RowMenuActions {
  copyName(name: string): void;
  copyValue(name: string): void;
  rename(name: string): void;
  delete(name: string): void;
}

interface Item {
  label: string;
  run?: (name: string) => void;
}

export class RowMenu {
  private readonly menu: HTMLElement;
  private returnFocus: HTMLElement | null = null;

  constructor(actions: RowMenuActions) {
    const items: Item[] = [
      { label: 'Copy name', run: (n) => actions.copyName(n) },
      { label: 'Copy value', run: (n) => actions.copyValue(n) },
      { label: 'Rename', run: (n) => actions.rename(n) },
      { label: 'Delete', run: (n) => actions.delete(n) },
      { label: 'Open' }, // the viewer comes later: shown, but disabled
    ];
    const menu = document.createElement('ul');
    menu.className = 'wsb-row-menu';
    menu.setAttribute('role', 'menu');
    menu.hidden = true;
    for (const item of items) {
      const entry = document.createElement('li');
      entry.setAttribute('role', 'menuitem');
      entry.tabIndex = -1;
      entry.textContent = item.label;
      if (!item.run) entry.setAttribute('aria-disabled', 'true');
      entry.addEventListener('click', () => this.choose(item));
      menu.append(entry);
    }
    menu.addEventListener('keydown', (event) => this.onKey(event, items));
    menu.addEventListener('focusout', (event) => {
      if (!(event.relatedTarget instanceof Node) || !menu.contains(event.relatedTarget)) this.close(false);
    });
    document.body.append(menu);
    this.menu = menu;
  }

  private name = '';

  /** Opens the menu for variable `name` at a point on the page. */
  open(name: string, x: number, y: number): void {
    this.name = name;
    this.returnFocus = document.activeElement instanceof HTMLElement ? document.activeElement : null;
    this.menu.setAttribute('aria-label', `Actions for ${name}`);
    this.menu.hidden = false;
    const width = this.menu.offsetWidth;
    const height = this.menu.offsetHeight;
    this.menu.style.left = `${Math.max(0, Math.min(x, window.innerWidth - width - 4))}px`;
    this.menu.style.top = `${Math.max(0, Math.min(y, window.innerHeight - height - 4))}px`;
    (this.menu.firstElementChild as HTMLElement | null)?.focus();
  }

  private choose(item: Item): void {
    if (!item.run) return;
    const name = this.name;
    this.close(true);
    item.run(name);
  }

  private close(restoreFocus: boolean): void {
    if (this.menu.hidden) return;
    this.menu.hidden = true;
    if (restoreFocus) this.returnFocus?.focus();
  }

  private onKey(event: KeyboardEvent, items: Item[]): void {
    const entries = [...this.menu.children] as HTMLElement[];
    const at = entries.indexOf(document.activeElement as HTMLElement);
    if (event.key === 'ArrowDown' || event.key === 'ArrowUp') {
      const step = event.key === 'ArrowDown' ? 1 : entries.length - 1;
      entries[(at + step) % entries.length]?.focus();
    } else if (event.key === 'Enter' || event.key === ' ') {
      if (at >= 0) this.choose(items[at]);
    } else if (event.key === 'Escape' || event.key === 'Tab') {
      this.close(true);
    } else {
      return;
    }
    event.preventDefault();
    event.stopPropagation();
  }
}
