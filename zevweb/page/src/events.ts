// The station's events: whatever happens but output. The browser reopens the stream after a broken
// line, but not after an answer that was no stream, as a proxy gives while the station restarts.

const kAgain = 5000;  // milliseconds

export class Events {
  private source: EventSource | null = null;
  private timer: number | undefined;

  constructor(private readonly happened: () => void) {}

  open(): void {
    const source = new EventSource('/api/events');
    for (const name of ['record', 'missed', 'problem']) {
      source.addEventListener(name, this.happened);
    }
    source.onerror = () => {
      if (source.readyState !== EventSource.CLOSED) return;
      this.timer = window.setTimeout(() => this.open(), kAgain);
    };
    this.source = source;
  }

  close(): void {
    window.clearTimeout(this.timer);
    this.source?.close();
    this.source = null;
  }
}
