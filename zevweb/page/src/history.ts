// The history of one console: its lines with their times, back as far as the journal or the logs
// reach.

import { api, errorText } from './api.ts';
import { button, element } from './dom.ts';
import { lineRow } from './lines.ts';
import { typedTime } from './moments.ts';
import { go } from './route.ts';
import type { HistoryAnswer, HistoryLine } from './types.ts';
import type { View } from './view.ts';

const kPage = 200;  // lines in a request
const kNear = 400;  // pixels from the end of what is shown, at which more is asked for

export class HistoryView implements View {
  readonly part = 'consoles';
  readonly title: string;
  readonly node: HTMLElement;
  private readonly grep = element('input', {
    type: 'search', 'aria-label': 'Only lines with', placeholder: 'Only lines with', id: 'grep',
  });
  private readonly since = element('input', {
    'aria-label': 'From', placeholder: 'From: 2h, 03:10, 2024-03-05', id: 'since',
  });
  private readonly users = element('input', { type: 'checkbox', id: 'with-users', checked: true });
  private readonly lines = element('ol', { class: 'lines', tabindex: '0', 'aria-label': 'Lines',
    onscroll: () => void this.more() });
  private readonly status = element('p', { class: 'status', role: 'status' });
  private previous: string | null = null;
  private next: string | null = null;
  private turn = 0;  // answers to what was asked for before the last change are passed over
  private busy = false;

  constructor(private readonly name: string, query: Record<string, string>) {
    this.title = `History of ${name}`;
    this.since.value = query['since'] ?? '';
    this.grep.value = query['grep'] ?? '';
    this.node = element('section', { class: 'view', 'aria-label': this.title },
      element('form', { class: 'bar', onsubmit: (event) => {
        event.preventDefault();
        void this.begin();
      } },
      element('h2', {}, this.title), this.since, this.grep,
      element('label', {}, this.users, 'users and events'),
      element('button', { type: 'submit' }, 'Show'),
      button('Replay', () => go('replay', [name], this.firstTime())),
      button('Console', () => go('consoles', [name]))),
      this.lines, this.status);
    void this.begin();
  }

  focus(): void {
    this.lines.focus();
  }

  close(): void {
    this.turn++;
  }

  key(event: KeyboardEvent): boolean {
    if (event.key === '/') this.grep.focus();
    else if (event.key === 'r') go('replay', [this.name], this.firstTime());
    else if (event.key === 'Escape') go('consoles', [this.name]);
    else return false;
    return true;
  }

  /** The time of the first line that can be seen: a replay begins there. */
  private firstTime(): Record<string, string> {
    const top = this.lines.getBoundingClientRect().top;
    const row = [...this.lines.children].find((one) => one.getBoundingClientRect().bottom > top);
    const time = row?.querySelector('time')?.dateTime ?? '';
    return time === '' ? {} : { at: time };
  }

  private async begin(): Promise<void> {
    const since = typedTime(this.since.value, Date.now());
    if (since === null) {
      this.say(`"${this.since.value}" is no time. Write 90s, 2h, 7d, 03:10 or 2024-03-05 03:10.`);
      return;
    }
    this.turn++;
    this.busy = false;
    this.lines.replaceChildren();
    const answer = await this.ask(since === '' ? { last: kPage } : { since, last: kPage });
    if (answer === null) return;
    this.previous = answer.previous;
    this.next = answer.next;
    this.lines.append(...this.rows(answer.lines));
    this.lines.scrollTop = since === '' ? this.lines.scrollHeight : 0;
    this.tell(answer);
    void this.more();
  }

  /** Asks for older lines near the top, and for newer ones near the end. */
  private async more(): Promise<void> {
    const list = this.lines;
    if (list.scrollTop < kNear && this.previous !== null) await this.older(this.previous);
    const below = list.scrollHeight - list.scrollTop - list.clientHeight;
    if (below < kNear && this.next !== null && list.children.length > 0) {
      await this.newer(this.next);
    }
  }

  private async older(before: string): Promise<void> {
    const answer = await this.ask({ before, last: kPage });
    if (answer === null) return;
    const fromEnd = this.lines.scrollHeight - this.lines.scrollTop;
    this.previous = answer.previous === before ? null : answer.previous;
    this.lines.prepend(...this.rows(answer.lines));
    this.lines.scrollTop = this.lines.scrollHeight - fromEnd;
    this.tell(answer);
    if (this.previous !== null && answer.lines.length > 0) void this.more();
  }

  private async newer(after: string): Promise<void> {
    const answer = await this.ask({ after, last: kPage });
    if (answer === null) return;
    this.next = answer.next === after || answer.lines.length === 0 ? null : answer.next;
    this.lines.append(...this.rows(answer.lines));
  }

  private async ask(query: Record<string, string | number>): Promise<HistoryAnswer | null> {
    if (this.busy) return null;
    this.busy = true;
    const turn = this.turn;
    try {
      const answer = await api.history(this.name, {
        ...query, grep: this.grep.value, ignore_case: this.grep.value !== '',
        users: this.users.checked,
      });
      return turn === this.turn ? answer : null;
    } catch (error) {
      if (turn === this.turn) this.say(errorText(error));
      return null;
    } finally {
      if (turn === this.turn) this.busy = false;
    }
  }

  private rows(lines: HistoryLine[]): HTMLElement[] {
    return lines.map((line) => lineRow(line, false, () => {}));
  }

  private tell(answer: HistoryAnswer): void {
    const count = this.lines.children.length;
    const begins = this.previous === null ? ' This is where it begins.' : '';
    const lacks = answer.complete ? [] : [answer.reason ?? 'Something is missing.'];
    this.say([`${count} lines.${begins}`, ...lacks, ...answer.remarks].join(' '));
  }

  private say(text: string): void {
    this.status.textContent = text;
  }
}
