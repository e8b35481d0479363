// The list of all consoles.

import { announce, button, element, fill } from './dom.ts';
import { elsewhereInWords } from './fleet.ts';
import { fleetStore } from './fleet_store.ts';
import { choose, hasProblem } from './filter.ts';
import { commands } from './commands.ts';
import { age, clock } from './moments.ts';
import { go, routeText } from './route.ts';
import { store } from './store.ts';
import type { ConsoleInfo } from './types.ts';
import type { View } from './view.ts';

const kMostRows = 300;  // more would make the page slow, and nobody reads them
export const kMostPanes = 4;

const kSigns: Record<string, string> = {
  'connected': '●', 'in-use': '●', 'connecting': '◌', 'disabled': '■',
};

function people(console: ConsoleInfo): string {
  return console.users.map((user) => `${user.name} (${user.mode})`).join(', ');
}

function fillRow(row: HTMLElement, console: ConsoleInfo, now: number): void {
  const last = age(console.last_output, now);
  const why = console.problem;
  fill(row,
    element('span', { class: `sign state-${console.state}`, 'aria-hidden': 'true' },
      hasProblem(console) ? '!' : kSigns[console.state] ?? '○'),
    element('strong', {}, console.name),
    element('span', { class: `state state-${console.state}`, title: clock(console.since) },
      `${console.state} ${age(console.since, now)}`),
    element('span', { class: 'age faint', title: clock(console.last_output) },
      last === '' ? 'no output' : `output ${last}`),
    element('span', { class: 'people' }, people(console)),
    why === null ? null : element('span', { class: 'why problem' }, why));
}

export class ListView implements View {
  readonly title = 'Consoles';
  readonly part = 'consoles';
  readonly node: HTMLElement;
  private readonly filter = element('input', {
    type: 'search', placeholder: 'Filter: name, address, state, user', spellcheck: 'false',
    'aria-label': 'Filter the consoles', id: 'filter', oninput: () => this.show(true),
    onkeydown: (event) => this.filterKey(event as KeyboardEvent),
  });
  private readonly count = element('p', { class: 'faint', role: 'status', id: 'count' });
  private readonly rows = element('ul', {
    class: 'rows', role: 'listbox', tabindex: '0', 'aria-label': 'Consoles', id: 'rows',
    'aria-multiselectable': 'true',
    onkeydown: (event) => this.rowKey(event as KeyboardEvent),
  });
  private readonly beside = button('Open side by side', () => this.open(null), {
    title: 'Opens the selected consoles',
  });
  private readonly elsewhere = element('p', { class: 'elsewhere', id: 'elsewhere', hidden: true },
    element('a', {}));
  private shown: ConsoleInfo[] = [];
  private current: string | null = null;
  private readonly selected = new Set<string>();
  private readonly forget: (() => void)[];

  constructor(open: readonly string[] = []) {
    for (const name of open) this.selected.add(name);
    this.current = open[0] ?? null;
    this.node = element('section', { class: 'list', 'aria-label': 'List of consoles' },
      element('div', { class: 'bar' }, this.filter, this.beside, this.count), this.rows, this.elsewhere);
    this.forget = [store.onChange(() => this.show(false)),
      fleetStore.onChange(() => this.showElsewhere())];
    this.show(false);
  }

  focus(): void {
    this.rows.focus();
  }

  close(): void {
    for (const forget of this.forget) forget();
  }

  key(event: KeyboardEvent): boolean {
    if (event.key === '/') {
      this.filter.focus();
      this.filter.select();
      return true;
    }
    if (event.target === this.rows || event.key.length > 1) return false;
    return this.command(event);
  }

  private show(byFilter: boolean): void {
    if (store.list === null) return;
    const all = store.list.consoles;
    this.shown = choose(all, this.filter.value);
    const problems = this.shown.filter(hasProblem).length;
    const more = this.shown.length - kMostRows;
    const count = `${this.shown.length} of ${all.length}, ${problems} with problems`
      + (more > 0 ? `. ${more} more are not shown: filter` : '');
    if (this.count.textContent !== count) this.count.textContent = count;
    if (byFilter || !this.shown.some((one) => one.name === this.current)) {
      this.current = this.shown[0]?.name ?? null;
    }
    this.draw(this.shown.slice(0, kMostRows));
    this.showElsewhere();
  }

  /** Matching consoles of the fleet that this list does not have. */
  private showElsewhere(): void {
    const filter = this.filter.value;
    const text = fleetStore.fleet === null ? '' : elsewhereInWords(fleetStore.fleet, filter);
    const link = this.elsewhere.firstElementChild as HTMLAnchorElement;
    const label = `In the fleet: ${text}`;
    if (link.textContent !== label) link.textContent = label;
    link.href = routeText('fleet', [], { q: filter });
    this.elsewhere.hidden = text === '';
  }

  /** Rows stay the same elements, so nothing jumps and a screen reader keeps its place. */
  private draw(consoles: ConsoleInfo[]): void {
    const now = store.now();
    while (this.rows.children.length > consoles.length) this.rows.lastElementChild?.remove();
    consoles.forEach((console, index) => {
      let row = this.rows.children[index] as HTMLElement | undefined;
      if (row === undefined) {
        row = element('li', { class: 'row', role: 'option', id: `row-${index}`,
          onclick: (event) => this.click(index, event as MouseEvent) });
        this.rows.append(row);
      }
      fillRow(row, console, now);
      row.setAttribute('aria-selected', String(this.selected.has(console.name)));
      row.classList.toggle('current', console.name === this.current);
      if (console.name === this.current) this.rows.setAttribute('aria-activedescendant', row.id);
    });
    this.beside.hidden = this.selected.size === 0;
  }

  private click(index: number, event: MouseEvent): void {
    const console = this.shown[index];
    if (console === undefined) return;
    this.current = console.name;
    if (event.ctrlKey || event.metaKey) this.select(console.name);
    else this.open(console.name);
  }

  private filterKey(event: KeyboardEvent): void {
    if (event.key === 'ArrowDown' || event.key === 'Enter') {
      event.preventDefault();
      if (event.key === 'Enter' && this.shown.length === 1) this.open(this.current);
      else this.rows.focus();
    } else if (event.key === 'Escape') {
      this.filter.value = '';
      this.show(true);
      this.rows.focus();
    }
  }

  private rowKey(event: KeyboardEvent): void {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    if (this.move(event.key) || this.command(event)) event.preventDefault();
  }

  private move(key: string): boolean {
    const steps: Record<string, number> = {
      ArrowDown: 1, j: 1, ArrowUp: -1, k: -1, PageDown: 10, PageUp: -10,
      Home: -kMostRows, End: kMostRows,
    };
    const step = steps[key];
    if (step === undefined) return false;
    const last = Math.min(this.shown.length, kMostRows) - 1;
    const at = this.shown.findIndex((one) => one.name === this.current) + step;
    this.current = this.shown[Math.max(0, Math.min(at, last))]?.name ?? null;
    this.draw(this.shown.slice(0, kMostRows));
    this.rows.querySelector('.current')?.scrollIntoView({ block: 'nearest' });
    return true;
  }

  private command(event: KeyboardEvent): boolean {
    const name = this.current;
    if (name === null) return false;
    if (event.key === 'Enter') this.open(event.shiftKey ? null : name);
    else if (event.key === ' ') this.select(name);
    else if (event.key === 'h') go('history', [name]);
    else if (event.key === 'r') go('replay', [name]);
    else if (event.key === 'c') void commands(name);
    else return false;
    return true;
  }

  private select(name: string): void {
    if (this.selected.delete(name)) announce(`${name} is not selected`);
    else if (this.selected.size >= kMostPanes) announce(`At most ${kMostPanes} side by side`);
    else this.selected.add(name);
    this.draw(this.shown.slice(0, kMostRows));
  }

  /** One console, or (null) the selected ones. */
  private open(name: string | null): void {
    const names = name === null ? [...this.selected] : [name];
    if (names.length > 0) go('consoles', names);
  }
}
