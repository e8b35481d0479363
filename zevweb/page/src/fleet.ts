// The fleet of stations: where each console is, what is wrong with that, and how to get there.

import { routeText } from './route.ts';
import { hasWords } from './filter.ts';
import type { Fleet, FleetConsole, FleetStation } from './types.ts';

export function stateInWords(station: FleetStation): string {
  if (!station.alive) return 'away';
  return station.ready ? 'ready' : 'not ready';
}

/** Why a console is not where it should be; "" when it is. */
export function placeProblem(console: FleetConsole): string {
  if (console.station === null) return 'no station has it';
  const best = console.stations[0];
  return best === undefined || best === console.station ? '' : `should be at ${best}`;
}

export function matchesFleet(console: FleetConsole, filter: string): boolean {
  return hasWords(`${console.name} ${console.station ?? ''}`, filter);
}

const kByName = new Intl.Collator(undefined, { numeric: true });

// What nobody has comes first, then what is at another station than it should be.
function rank(console: FleetConsole): number {
  if (console.station === null) return 0;
  return placeProblem(console) === '' ? 2 : 1;
}

function compare(one: FleetConsole, other: FleetConsole): number {
  return rank(one) - rank(other) || kByName.compare(one.name, other.name);
}

/** The first `most` of them in their order. Quicker than sorting where there are many more. */
export function firstOf<Item>(items: readonly Item[], most: number,
  order: (one: Item, other: Item) => number): Item[] {
  const first: Item[] = [];
  for (const item of items) {
    const last = first[most - 1];
    if (last !== undefined && order(item, last) >= 0) continue;
    let [low, high] = [0, first.length];
    while (low < high) {
      const middle = (low + high) >> 1;
      if (order(item, first[middle] as Item) < 0) high = middle;
      else low = middle + 1;
    }
    first.splice(low, 0, item);
    if (first.length > most) first.pop();
  }
  return first;
}

export interface FleetChoice {
  rows: FleetConsole[];
  count: number;
  problems: number;
}

/** What matches: how many, and the first `most` of them, problems first, then by name. */
export function chooseFleet(consoles: readonly FleetConsole[], filter: string,
  most: number): FleetChoice {
  const found = consoles.filter((console) => matchesFleet(console, filter));
  const problems = found.filter((console) => placeProblem(console) !== '').length;
  return { rows: firstOf(found, most, compare), count: found.length, problems };
}

/** How many consoles each station has. */
export function heldBy(fleet: Fleet): Map<string, number> {
  const held = new Map<string, number>();
  for (const { station } of fleet.consoles) {
    if (station !== null) held.set(station, (held.get(station) ?? 0) + 1);
  }
  return held;
}

/** Which matching consoles are not at this station, in words; "" for none. */
export function elsewhereInWords(fleet: Fleet, filter: string): string {
  if (filter.trim() === '') return '';
  let [others, nowhere] = [0, 0];
  for (const console of fleet.consoles) {
    if (console.station === fleet.station || !matchesFleet(console, filter)) continue;
    if (console.station === null) nowhere++;
    else others++;
  }
  const parts = [others > 0 ? `${others} at other stations` : '',
    nowhere > 0 ? `${nowhere} at no station` : ''];
  return parts.filter((part) => part !== '').join(', ');
}

/** The address of a station's page, as this page may lead there; null for what is none. */
export function pageAddress(web: string | null): URL | null {
  let address: URL;
  try {
    address = new URL(web ?? '');
  } catch {
    return null;
  }
  const isPage = address.protocol === 'https:' || address.protocol === 'http:';
  return isPage && address.username === '' && address.password === '' ? address : null;
}

/** Where a console can be opened: here, at another station's page, or (null) nowhere. */
export function consoleAddress(fleet: Fleet, console: FleetConsole): string | null {
  const route = routeText('consoles', [console.name]);
  if (console.station === fleet.station) return route;
  const station = fleet.stations.find((one) => one.name === console.station);
  const page = pageAddress(station?.web ?? null);
  if (page === null) return null;
  page.hash = route;
  return page.href;
}
