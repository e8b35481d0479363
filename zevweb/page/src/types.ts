// What the station's JSON interface answers; zevweb/openapi.json describes it.

import type { WireRecord } from './tape.ts';

export type ConsoleState =
  | 'connected' | 'in-use' | 'not-connected' | 'refused' | 'connecting' | 'disabled' | 'unknown';

export interface ConsoleUser {
  name: string;
  address: string | null;
  mode: string;
  since: string | null;
}

export interface ConsoleInfo {
  name: string;
  address: string;
  port: number;
  state: ConsoleState;
  since: string | null;
  last_output: string | null;
  problem: string | null;
  users: ConsoleUser[];
}

export interface JournalInfo {
  state: 'on' | 'off' | 'stopped' | null;
  readable: boolean;
  problem: string | null;
  end: string | null;
}

export interface ConsoleList {
  time: string;
  daemon: { answers: boolean; problem: string | null };
  journal: JournalInfo;
  consoles: ConsoleInfo[];
}

/** A line that was printed, or what happened between the lines. */
export interface HistoryLine {
  time: string | null;
  console: string | null;
  kind: string;
  text: string;
  position: string | null;
  match?: boolean;
}

export interface HistoryAnswer {
  lines: HistoryLine[];
  previous: string | null;
  next: string | null;
  complete: boolean;
  reason: string | null;
  remarks: string[];
}

export interface Mark {
  time: string;
  position: string | null;
  kind: string;
  text: string;
}

export interface Visit {
  user: string;
  from: string | null;
  mode: string | null;
  begin: string;
  end: string | null;
}

export interface MarksAnswer {
  marks: Mark[];
  visits: Visit[];
  begins: string | null;
  ends: string | null;
  complete: boolean;
  reason: string | null;
}

export interface AuditAct {
  time: string | null;
  what: string | null;
  result?: string | null;
  user?: string | null;
  given_user?: string | null;
  from?: string | null;
  given_from?: string | null;
  console?: string | null;
  mode?: string | null;
  reason?: string | null;
}

export interface AuditAnswer {
  acts: AuditAct[];
  begins: string | null;
  complete: boolean;
  reason: string | null;
}

export interface FleetStation {
  name: string;
  address: string;
  web: string | null;
  alive: boolean;
  ready: boolean;
  version: string;
}

export interface FleetConsole {
  name: string;
  station: string | null;
  stations: string[];
}

export interface Fleet {
  site: string;
  station: string;
  as_of: string | null;
  stale: boolean;
  connected: boolean;
  problem: string | null;
  stations: FleetStation[];
  consoles: FleetConsole[];
}

export interface FleetAnswer {
  fleet: Fleet | null;
}

export interface SessionInfo {
  name: string;
  address: string;
  version: string;
  journal: boolean;
}

/** The screen as it was: bytes that draw it on an empty terminal of that size, in base64. */
export interface ReplayScreen {
  time: string;
  position: string;
  rows: number;
  columns: number;
  screen: string;
}

export interface ReplayRecords {
  records: WireRecord[];
  next: string;
  complete: boolean;
}
