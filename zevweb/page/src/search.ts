// Search over many consoles: matching lines of all of them, in the order of time.

import { api, errorText } from './api.ts';
import { button, element } from './dom.ts';
import { lineRow } from './lines.ts';
import { millis, typedTime } from './moments.ts';
import { go, routeText } from './route.ts';
import type { HistoryLine } from './types.ts';
import type { View } from './view.ts';

const kPage = 200;
const kBefore = 60000;  // milliseconds of a console's history shown before a line that was chosen

function field(name: string, label: string, hint: string, value: string): HTMLInputElement {
  return element('input', { name, id: `search-${name}`, 'aria-label': label, placeholder: hint,
    value, spellcheck: 'false' });
}

export class SearchView implements View {
  readonly part = 'search';
  readonly title = 'Search';
  readonly node: HTMLElement;
  private readonly text: HTMLInputElement;
  private readonly consoles: HTMLInputElement;
  private readonly since: HTMLInputElement;
  private readonly ignoreCase = element('input', { type: 'checkbox', checked: true });
  private readonly regular = element('input', { type: 'checkbox' });
  private readonly lines = element('ol', { class: 'lines', tabindex: '0', 'aria-label': 'Found' });
  private readonly status = element('p', { class: 'status', role: 'status' });
  private readonly older = button('Older', () => void this.ask(this.previous), { hidden: true });
  private previous: string | null = null;
  private turn = 0;

  constructor(query: Record<string, string>) {
    this.text = field('q', 'Text to look for', 'Text to look for', query['q'] ?? '');
    this.consoles = field('console', 'Consoles', 'Consoles: all, or web* db1', query['console'] ?? '');
    this.since = field('since', 'From', 'From: 2h, 03:10, 7d', query['since'] ?? '');
    this.node = element('section', { class: 'view', 'aria-label': this.title },
      element('form', { class: 'bar', role: 'search', onsubmit: (event) => {
        event.preventDefault();
        this.begin();
      } },
      this.text, this.consoles, this.since,
      element('label', {}, this.ignoreCase, 'upper or lower case'),
      element('label', {}, this.regular, 'regular expression'),
      element('button', { type: 'submit', class: 'main' }, 'Search'), this.older),
      this.lines, this.status);
    if (this.text.value !== '') void this.ask(null);
  }

  focus(): void {
    this.text.focus();
  }

  close(): void {
    this.turn++;
  }

  key(event: KeyboardEvent): boolean {
    if (event.key !== '/') return false;
    this.text.focus();
    return true;
  }

  private begin(): void {
    // The address can be kept and passed on, without becoming a step back of its own.
    history.replaceState(null, '', routeText('search', [], {
      q: this.text.value, console: this.consoles.value, since: this.since.value,
    }));
    this.lines.replaceChildren();
    void this.ask(null);
  }

  private async ask(before: string | null): Promise<void> {
    const since = typedTime(this.since.value, Date.now());
    if (since === null) {
      this.status.textContent = `"${this.since.value}" is no time. Write 90s, 2h, 7d or 03:10.`;
      return;
    }
    if (this.text.value === '') return;
    const turn = ++this.turn;
    this.status.textContent = 'Searching…';
    try {
      const answer = await api.search({
        q: this.text.value, ignore_case: this.ignoreCase.checked, plain: !this.regular.checked,
        console: this.consoles.value.split(/[\s,]+/), since, limit: kPage, before,
      });
      if (turn !== this.turn) return;
      this.previous = answer.previous;
      this.older.hidden = answer.previous === null || answer.lines.length === 0;
      this.lines.prepend(...answer.lines.map((line) =>
        lineRow(line, true, (chosen) => this.open(chosen))));
      if (before === null) this.lines.scrollTop = this.lines.scrollHeight;
      const lacks = answer.complete ? [] : [answer.reason ?? 'Something is missing.'];
      const count = this.lines.querySelectorAll('li').length;
      this.status.textContent = [`${count} lines found.`, ...lacks, ...answer.remarks].join(' ');
    } catch (error) {
      if (turn === this.turn) this.status.textContent = errorText(error);
    }
  }

  private open(line: HistoryLine): void {
    if (line.console === null) return;
    const at = millis(line.time);
    const since = Number.isNaN(at) ? '' : new Date(at - kBefore).toISOString();
    go('history', [line.console], { since });
  }
}
