// Lines of the past, as rows of plain text.

import { element } from './dom.ts';
import { clock } from './moments.ts';
import type { HistoryLine } from './types.ts';

/** The text without control characters: they would move and hide what stands around them. */
export function plain(text: string): string {
  return text.replace(/[\u0000-\u0008\u000a-\u001f\u007f-\u009f\u202a-\u202e\u2066-\u2069]/g, '·');
}

/** One row; `open` makes the console's name a link to that moment in its history. */
export function lineRow(line: HistoryLine, withConsole: boolean,
  open: (line: HistoryLine) => void): HTMLElement {
  const isNote = line.kind !== 'output';
  const name = line.console ?? '';
  return element('li', { class: line.match === true ? 'hit' : '' },
    element('time', { datetime: line.time ?? '' }, clock(line.time, true)),
    withConsole
      ? element('a', { class: 'of', href: '#', onclick: (event) => {
        event.preventDefault();
        open(line);
      } }, name)
      : null,
    element('span', { class: isNote ? 'note' : 'text' },
      isNote ? `[${line.kind}] ${plain(line.text)}` : plain(line.text)));
}
