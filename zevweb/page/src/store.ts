// All consoles as the station last told them: asked again every few seconds, and at once when it
// tells that something has happened.

import { api, ApiError, errorText } from './api.ts';
import { Events } from './events.ts';
import type { ConsoleInfo, ConsoleList } from './types.ts';

const kPause = 3000;  // milliseconds; with many consoles longer, since each answer tells all
const kPausePerConsole = 1;
const kGather = 250;  // events of one moment are one request

export class Store {
  list: ConsoleList | null = null;
  problem: string | null = null;
  private readonly listeners = new Set<() => void>();
  private timer: number | undefined;
  private readonly events = new Events(() => this.askSoon(kGather));
  private asking = false;
  private wanted = false;
  private stopped = true;

  start(): void {
    if (!this.stopped) return;
    this.stopped = false;
    this.events.open();
    document.addEventListener('visibilitychange', this.whenVisible);
    void this.ask();
  }

  stop(): void {
    this.stopped = true;
    this.events.close();
    document.removeEventListener('visibilitychange', this.whenVisible);
    window.clearTimeout(this.timer);
    this.list = null;
    this.problem = null;
  }

  /** Calls the listener at each change until the function that it returns is called. */
  onChange(listener: () => void): () => void {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }

  find(name: string): ConsoleInfo | undefined {
    return this.list?.consoles.find((console) => console.name === name);
  }

  /** The station's time; ages count from it, so a browser's wrong clock shows no wrong ages. */
  now(): number {
    return this.list === null ? Date.now() : Date.parse(this.list.time);
  }

  refresh(): void {
    this.askSoon(0);
  }

  private readonly whenVisible = () => {
    if (!document.hidden) this.askSoon(0);
  };

  private askSoon(after: number): void {
    if (this.stopped) return;
    this.wanted = this.asking;
    window.clearTimeout(this.timer);
    if (!this.asking) this.timer = window.setTimeout(() => void this.ask(), after);
  }

  private async ask(): Promise<void> {
    this.asking = true;
    try {
      this.list = await api.consoles();
      this.problem = null;
    } catch (error) {
      if (!(error instanceof ApiError && error.status === 401)) this.problem = errorText(error);
    }
    this.asking = false;
    if (this.stopped) return;
    for (const listener of this.listeners) listener();
    const wanted = this.wanted;
    this.wanted = false;
    if (wanted) this.askSoon(kGather);
    else if (!document.hidden) {
      this.askSoon(kPause + kPausePerConsole * (this.list?.consoles.length ?? 0));
    }
  }
}

export const store = new Store();
