// The frames of a console's stream; docs/web.md describes them.

export type OutputKind = 1 | 2 | 3;  // live from the journal, past, of the attachment

export interface OutputFrame {
  kind: OutputKind;
  position: string;  // "" in kind 3
  bytes: Uint8Array;
}

export type StreamMessage =
  | { what: 'start'; console: string; journal: boolean; problem: string | null }
  | { what: 'live' }
  | { what: 'record'; kind: string; time: string; position: string; text: string }
  | { what: 'missed'; bytes: number; position: string }
  | { what: 'damage'; text: string }
  | { what: 'attaching'; mode: number }
  | { what: 'attached'; mode: number; position: string | null }
  | { what: 'refused'; number: number | null; text: string; advice?: string }
  | { what: 'left'; reason: string | null }
  | { what: 'not-sent'; bytes: number; text: string }
  | { what: 'problem'; text: string };

const kTimeBytes = 8;

/** Null for what is no output frame. */
export function parseOutput(frame: ArrayBuffer): OutputFrame | null {
  const bytes = new Uint8Array(frame);
  const [kind, length] = bytes;
  if (kind !== 1 && kind !== 2 && kind !== 3 || length === undefined) return null;
  const begin = 2 + length + kTimeBytes;
  if (bytes.length <= begin) return null;
  const position = new TextDecoder().decode(bytes.subarray(2, 2 + length));
  return { kind, position, bytes: bytes.subarray(begin) };
}

/** Null for what is no message of the stream; one of an unknown kind is for the caller to pass over. */
export function parseMessage(frame: string): StreamMessage | null {
  try {
    const message: unknown = JSON.parse(frame);
    if (typeof message !== 'object' || message === null) return null;
    return 'what' in message && typeof message.what === 'string' ? message as StreamMessage : null;
  } catch {
    return null;
  }
}

/** Whether one position is behind another; positions of different stations cannot be compared. */
export function isBehind(one: string, other: string): boolean {
  const [station, segment = '', offset = ''] = one.split(':');
  const [otherStation, otherSegment = '', otherOffset = ''] = other.split(':');
  if (station !== otherStation) return true;
  const bySegment = BigInt(segment || 0) - BigInt(otherSegment || 0);
  return bySegment !== 0n ? bySegment > 0n : BigInt(offset || 0) > BigInt(otherOffset || 0);
}

/**
 * Where a stream goes on after its line broke: behind the last output that has a position, and so
 * many bytes further as came without one.
 */
export class Place {
  private position: string | null = null;
  private skip = 0;

  shown(frame: OutputFrame): void {
    if (frame.kind === 3) {
      this.skip += frame.bytes.length;
    } else {
      this.position = frame.position;
      this.skip = 0;
    }
  }

  attached(position: string | null): void {
    if (position === null) return;
    this.position = position;
    this.skip = 0;
  }

  missed(position: string): void {
    this.position = position;
    this.skip = 0;
  }

  /** The query of the next connection; null: from the beginning. */
  query(): Record<string, string> | null {
    if (this.position === null) return null;
    const from: Record<string, string> = { from: this.position };
    return this.skip === 0 ? from : { ...from, skip: String(this.skip) };
  }
}
