// Pasting: the text goes in pieces, slowly enough for a console that has no flow control.

/** How much is sent at once, and how long the page waits after it. */
export interface Pace {
  bytes: number;
  pause: number;  // milliseconds
}

export const kPaces: readonly { label: string; pace: Pace }[] = [
  { label: 'Careful: line by line, 100 ms after each', pace: { bytes: 0, pause: 100 } },
  { label: 'Slow line: 16 bytes, 20 ms after them', pace: { bytes: 16, pause: 20 } },
  { label: 'Quick: 1024 bytes, 10 ms after them', pace: { bytes: 1024, pause: 10 } },
];

/** What goes to the console: line ends become the carriage return of the Enter key. */
export function asTyped(text: string): string {
  return text.replace(/\r\n|\n/g, '\r');
}

/** The pieces in which bytes are sent: lines, or so many bytes. No line is longer than 1024. */
export function* pieces(bytes: Uint8Array, pace: Pace): Generator<Uint8Array> {
  const most = pace.bytes > 0 ? pace.bytes : 1024;
  for (let begin = 0; begin < bytes.length;) {
    let end = Math.min(begin + most, bytes.length);
    if (pace.bytes === 0) {
      const lineEnd = bytes.indexOf(13, begin);
      if (lineEnd >= 0) end = Math.min(end, lineEnd + 1);
    }
    yield bytes.subarray(begin, end);
    begin = end;
  }
}

/** The text as the look before pasting shows it: control characters as ^A to ^_ and ^?. */
export function visible(text: string): string {
  return text.replace(/\r\n/g, '\n')
    .replace(/[\u0000-\u0009\u000b-\u001f]/g, (control) =>
      `^${String.fromCharCode(control.charCodeAt(0) + 0x40)}`)
    .replace(/\u007f/g, '^?')
    .replace(/[\u0080-\u009f\u200b-\u200f\u202a-\u202e\u2066-\u2069\ufeff]/g, '\ufffd');
}

/** "3 lines, 120 bytes", and what is odd about it. */
export function summary(text: string): string {
  const bytes = new TextEncoder().encode(text).length;
  const lines = text.split(/\r\n|\r|\n/).length;
  const controls = /[\u0000-\u0008\u000b\u000c\u000e-\u001f\u007f-\u009f]/.test(text);
  const hidden = /[\u200b-\u200f\u202a-\u202e\u2066-\u2069\ufeff]/.test(text);
  const odd = controls || hidden ? '. It has control or invisible characters' : '';
  return `${lines} ${lines === 1 ? 'line' : 'lines'}, ${bytes} bytes${odd}.`;
}
