// What the station does with a console at an operator's word.

import { api, errorText } from './api.ts';
import { askWith, confirm, tell } from './dialog.ts';
import { announce, element } from './dom.ts';
import { store } from './store.ts';

interface Command {
  word: string;
  label: string;
  question?: string;  // asked first: others are disturbed by it
}

const kCommands: readonly Command[] = [
  { word: 'reconnect', label: 'Reconnect: try at once to connect it' },
  { word: 'enable', label: 'Enable: let it be connected again' },
  { word: 'disable', label: 'Disable: disconnect it and its users',
    question: 'Its users are disconnected, and nobody can attach until it is enabled again.' },
  { word: 'clear', label: 'Clear: disconnect its users',
    question: 'All of its users are disconnected.' },
  { word: 'force', label: 'Force: take the management port over if that refuses',
    question: 'Whoever holds the management port elsewhere loses it.' },
  { word: 'msg', label: 'Message: send its users a text' },
];

async function messageText(name: string): Promise<string | null> {
  const text = element('input', { 'aria-label': 'Message', maxlength: '900', class: 'wide' });
  const choices = [{ label: 'Send', value: true }, { label: 'Cancel', value: false }];
  const sure = await askWith(`Message to the users of ${name}`, [text], choices);
  return sure === true && text.value.trim() !== '' ? text.value : null;
}

async function run(name: string, command: Command): Promise<void> {
  let body = {};
  if (command.word === 'msg') {
    const text = await messageText(name);
    if (text === null) return;
    body = { text };
  }
  const title = `${command.word} ${name}?`;
  if (command.question !== undefined && !(await confirm(title, command.question, 'Do it'))) return;
  try {
    announce((await api.command(name, command.word, body)) || `${command.word} ${name}: done`);
  } catch (error) {
    await tell(`${command.word} ${name}`, [element('p', { class: 'problem' }, errorText(error))]);
  }
  store.refresh();
}

/** Asks what shall be done with the console, and does it. */
export async function commands(name: string): Promise<void> {
  const select = element('select', { 'aria-label': 'Command', size: String(kCommands.length) },
    ...kCommands.map((command) => element('option', { value: command.word }, command.label)));
  select.selectedIndex = 0;
  const choices = [{ label: 'Go on', value: true }, { label: 'Cancel', value: false }];
  if ((await askWith(`Command for ${name}`, [select], choices)) !== true) return;
  const command = kCommands.find((one) => one.word === select.value);
  if (command !== undefined) await run(name, command);
}
