// The bar of a replay: where it is, what happened when, and who was there.

import { element } from './dom.ts';
import { plain } from './lines.ts';
import { clock, millis } from './moments.ts';
import type { Mark, MarksAnswer, Visit } from './types.ts';

const kSteps = 1000;
const kMostMarks = 400;  // more could not be told apart

export class TimeBar {
  readonly node: HTMLElement;
  private readonly slider: HTMLInputElement;
  private readonly track = element('div', { class: 'track' });
  private begin = 0;
  private end = 1;
  private marks: Mark[] = [];
  private isHeld = false;

  constructor(private readonly seek: (time: number) => void) {
    this.slider = element('input', {
      type: 'range', min: '0', max: String(kSteps), step: '1', 'aria-label': 'Time', id: 'time',
      oninput: () => {
        this.isHeld = true;
        this.tell(this.chosen());
      },
      onchange: () => {
        this.isHeld = false;
        this.seek(this.chosen());
      },
    });
    this.node = element('div', { class: 'timebar' }, this.track, this.slider);
  }

  setRange(begin: number, end: number): void {
    this.begin = begin;
    this.end = Math.max(end, begin + 1);
  }

  show(time: number): void {
    if (this.isHeld) return;
    this.slider.value = String(Math.round(this.part(time) * kSteps));
    this.tell(time);
  }

  /** Marks and visits become buttons and bars; a click goes to where they are. */
  fill(answer: MarksAnswer): void {
    this.marks = answer.marks;
    const some = this.marks.slice(-kMostMarks);
    this.track.replaceChildren(...answer.visits.map((visit) => this.visit(visit)),
      ...some.map((mark) => this.mark(mark)));
  }

  /** The next mark behind (step 1) or before (-1) that time; null without one. */
  neighbour(time: number, step: number): Mark | null {
    const near = 50;  // milliseconds: the mark where the replay is already
    const those = this.marks.filter((mark) => (millis(mark.time) - time) * step > near);
    return (step > 0 ? those[0] : those[those.length - 1]) ?? null;
  }

  private chosen(): number {
    return this.begin + (this.end - this.begin) * Number(this.slider.value) / kSteps;
  }

  private part(time: number): number {
    return Math.max(0, Math.min(1, (time - this.begin) / (this.end - this.begin)));
  }

  private tell(time: number): void {
    this.slider.setAttribute('aria-valuetext', clock(time));
  }

  private mark(mark: Mark): HTMLElement {
    const label = `${clock(mark.time)} ${mark.kind}: ${plain(mark.text)}`;
    // Not in the order of Tab: n and p go from mark to mark.
    const made = element('button', { type: 'button', tabindex: '-1', class: mark.kind,
      title: label, 'aria-label': label, onclick: () => this.seek(millis(mark.time)) });
    made.style.left = `${this.part(millis(mark.time)) * 100}%`;
    return made;
  }

  private visit(visit: Visit): HTMLElement {
    const begin = this.part(millis(visit.begin));
    const end = visit.end === null ? 1 : this.part(millis(visit.end));
    const text = `${visit.user}, ${visit.mode ?? ''}: ${clock(visit.begin)} to `
      + `${visit.end === null ? 'now' : clock(visit.end)}`;
    const made = element('div', { class: 'visit', title: plain(text), role: 'img',
      'aria-label': plain(text) });
    made.style.left = `${begin * 100}%`;
    made.style.width = `${(end - begin) * 100}%`;
    return made;
  }
}
