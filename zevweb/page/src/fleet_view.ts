// Fleet: the stations, and which of them has which console.

import { element, refill } from './dom.ts';
import { chooseFleet, consoleAddress, heldBy, pageAddress, placeProblem, stateInWords,
  type FleetChoice } from './fleet.ts';
import { fleetStore } from './fleet_store.ts';
import { plain } from './lines.ts';
import { clock } from './moments.ts';
import { routeText } from './route.ts';
import type { Fleet, FleetConsole, FleetStation } from './types.ts';
import type { View } from './view.ts';

const kMostRows = 300;  // of each table: more would make the page slow, and nobody reads them
const kColumns = ['Station', 'State', 'Address', 'Version', 'Consoles', 'Page'];

/** A link to another station's page, which opens beside this one. */
function linkAway(address: string, text: string, attributes: Record<string, string> = {}) {
  return element('a', { href: address, target: '_blank', rel: 'noopener', ...attributes },
    plain(text));
}

function stationRow(fleet: Fleet, station: FleetStation, held: number): HTMLElement {
  const page = pageAddress(station.web);
  const isHere = station.name === fleet.station;
  const state = stateInWords(station);
  const cells = [
    element('strong', {}, plain(station.name) + (isHere ? ' (this station)' : '')),
    element('span', { class: state === 'ready' ? 'ready' : 'problem' }, state),
    plain(station.address), plain(station.version), String(held),
    page === null || isHere ? '' : linkAway(page.href, page.host),
  ];
  return element('tr', { 'data-station': station.name },
    ...cells.map((cell) => element('td', {}, cell)));
}

/** The way to a console, in a row that has the keyboard itself. */
function wayTo(fleet: Fleet, console: FleetConsole): HTMLElement {
  const address = consoleAddress(fleet, console);
  const name = plain(console.name);
  if (address === null) return element('strong', {}, name);
  if (address.startsWith('#')) return element('a', { href: address, tabindex: '-1' }, name);
  return linkAway(address, console.name, { tabindex: '-1' });
}

function consoleParts(fleet: Fleet, console: FleetConsole): (HTMLElement | null)[] {
  const problem = placeProblem(console);
  const isThere = console.station !== null;
  const byCommand = isThere && consoleAddress(fleet, console) === null;
  return [
    element('span', { class: 'sign problem', 'aria-hidden': 'true' }, problem === '' ? '' : '!'),
    wayTo(fleet, console),
    element('span', { class: 'at' }, isThere ? plain(console.station ?? '') : '-'),
    element('span', { class: 'why problem' }, plain(problem)),
    byCommand ? element('code', {}, `zevctl --fleet attach ${plain(console.name)}`) : null,
  ];
}

/** What people must know of the map; it says the same for as long as nothing changes. */
function mapInWords(fleet: Fleet | null, problem: string | null): string {
  if (fleet === null) return problem ?? 'This station is in no fleet.';
  const age = fleet.as_of === null ? 'This map has never been confirmed.'
    : `This map is of ${clock(fleet.as_of)}: consoles may be elsewhere by now.`;
  const isOld = fleet.stale || !fleet.connected || problem !== null;
  const parts = [isOld ? age : 'This map is as of now.', problem ?? '', fleet.problem ?? ''];
  return plain(parts.filter((part) => part !== '').join(' '));
}

export class FleetView implements View {
  readonly part = 'fleet';
  readonly title = 'Fleet';
  readonly node: HTMLElement;
  private readonly filter: HTMLInputElement;
  private readonly heading = element('h2', {}, 'Fleet');
  private readonly count = element('p', { class: 'faint', role: 'status', id: 'fleet-count' });
  private readonly stations = element('tbody');
  private readonly rows = element('ul', { class: 'rows', 'aria-label': 'Consoles of the fleet',
    id: 'fleet-rows', tabindex: '-1', onkeydown: (event) => this.rowKey(event as KeyboardEvent) });
  private readonly status = element('p', { class: 'status', role: 'status', id: 'fleet-status' });
  private readonly forget: () => void;
  private shown: FleetConsole[] = [];
  private current: string | null = null;

  constructor(query: Record<string, string>) {
    this.filter = element('input', { type: 'search', id: 'fleet-filter', spellcheck: 'false',
      placeholder: 'Filter: name, station', 'aria-label': 'Filter the consoles of the fleet',
      value: query['q'] ?? '', oninput: () => this.whenFiltered(),
      onkeydown: (event) => this.filterKey(event as KeyboardEvent) });
    const head = kColumns.map((title) => element('th', { scope: 'col' }, title));
    this.node = element('section', { class: 'view fleet', 'aria-label': this.title },
      element('div', { class: 'stations', tabindex: '0', role: 'region', 'aria-label': 'Stations' },
        element('table', {}, element('thead', {}, element('tr', {}, ...head)), this.stations)),
      element('div', { class: 'bar' }, this.heading, this.filter, this.count),
      this.rows, this.status);
    this.forget = fleetStore.onChange(() => this.show());
    this.show();
  }

  focus(): void {
    this.focusRow();
  }

  close(): void {
    this.forget();
  }

  key(event: KeyboardEvent): boolean {
    if (event.key !== '/') return false;
    this.filter.focus();
    this.filter.select();
    return true;
  }

  private show(): void {
    const fleet = fleetStore.fleet;
    const status = mapInWords(fleet, fleetStore.problem);
    if (this.status.textContent !== status) this.status.textContent = status;
    this.status.classList.toggle('bad', status !== 'This map is as of now.');
    this.heading.textContent = fleet === null ? 'Fleet' : `Fleet ${plain(fleet.site)}`;
    this.showStations(fleet);
    this.showConsoles(fleet);
  }

  private showStations(fleet: Fleet | null): void {
    const held = fleet === null ? new Map<string, number>() : heldBy(fleet);
    const rows = (fleet?.stations ?? []).slice(0, kMostRows).map((station) =>
      stationRow(fleet as Fleet, station, held.get(station.name) ?? 0));
    refill(this.stations, ...rows);
  }

  private showConsoles(fleet: Fleet | null): void {
    const chosen = chooseFleet(fleet?.consoles ?? [], this.filter.value, kMostRows);
    this.shown = chosen.rows;
    const count = fleet === null ? '' : this.countInWords(chosen, fleet);
    if (this.count.textContent !== count) this.count.textContent = count;
    if (!this.shown.some((one) => one.name === this.current)) {
      this.current = this.shown[0]?.name ?? null;
    }
    const hadKeyboard = this.rows.contains(document.activeElement);
    while (this.rows.children.length > this.shown.length) this.rows.lastElementChild?.remove();
    this.shown.forEach((console, index) => this.draw(fleet as Fleet, console, index));
    // The keyboard stays at its console, whose row may be another one now.
    if (hadKeyboard && !this.row().contains(document.activeElement)) this.focusRow();
  }

  private countInWords(chosen: FleetChoice, fleet: Fleet): string {
    const more = chosen.count - chosen.rows.length;
    return `${chosen.count} of ${fleet.consoles.length}, ${chosen.problems} with problems`
      + (more > 0 ? `. ${more} more are not shown: filter` : '');
  }

  private draw(fleet: Fleet, console: FleetConsole, index: number): void {
    let row = this.rows.children[index] as HTMLElement | undefined;
    if (row === undefined) {
      row = element('li', { class: 'row', onfocus: () => this.mark(index),
        onclick: (event) => this.click(index, event) });
      this.rows.append(row);
    }
    refill(row, ...consoleParts(fleet, console));
    row.tabIndex = console.name === this.current ? 0 : -1;
  }

  private whenFiltered(): void {
    history.replaceState(null, '', routeText('fleet', [], { q: this.filter.value }));
    this.showConsoles(fleetStore.fleet);
  }

  private filterKey(event: KeyboardEvent): void {
    if (event.key === 'ArrowDown' || event.key === 'Enter') {
      event.preventDefault();
      if (event.key === 'Enter' && this.shown.length === 1) this.open(0);
      else this.focusRow();
    } else if (event.key === 'Escape') {
      // The page's own meaning of the key is a step back.
      event.preventDefault();
      this.filter.value = '';
      this.whenFiltered();
      this.focusRow();
    }
  }

  private rowKey(event: KeyboardEvent): void {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const steps: Record<string, number> = { ArrowDown: 1, j: 1, ArrowUp: -1, k: -1,
      PageDown: 10, PageUp: -10, Home: -kMostRows, End: kMostRows };
    const step = steps[event.key];
    const at = this.shown.findIndex((one) => one.name === this.current);
    if (event.key === 'Enter') this.open(at);
    else if (step !== undefined) {
      this.mark(Math.max(0, Math.min(at + step, this.shown.length - 1)));
      this.focusRow();
    } else return;
    event.preventDefault();
  }

  /** Makes this row the one that the keyboard comes to. */
  private mark(index: number): void {
    this.current = this.shown[index]?.name ?? null;
    const rows = this.rows.querySelectorAll<HTMLElement>('.row');
    rows.forEach((row, at) => { row.tabIndex = at === index ? 0 : -1; });
  }

  /** The row that the keyboard comes to; what will hold it while there is none. */
  private row(): HTMLElement {
    return this.rows.querySelector<HTMLElement>('[tabindex="0"]') ?? this.rows;
  }

  private focusRow(): void {
    this.row().focus();
  }

  private click(index: number, event: Event): void {
    if (!(event.target instanceof HTMLAnchorElement)) this.open(index);
  }

  private open(index: number): void {
    this.rows.children[index]?.querySelector('a')?.click();
  }
}
