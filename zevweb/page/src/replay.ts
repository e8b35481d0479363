// Replay: the screen of a console as it was, and how it became so.

import { api, errorText } from './api.ts';
import { button, element } from './dom.ts';
import { clock, millis, typedTime } from './moments.ts';
import { go } from './route.ts';
import { Screen } from './screen.ts';
import { fromBase64, fromWire, kSpeeds, otherSpeed, pause, type TapeRecord } from './tape.ts';
import { TimeBar } from './timebar.ts';
import type { View } from './view.ts';

const kSpan = 3600000;  // milliseconds that the bar shows unless told otherwise
const kLongest = 1000;  // milliseconds that the replay waits where nothing happened
const kPiece = 65536;  // bytes of output in one request
const kRows = 24;
const kColumns = 80;

export class ReplayView implements View {
  readonly part = 'consoles';
  readonly title: string;
  readonly node: HTMLElement;
  private readonly screen = new Screen(true);
  private readonly place = element('div', { class: 'screen' });
  private readonly bar = new TimeBar((time) => void this.seek(time));
  private readonly status = element('p', { class: 'status', role: 'status' });
  private readonly clock = element('output', { id: 'replay-time' });
  private readonly playButton = button('Play', () => this.toggle(), { class: 'main', id: 'play' });
  private readonly speed = element('select', { 'aria-label': 'Speed' },
    ...kSpeeds.map((one) => element('option', { value: String(one) }, `${one}×`)));
  private readonly at = element('input', { 'aria-label': 'Go to', placeholder: '2h, 03:10', id: 'at',
    size: '12' });
  private time = 0;
  private next: string | null = null;
  private records: TapeRecord[] = [];
  private complete = false;
  private playing = false;
  // A replay that is started while a screen is being read goes on once it has been drawn.
  private drawn: 'reading' | 'yes' | 'no' = 'reading';
  private timer: number | undefined;
  private turn = 0;

  constructor(private readonly name: string, query: Record<string, string>) {
    this.title = `Replay of ${name}`;
    this.speed.value = '1';
    this.node = element('section', { class: 'view', 'aria-label': this.title },
      element('form', { class: 'bar', onsubmit: (event) => {
        event.preventDefault();
        this.goToTyped();
      } },
      element('h2', {}, this.title), this.playButton, this.speed, this.clock, this.at,
      element('button', { type: 'submit' }, 'Go to'),
      button('Previous mark', () => this.toMark(-1)), button('Next mark', () => this.toMark(1)),
      button('History', () => go('history', [name], this.moment())),
      button('Console', () => go('consoles', [name]))),
      this.place, this.bar.node, this.status);
    queueMicrotask(() => void this.begin(millis(query['at'] ?? null)));
  }

  focus(): void {
    this.playButton.focus();
  }

  close(): void {
    this.turn++;
    this.stop();
    this.screen.close();
  }

  key(event: KeyboardEvent): boolean {
    const step = event.shiftKey ? 60000 : 1000;
    if (event.key === ' ' && !(event.target instanceof HTMLButtonElement)) this.toggle();
    else if (event.key === 'ArrowRight') void this.seek(this.time + step);
    else if (event.key === 'ArrowLeft') void this.seek(this.time - step);
    else if (event.key === '+' || event.key === '-') this.faster(event.key === '+' ? 1 : -1);
    else if (event.key === 'n' || event.key === 'p') this.toMark(event.key === 'n' ? 1 : -1);
    else if (event.key === 'h') go('history', [this.name], this.moment());
    else if (event.key === 'Escape') go('consoles', [this.name]);
    else return false;
    return true;
  }

  private moment(): Record<string, string> {
    return { since: new Date(this.time).toISOString() };
  }

  private async begin(at: number): Promise<void> {
    this.screen.open(this.place, `Screen of ${this.name} as it was`);
    this.screen.terminal.resize(kColumns, kRows);
    const now = Date.now();
    const time = Number.isNaN(at) ? now - kSpan / 6 : at;
    await this.mark(Math.min(time - kSpan / 2, now - kSpan), Math.min(time + kSpan / 2, now));
    await this.seek(time);
  }

  private async mark(begin: number, end: number): Promise<void> {
    this.bar.setRange(begin, end);
    const turn = this.turn;
    try {
      const answer = await api.marks(this.name, {
        since: new Date(begin).toISOString(), until: new Date(end).toISOString(),
      });
      if (turn !== this.turn) return;
      this.bar.fill(answer);
      this.say(`${answer.marks.length} marks, ${answer.visits.length} visits. `
        + (answer.complete ? '' : answer.reason ?? ''));
    } catch (error) {
      if (turn === this.turn) this.say(errorText(error));
    }
  }

  private async seek(time: number): Promise<void> {
    window.clearTimeout(this.timer);
    this.drawn = 'reading';
    const turn = ++this.turn;
    this.showTime(time);  // at once: the next key counts from there
    try {
      const screen = await api.screen(this.name, {
        at: new Date(time).toISOString(), rows: kRows, columns: kColumns,
      });
      if (turn !== this.turn) return;
      this.screen.terminal.reset();
      this.screen.write(fromBase64(screen.screen), 'past');
      this.next = screen.position;
      this.records = [];
      this.complete = false;
      this.drawn = 'yes';
      if (this.playing) void this.step();
    } catch (error) {
      if (turn !== this.turn) return;
      this.drawn = 'no';
      this.stop();
      this.say(errorText(error));
    }
  }

  private toggle(): void {
    if (this.playing) {
      this.stop();
    } else {
      this.playing = true;
      this.playButton.textContent = 'Pause';
      if (this.drawn === 'yes') void this.step();
      else if (this.drawn === 'no') void this.seek(this.time);
    }
  }

  private stop(): void {
    this.playing = false;
    window.clearTimeout(this.timer);
    this.playButton.textContent = 'Play';
  }

  /** Shows the next record when its time has come. */
  private async step(): Promise<void> {
    const turn = this.turn;
    if (this.records.length === 0 && !(await this.more())) {
      if (turn === this.turn) this.stop();
      return;
    }
    const record = this.records[0];
    if (turn !== this.turn || !this.playing || record === undefined) return;
    const wait = pause(this.time, record.time, Number(this.speed.value), kLongest);
    this.timer = window.setTimeout(() => {
      this.records.shift();
      this.show(record);
      void this.step();
    }, wait);
  }

  private async more(): Promise<boolean> {
    if (this.next === null || this.complete) {
      this.say('This is the end.');
      return false;
    }
    const turn = this.turn;
    try {
      const answer = await api.records(this.name, { from: this.next, bytes: kPiece });
      if (turn !== this.turn) return false;
      this.records = answer.records.map(fromWire);
      this.next = answer.next;
      this.complete = answer.complete;
      if (this.records.length === 0) return !this.complete && this.more();
      return true;
    } catch (error) {
      if (turn === this.turn) this.say(errorText(error));
      return false;
    }
  }

  private show(record: TapeRecord): void {
    if (record.bytes !== null) this.screen.write(record.bytes, 'past');
    else this.say(`${clock(record.time)} ${record.kind}: ${record.text}`);
    this.showTime(record.time);
  }

  private showTime(time: number): void {
    this.time = time;
    this.clock.textContent = clock(time);
    this.bar.show(time);
  }

  private faster(step: number): void {
    this.speed.value = String(otherSpeed(Number(this.speed.value), step));
  }

  private toMark(step: number): void {
    const mark = this.bar.neighbour(this.time, step);
    if (mark === null) {
      this.say('There is no mark further on.');
      return;
    }
    this.say(`${mark.kind}: ${mark.text}`);
    void this.seek(millis(mark.time));
  }

  private goToTyped(): void {
    const time = typedTime(this.at.value, Date.now());
    if (time === null || time === '') {
      this.say(`"${this.at.value}" is no time. Write 90s, 2h, 03:10 or 2024-03-05 03:10.`);
      return;
    }
    void this.mark(millis(time) - kSpan / 2, Math.min(millis(time) + kSpan / 2, Date.now()))
      .then(() => this.seek(millis(time)));
  }

  private say(text: string): void {
    this.status.textContent = text;
  }
}
