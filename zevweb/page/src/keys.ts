// The keys, and the overlay that tells them.

import { element } from './dom.ts';
import { tell } from './dialog.ts';

/** While a person types, keys are the console's; this one makes the next key the page's. */
export const kLeader = ']';

export function isLeader(event: KeyboardEvent): boolean {
  return event.ctrlKey && !event.altKey && !event.metaKey
    && (event.key === kLeader || event.code === 'BracketRight' && event.key === '\u001d');
}

const kHelp: readonly [string, readonly [string, string][]][] = [
  ['Everywhere', [
    ['?', 'this help'], ['g', 'the list of consoles'], ['s', 'search over many consoles'],
    ['a', 'audit: who did what'], ['f', 'the fleet, where the station is in one'],
    ['t', 'light, dark, or as the system'], ['Esc', 'one step back'],
  ]],
  ['In the list', [
    ['/', 'filter; words that must be there, -word that must not'],
    ['arrows j k', 'move'], ['Enter', 'watch the console'], ['Space', 'select it'],
    ['Shift+Enter', 'open the selected ones side by side'], ['h', 'its history'],
    ['r', 'replay it'], ['c', 'reconnect, enable, disable, clear, message'],
  ]],
  ['In the fleet', [
    ['/', 'filter'], ['arrows j k', 'move'], ['Enter', 'open the console, here or at its station'],
  ]],
  ['At a console: as they are while you watch, after Ctrl+] while you type', [
    ['1 2 3 4', 'watch; type shared, exclusive, exclusive until asked'],
    ['l', 'take the console over'], ['b', 'send a break'], ['p', 'paste'],
    ['w', 'who is here'], ['/', 'find in what is shown'], ['h', 'scroll back into the history'],
    ['r', 'replay'], ['c', 'commands'], ['o', 'the next console'], ['.', 'close it'],
    ['Ctrl+]', 'send Ctrl+] itself'], ['Tab', 'leave the terminal for the buttons'],
  ]],
  ['In a replay', [
    ['Space', 'play or pause'], ['arrows', 'a second, with Shift a minute'],
    ['+ -', 'quicker, slower'], ['n p', 'next, previous mark'],
  ]],
];

let isOpen = false;

export async function showHelp(): Promise<void> {
  if (isOpen) return;
  isOpen = true;
  const parts = kHelp.flatMap(([title, keys]) => [
    element('h3', {}, title),
    element('dl', {}, ...keys.flatMap(([key, text]) =>
      [element('dt', {}, key), element('dd', {}, text)])),
  ]);
  await tell('Keys', parts);
  isOpen = false;
}

/** Whether the key is being typed into a field, and so is no command. */
export function isForField(event: KeyboardEvent): boolean {
  const target = event.target;
  // The terminal's own field: what is typed there while nobody types at the console is a command.
  if (target instanceof Element && target.classList.contains('xterm-helper-textarea')) return false;
  return target instanceof HTMLInputElement && target.type !== 'range'
    || target instanceof HTMLTextAreaElement || target instanceof HTMLSelectElement;
}
