// Audit: who did what, at which console, from where.

import { api, errorText } from './api.ts';
import { element, fill } from './dom.ts';
import { plain } from './lines.ts';
import { clock, typedTime } from './moments.ts';
import type { AuditAct } from './types.ts';
import type { View } from './view.ts';

const kColumns: readonly [string, (act: AuditAct) => string][] = [
  ['Time', (act) => clock(act.time)],
  ['Who', (act) => both(act.user, act.given_user)],
  ['From', (act) => both(act.from, act.given_from)],
  ['What', (act) => act.what ?? ''],
  ['Console', (act) => act.console ?? ''],
  ['Mode', (act) => act.mode ?? ''],
  ['Result', (act) => [act.result, act.reason].filter(Boolean).join(': ')],
];

/** What was proved, and in brackets what was given when that differs. */
function both(proved: string | null | undefined, given: string | null | undefined): string {
  if (!given || given === proved) return proved ?? '';
  return proved ? `${proved} (${given})` : `(${given})`;
}

export class AuditView implements View {
  readonly part = 'audit';
  readonly title = 'Audit';
  readonly node: HTMLElement;
  private readonly since = element('input', { 'aria-label': 'From', value: '7d', id: 'audit-since' });
  private readonly user = element('input', { 'aria-label': 'Who', placeholder: 'Who' });
  private readonly console = element('input', { 'aria-label': 'Console', placeholder: 'Console' });
  private readonly body = element('tbody');
  private readonly status = element('p', { class: 'status', role: 'status' });
  private readonly scroll: HTMLElement;
  private turn = 0;

  constructor() {
    const head = kColumns.map(([title]) => element('th', { scope: 'col' }, title));
    this.scroll = element('div', { class: 'scroll', tabindex: '0', role: 'region',
      'aria-label': 'Who did what' },
    element('table', {}, element('thead', {}, element('tr', {}, ...head)), this.body));
    this.node = element('section', { class: 'view', 'aria-label': this.title },
      element('form', { class: 'bar', onsubmit: (event) => {
        event.preventDefault();
        void this.ask();
      } },
      element('h2', {}, this.title), this.since, this.user, this.console,
      element('button', { type: 'submit' }, 'Show')),
      this.scroll, this.status);
    void this.ask();
  }

  focus(): void {
    this.scroll.focus();
  }

  close(): void {
    this.turn++;
  }

  private async ask(): Promise<void> {
    const since = typedTime(this.since.value, Date.now());
    if (since === null) {
      this.status.textContent = `"${this.since.value}" is no time. Write 2h, 7d or 2024-03-05.`;
      return;
    }
    const turn = ++this.turn;
    try {
      const answer = await api.audit({ since, user: this.user.value, console: this.console.value });
      if (turn !== this.turn) return;
      // The newest first: that is what is looked for.
      fill(this.body, ...[...answer.acts].reverse().map((act) =>
        element('tr', {}, ...kColumns.map(([, text]) => element('td', {}, plain(text(act)))))));
      const lacks = answer.complete ? '' : ` ${answer.reason ?? 'Something is missing.'}`;
      this.status.textContent = `${answer.acts.length} acts.${lacks}`;
    } catch (error) {
      if (turn === this.turn) this.status.textContent = errorText(error);
    }
  }
}
