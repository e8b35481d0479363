// The fleet as the station's map has it, asked again every few seconds while somebody looks.

import { api, ApiError, errorText } from './api.ts';
import type { Fleet } from './types.ts';

const kPause = 5000;  // milliseconds; with very many consoles longer, since each answer has all
const kPausePerConsole = 0.2;
const kPauseAlone = 60000;  // a station in no fleet seldom gets into one

export class FleetStore {
  fleet: Fleet | null = null;
  problem: string | null = null;  // why what is shown may be old
  private isAnswered = false;
  private isBroken = false;  // the station has a map that it cannot read
  private readonly listeners = new Set<() => void>();
  private timer: number | undefined;
  private turn = 0;

  /** Whether the station is in a fleet, as far as is known. */
  get exists(): boolean {
    return this.isAnswered ? this.fleet !== null : this.isBroken;
  }

  start(): void {
    this.stop();
    document.addEventListener('visibilitychange', this.whenVisible);
    void this.ask();
  }

  stop(): void {
    this.turn++;
    window.clearTimeout(this.timer);
    document.removeEventListener('visibilitychange', this.whenVisible);
    this.fleet = null;
    this.problem = null;
    this.isAnswered = false;
    this.isBroken = false;
  }

  /** Calls the listener at each answer until the function that it returns is called. */
  onChange(listener: () => void): () => void {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }

  private readonly whenVisible = () => {
    if (!document.hidden) void this.ask();
  };

  private async ask(): Promise<void> {
    window.clearTimeout(this.timer);
    const turn = ++this.turn;
    let problem: unknown = null;
    let fleet = this.fleet;
    try {
      fleet = (await api.fleet()).fleet;
    } catch (error) {
      problem = error;
    }
    if (turn !== this.turn) return;
    this.take(fleet, problem);
    for (const listener of this.listeners) listener();
    if (!document.hidden) this.timer = window.setTimeout(() => void this.ask(), this.pause());
  }

  private take(fleet: Fleet | null, problem: unknown): void {
    this.fleet = fleet;
    this.problem = problem === null ? null : errorText(problem);
    this.isAnswered ||= problem === null;
    this.isBroken = problem instanceof ApiError && problem.status === 503;
  }

  private pause(): number {
    if (this.fleet === null && this.problem === null) return kPauseAlone;
    return Math.max(kPause, kPausePerConsole * (this.fleet?.consoles.length ?? 0));
  }
}

export const fleetStore = new FleetStore();
