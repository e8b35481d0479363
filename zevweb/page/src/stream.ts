// The connection to one console. It comes back by itself, without a lost or a doubled byte, and
// attaches again in the mode that the person had.

import { api, consolePath, queryText, socketAddress } from './api.ts';
import { isBehind, parseMessage, parseOutput, Place, type StreamMessage } from './frames.ts';
import type { ModeNumber } from './modes.ts';
import type { Source } from './screen.ts';

/** What becomes of what comes. */
export interface StreamUser {
  output(bytes: Uint8Array, source: Source): void;
  /** Something that stands between the output. */
  note(text: string): void;
  /** What was shown comes again, or was of something else: it goes. */
  reset(): void;
  mode(mode: ModeNumber, text: string): void;
  refused(number: number | null, text: string): void;
  line(text: string, isBad: boolean): void;
  /** The console's state or users have changed. */
  changed(): void;
}

const kLast = '1000';  // lines before the end, at the beginning
const kPauses = [300, 1000, 2000, 5000];  // milliseconds before each try to connect again
const kMostTyped = 8192;  // bytes in a frame

// Records that are told between the lines; others change what is shown around the terminal.
const kTold = new Set(['connected', 'lost', 'disabled', 'enabled', 'message', 'break', 'paused',
  'not-logged', 'gap', 'clock-step', 'started', 'stopped', 'torn', 'console-gone']);

export class ConsoleStream {
  private socket: WebSocket | null = null;
  private place = new Place();
  private lastRecord: string | null = null;
  private mode: ModeNumber = 0;
  private again: ModeNumber = 0;  // the mode to ask for when the line stands again
  private tries = 0;
  private timer: number | undefined;
  private closed = false;

  constructor(private readonly name: string, private readonly user: StreamUser) {}

  open(): void {
    const query = this.place.query();
    if (query === null) this.user.reset();
    const path = consolePath(this.name, 'stream') + queryText(query ?? { last: kLast });
    const socket = new WebSocket(socketAddress(path));
    socket.binaryType = 'arraybuffer';
    socket.onmessage = (event: MessageEvent<string | ArrayBuffer>) => this.take(event.data);
    socket.onclose = () => this.whenClosed();
    this.socket = socket;
  }

  close(): void {
    this.closed = true;
    window.clearTimeout(this.timer);
    if (this.socket !== null) {
      this.socket.onclose = null;
      this.socket.onmessage = null;
      this.socket.close();
    }
  }

  /** Asks for the mode; while the line is broken, as soon as it stands again. */
  attach(mode: ModeNumber, take: boolean): void {
    const sent = mode === 0 ? this.tell({ what: 'leave' })
      : this.tell({ what: 'attach', mode, take });
    if (sent) return;
    if (!take) this.again = mode;
    this.user.line(take ? 'Not connected: nothing was taken over.'
      : 'Not connected yet. The console is asked for as soon as the line stands.', true);
  }

  sendBreak(): void {
    if (!this.tell({ what: 'break' })) this.user.line('Not connected: no break was sent.', true);
  }

  /** False if it cannot be sent now. */
  send(bytes: Uint8Array): boolean {
    if (this.socket?.readyState !== WebSocket.OPEN || this.mode < 2) return false;
    for (let begin = 0; begin < bytes.length; begin += kMostTyped) {
      this.socket.send(bytes.slice(begin, begin + kMostTyped));
    }
    return true;
  }

  private tell(message: object): boolean {
    if (this.socket?.readyState !== WebSocket.OPEN) return false;
    this.socket.send(JSON.stringify(message));
    return true;
  }

  private take(data: string | ArrayBuffer): void {
    if (typeof data === 'string') {
      const message = parseMessage(data);
      if (message !== null) this.takeMessage(message);
      return;
    }
    const frame = parseOutput(data);
    if (frame === null) return;
    this.place.shown(frame);
    this.user.output(frame.bytes, frame.kind === 2 ? 'past' : 'live');
  }

  private takeMessage(message: StreamMessage): void {
    switch (message.what) {
      case 'start': this.takeStart(message.journal, message.problem); break;
      case 'record': this.takeRecord(message.kind, message.position, message.text); break;
      case 'missed':
        this.place.missed(message.position);
        this.user.note(`${message.bytes} bytes were not shown; the history has them`);
        break;
      case 'damage': this.user.note(message.text); break;
      case 'attaching': this.user.line('Asking for the console…', false); break;
      case 'attached':
        this.place.attached(message.position);
        this.enter(message.mode as ModeNumber, '');
        break;
      case 'refused':
        this.again = this.mode;
        this.user.mode(this.mode, '');
        this.user.refused(message.number,
          message.number === null ? `${message.text} ${message.advice ?? ''}` : message.text);
        break;
      case 'left': this.enter(0, message.reason === null ? '' : `You left: ${message.reason}`); break;
      case 'not-sent': this.user.line(`${message.bytes} bytes were not sent. ${message.text}`, true);
        break;
      case 'problem': this.user.line(message.text, true); break;
      case 'live': break;
    }
  }

  private takeStart(journal: boolean, problem: string | null): void {
    this.tries = 0;
    if (this.again > 0 && this.mode === 0) this.attach(this.again, false);
    if (journal) {
      if (this.mode === 0) this.user.mode(0, '');
      return;
    }
    this.user.line(`Nothing earlier can be shown. ${problem ?? ''}`, true);
    if (this.again === 0 && this.mode === 0) this.attach(1, false);
  }

  private takeRecord(kind: string, position: string, text: string): void {
    if (this.lastRecord !== null && !isBehind(position, this.lastRecord)) return;
    this.lastRecord = position;
    if (kTold.has(kind) && this.mode === 0) this.user.note(text);
    this.user.changed();
  }

  private enter(mode: ModeNumber, text: string): void {
    this.mode = mode;
    this.again = mode;
    this.user.mode(mode, text);
    this.user.changed();
  }

  private whenClosed(): void {
    if (this.closed) return;
    const again = this.mode > 0 ? this.mode : this.again;
    this.mode = 0;
    this.again = again;
    this.user.mode(0, '');
    this.user.line('The line to the station is broken. It is tried again.', true);
    const pause = kPauses[Math.min(this.tries++, kPauses.length - 1)];
    this.timer = window.setTimeout(() => this.open(), pause);
    // A session that has ended looks like a broken line here; this request tells the difference.
    api.session().catch(() => {});
  }
}
