// A terminal that shows what a console prints. Nothing else of the page shows a console's bytes but
// as plain text.

import { FitAddon } from '@xterm/addon-fit';
import { SearchAddon } from '@xterm/addon-search';
import { Terminal } from '@xterm/xterm';
import { settings } from './theme.ts';

const kScrollback = 20000;  // lines

/**
 * Where output comes from: answers that a terminal gives to live output, such as where its cursor
 * is, belong to the console; answers to what was printed earlier would be typed at whoever is there
 * now.
 */
export type Source = 'live' | 'past';

export class Screen {
  readonly terminal: Terminal;
  private readonly fit = new FitAddon();
  private readonly search = new SearchAddon();
  private readonly sources: Source[] = [];
  private readonly watch: ResizeObserver;
  private readonly forget: () => void;
  private readonly fixed: boolean;

  /** `fixed`: the size is the one that `resize` says, not that of the place. */
  constructor(fixed = false) {
    this.fixed = fixed;
    this.terminal = new Terminal({
      scrollback: kScrollback,
      fontFamily: 'ui-monospace, "DejaVu Sans Mono", "Liberation Mono", monospace',
      fontSize: 14,
      minimumContrastRatio: 4.5,
      allowProposedApi: true,
      disableStdin: true,
      // A console's links lead nowhere: the page makes no request to anywhere else.
      linkHandler: { activate: () => {} },
      theme: settings.screenTheme(),
      screenReaderMode: settings.screenReader(),
    });
    this.terminal.loadAddon(this.fit);
    this.terminal.loadAddon(this.search);
    this.keepAnswersBack();
    this.watch = new ResizeObserver(() => this.fitNow());
    this.forget = settings.onChange(() => {
      this.terminal.options.theme = settings.screenTheme();
      this.terminal.options.screenReaderMode = settings.screenReader();
    });
  }

  open(place: HTMLElement, label: string): void {
    this.terminal.open(place);
    this.terminal.textarea?.setAttribute('aria-label', label);
    this.watch.observe(place);
    this.fitNow();
  }

  write(bytes: Uint8Array | string, source: Source): void {
    this.sources.push(source);
    this.terminal.write(bytes, () => this.sources.shift());
  }

  /** A line of the page's own, told apart from the console's. */
  note(text: string): void {
    const plain = text.replace(/[\u0000-\u001f\u007f-\u009f]/g, '?');
    this.write(`\r\n\u001b[0;7m[${plain}]\u001b[0m\r\n`, 'past');
  }

  /** Finds text upwards or downwards; false if there is none. */
  find(text: string, upwards: boolean): boolean {
    return upwards ? this.search.findPrevious(text) : this.search.findNext(text);
  }

  clearFound(): void {
    this.search.clearDecorations();
    this.terminal.clearSelection();
  }

  close(): void {
    this.forget();
    this.watch.disconnect();
    this.terminal.dispose();
  }

  private fitNow(): void {
    if (!this.fixed && (this.terminal.element?.offsetWidth ?? 0) > 0) this.fit.fit();
  }

  private keepAnswersBack(): void {
    const isPast = () => this.sources[0] === 'past';
    const parser = this.terminal.parser;
    for (const id of [
      { final: 'c' }, { prefix: '>', final: 'c' }, { prefix: '=', final: 'c' },
      { final: 'n' }, { prefix: '?', final: 'n' }, { final: 't' }, { prefix: '>', final: 'q' },
      { intermediates: '$', final: 'p' }, { prefix: '?', intermediates: '$', final: 'p' },
    ]) {
      parser.registerCsiHandler(id, isPast);
    }
    parser.registerDcsHandler({ intermediates: '$', final: 'q' }, isPast);
    for (const color of [4, 10, 11, 12]) parser.registerOscHandler(color, isPast);
  }
}
