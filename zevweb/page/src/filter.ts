// Which consoles the list shows, and in which order.

import type { ConsoleInfo } from './types.ts';

/** Everything of a console that a filter looks at. */
function words(console: ConsoleInfo): string {
  const users = console.users.map((user) => user.name);
  return [console.name, console.address, console.state, ...users].join(' ');
}

export function hasProblem(console: ConsoleInfo): boolean {
  return console.problem !== null;
}

/** Each word of the filter must be in the text; one with "-" before it must not. */
export function hasWords(text: string, filter: string): boolean {
  const have = text.toLowerCase();
  return filter.toLowerCase().split(/\s+/).every((word) => {
    if (word === '' || word === '-') return true;
    return word.startsWith('-') ? !have.includes(word.slice(1)) : have.includes(word);
  });
}

export function matches(console: ConsoleInfo, filter: string): boolean {
  return hasWords(words(console), filter);
}

const kByName = new Intl.Collator(undefined, { numeric: true });

function before(one: ConsoleInfo, other: ConsoleInfo): number {
  return Number(hasProblem(other)) - Number(hasProblem(one))
    || kByName.compare(one.name, other.name);
}

/** Those that match, problems first, then by name; the numbers in names count as numbers. */
export function choose(consoles: readonly ConsoleInfo[], filter: string): ConsoleInfo[] {
  return consoles.filter((console) => matches(console, filter)).sort(before);
}
