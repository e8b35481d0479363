// Records of the journal as a replay plays them: what comes next, and how long to wait for it.

export interface TapeRecord {
  time: number;  // milliseconds since 1970
  position: string;
  next: string;
  kind: string;
  bytes: Uint8Array | null;  // output
  text: string;  // anything else
}

export interface WireRecord {
  time: string;
  position: string;
  next: string;
  kind: string;
  data?: string;
  text?: string;
}

export function fromBase64(text: string): Uint8Array {
  return Uint8Array.from(atob(text), (one) => one.charCodeAt(0));
}

/** Milliseconds, with what the journal has of smaller parts. */
export function exactMillis(time: string): number {
  const parts = /^(.*?)(\.\d+)?(Z|[+-]\d\d:\d\d)$/.exec(time);
  if (parts === null) return NaN;
  return Date.parse(`${parts[1]}${parts[3]}`) + Number(parts[2] ?? 0) * 1000;
}

export function fromWire(record: WireRecord): TapeRecord {
  return {
    time: exactMillis(record.time), position: record.position, next: record.next,
    kind: record.kind, text: record.text ?? '',
    bytes: record.data === undefined ? null : fromBase64(record.data),
  };
}

/**
 * How long to wait between two records. A pause in which nothing happened is cut; the clock may have
 * been set back in between.
 */
export function pause(from: number, to: number, speed: number, longest: number): number {
  const passed = (to - from) / speed;
  return Number.isNaN(passed) ? 0 : Math.min(Math.max(0, passed), longest);
}

export const kSpeeds: readonly number[] = [0.5, 1, 2, 4, 8, 16, 64];

/** The next quicker (step 1) or slower (-1) speed. */
export function otherSpeed(speed: number, step: number): number {
  const at = kSpeeds.indexOf(speed) + step;
  return kSpeeds[Math.max(0, Math.min(at, kSpeeds.length - 1))] ?? 1;
}
