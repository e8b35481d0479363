// One console: its terminal, what can be done with it, and how it is had.

import { button, element, fill } from './dom.ts';
import { commands } from './commands.ts';
import { confirm, tell } from './dialog.ts';
import { isLeader } from './keys.ts';
import { kModes, modeOf, types, type ModeNumber } from './modes.ts';
import { age } from './moments.ts';
import { askToPaste, PasteRun } from './paste_dialog.ts';
import { canTakeOver, refusalInWords } from './refusals.ts';
import { go } from './route.ts';
import { Screen } from './screen.ts';
import { store } from './store.ts';
import { ConsoleStream } from './stream.ts';

/** What a pane asks of the view around it. */
export interface PaneHost {
  closePane(pane: Pane): void;
  nextPane(pane: Pane): void;
  help(): void;
}

export class Pane {
  readonly node: HTMLElement;
  private readonly screen = new Screen();
  private readonly stream: ConsoleStream;
  private readonly place = element('div', { class: 'screen' });
  private readonly state = element('span', { class: 'state' });
  private readonly status = element('p', { class: 'status', role: 'status' });
  private readonly modes: HTMLSelectElement;
  private readonly takeButton = button('Take over', () => void this.takeOver());
  private readonly find = element('input', {
    type: 'search', 'aria-label': 'Find in what is shown', hidden: true,
    placeholder: 'Find: Enter upwards, Shift+Enter downwards',
    onkeydown: (event) => this.findKey(event as KeyboardEvent),
  });
  private readonly keyBar: HTMLElement;
  private readonly forget: () => void;
  private mode: ModeNumber = 0;
  private wanted: ModeNumber = 0;
  private afterLeader = false;
  private control = false;  // the key bar's Ctrl counts for the next key
  private pasting: PasteRun | null = null;

  constructor(readonly name: string, private readonly host: PaneHost) {
    this.modes = element('select', { 'aria-label': `How you have ${name}`, onchange: () =>
      void this.attach(Number(this.modes.value) as ModeNumber) },
    ...kModes.map((mode) =>
      element('option', { value: String(mode.number), title: mode.tells }, mode.label)));
    this.keyBar = this.makeKeyBar();
    this.node = element('section', { class: 'pane', 'aria-label': `Console ${name}`,
      'data-console': name },
    element('div', { class: 'bar', role: 'toolbar', 'aria-label': `Tools of ${name}` },
      element('h2', {}, name), this.state, this.modes, this.takeButton, ...this.makeButtons()),
    this.find, this.place, this.keyBar, this.status);
    // What is typed at the console must not be a command of the page as well.
    this.place.addEventListener('keydown', (event) => {
      if (types(this.mode)) event.stopPropagation();
    });
    this.place.addEventListener('paste', (event) => this.paste(event), true);
    this.stream = new ConsoleStream(name, {
      output: (bytes, source) => this.screen.write(bytes, source),
      note: (text) => this.screen.note(text),
      reset: () => this.screen.terminal.reset(),
      mode: (mode, text) => this.showMode(mode, text),
      refused: (number, text) => this.showRefusal(number, text),
      line: (text, isBad) => this.say(text, isBad),
      changed: () => store.refresh(),
    });
    this.forget = store.onChange(() => this.showState());
  }

  /** To be called once the pane is in the page: a terminal measures its place. */
  begin(): void {
    const terminal = this.screen.terminal;
    this.screen.open(this.place, `Terminal of ${this.name}`);
    terminal.attachCustomKeyEventHandler((event) => this.key(event));
    terminal.onData((data) => this.typed(new TextEncoder().encode(data)));
    terminal.onBinary((data) => this.typed(Uint8Array.from(data, (one) => one.charCodeAt(0))));
    this.showState();
    this.showMode(0, '');
    this.stream.open();
  }

  focus(): void {
    this.screen.terminal.focus();
  }

  close(): void {
    this.forget();
    this.pasting?.stop();
    this.stream.close();
    this.screen.close();
  }

  /** A key of the page's, typed anywhere in the pane but in a field. */
  command(key: string): boolean {
    const number = '01234'.indexOf(key);
    if (number >= 0 && key !== '') void this.attach(number as ModeNumber);
    else if (key === 'l') void this.takeOver();
    else if (key === 'b') void this.sendBreak();
    else if (key === 'p') void this.pasteFromClipboard();
    else if (key === 'w') void this.who();
    else if (key === '/') this.showFind();
    else if (key === 'h') go('history', [this.name]);
    else if (key === 'r') go('replay', [this.name]);
    else if (key === 'c') void commands(this.name);
    else if (key === 'o') this.host.nextPane(this);
    else if (key === '.') this.host.closePane(this);
    else if (key === '?') this.host.help();
    else return this.scroll(key);
    return true;
  }

  /** The terminal's own keys for it go to the console while somebody types. */
  private scroll(key: string): boolean {
    const terminal = this.screen.terminal;
    const isAtTop = terminal.buffer.active.viewportY === 0;
    if (key === 'PageUp' && isAtTop) go('history', [this.name]);
    else if (key === 'PageUp') terminal.scrollPages(-1);
    else if (key === 'PageDown') terminal.scrollPages(1);
    else if (key === 'ArrowUp') terminal.scrollLines(-1);
    else if (key === 'ArrowDown') terminal.scrollLines(1);
    else if (key === 'Home') terminal.scrollToTop();
    else if (key === 'End') terminal.scrollToBottom();
    else return false;
    return true;
  }

  private makeButtons(): HTMLElement[] {
    const small = (label: string, key: string, tells: string) =>
      button(label, () => this.command(key), { title: `${tells} (Ctrl+] ${key})` });
    return [
      small('Break', 'b', 'Send a break'), small('Paste', 'p', 'Paste in pieces, after a look'),
      small('Who', 'w', 'Who is here'), small('Find', '/', 'Find in what is shown'),
      small('History', 'h', 'Scroll back into the history'), small('Replay', 'r', 'Replay'),
      small('More', 'c', 'Reconnect, enable, disable, clear, message'),
      button('×', () => this.host.closePane(this), { 'aria-label': `Close ${this.name}` }),
    ];
  }

  private makeKeyBar(): HTMLElement {
    const keys: readonly [string, string][] = [
      ['Esc', '\u001b'], ['Tab', '\t'], ['↑', '\u001b[A'], ['↓', '\u001b[B'],
      ['←', '\u001b[D'], ['→', '\u001b[C'], ['Enter', '\r'],
    ];
    const names: Record<string, string> = { '↑': 'Up', '↓': 'Down', '←': 'Left', '→': 'Right' };
    const control = button('Ctrl', () => {
      this.setControl(!this.control);
      this.focus();
    }, { 'aria-pressed': 'false', class: 'control' });
    return element('div', { class: 'keys', role: 'toolbar', 'aria-label': 'Keys' }, control,
      ...keys.map(([label, bytes]) => button(label, () => {
        const arrows = this.screen.terminal.modes.applicationCursorKeysMode;
        this.typed(new TextEncoder().encode(arrows ? bytes.replace('[', 'O') : bytes));
        this.focus();
      }, { 'aria-label': names[label] ?? label })));
  }

  private setControl(on: boolean): void {
    this.control = on;
    this.keyBar.querySelector('.control')?.setAttribute('aria-pressed', String(on));
  }

  /** A key in the terminal; true if it is the terminal's. */
  private key(event: KeyboardEvent): boolean {
    if (event.type !== 'keydown') return !this.isPagesKey(event);
    if (event.key === 'Control' || event.key === 'Shift' || event.key === 'Alt') return true;
    if (this.afterLeader) {
      this.afterLeader = false;
      event.preventDefault();
      event.stopPropagation();
      this.leaderKey(event);
      return false;
    }
    if (isLeader(event)) {
      this.afterLeader = true;
      this.say('Ctrl+] — now a key of the page; ? shows them');
      event.preventDefault();
      return false;
    }
    return !this.isPagesKey(event);
  }

  private leaderKey(event: KeyboardEvent): void {
    this.showMode(this.mode, '');
    if (isLeader(event)) this.typed(Uint8Array.of(0x1d));
    else if (event.key === 'Tab') this.modes.focus();
    else if (!this.command(event.key)) this.say(`${event.key} means nothing here. ? shows the keys.`);
  }

  /** While nobody types, keys are the page's: it takes them where they bubble to. */
  private isPagesKey(event: KeyboardEvent): boolean {
    return !types(this.mode) && !event.ctrlKey && !event.altKey && !event.shiftKey
      || !types(this.mode) && (event.key === '?' || event.key === 'Tab');
  }

  private typed(bytes: Uint8Array): void {
    if (!types(this.mode)) return;
    const first = bytes[0];
    if (this.control && first !== undefined && bytes.length === 1 && first >= 0x40) {
      bytes = Uint8Array.of(first & 0x1f);
    }
    this.setControl(false);
    if (this.pasting !== null) this.say('What you type waits until the paste has ended.');
    else if (!this.stream.send(bytes)) this.say('Not connected: what you type is lost.', true);
  }

  private async attach(mode: ModeNumber): Promise<void> {
    this.modes.value = String(this.mode);
    this.wanted = mode;
    if (mode === 4) {
      const sure = await confirm(`${this.name}: exclusive until asked?`,
        'What the console prints while you have it in this mode is neither logged nor kept.',
        'Have it so');
      if (!sure) return;
    }
    this.say('Asking for the console…');
    this.stream.attach(mode, false);
    this.focus();
  }

  private async takeOver(): Promise<void> {
    const users = store.find(this.name)?.users ?? [];
    const here = users.length === 0 ? 'Nobody is attached to it now.'
      : `Attached: ${users.map((user) => `${user.name} (${user.mode})`).join(', ')}.`;
    const mode = types(this.wanted) ? this.wanted : 3;
    const sure = await confirm(`Take ${this.name} over?`,
      `${here} All of its users are disconnected, and you get it `
      + `in the mode "${modeOf(mode)?.label}".`, 'Take over');
    if (!sure) return;
    this.say('Taking the console over…');
    this.stream.attach(mode, true);
    this.focus();
  }

  private async sendBreak(): Promise<void> {
    if (!types(this.mode)) {
      this.say('A break needs a mode in which you type: 2, 3 or 4.', true);
      return;
    }
    const sure = await confirm(`Send a break to ${this.name}?`,
      'Some machines stop at a break, and wait for commands.', 'Send it');
    if (sure) this.stream.sendBreak();
    this.focus();
  }

  private paste(event: ClipboardEvent): void {
    event.preventDefault();
    event.stopPropagation();
    void this.pasteText(event.clipboardData?.getData('text/plain') ?? '');
  }

  private async pasteFromClipboard(): Promise<void> {
    let text = '';
    try {
      text = await navigator.clipboard.readText();
    } catch {
      // The browser wants it pasted by hand: the dialog has a field for that.
    }
    await this.pasteText(text);
  }

  private async pasteText(text: string): Promise<void> {
    if (!types(this.mode)) {
      this.say('Pasting needs a mode in which you type: 2, 3 or 4.', true);
      return;
    }
    const chosen = await askToPaste(this.name, text);
    this.focus();
    if (chosen === null || this.pasting !== null) return;
    this.pasting = new PasteRun(chosen, (bytes) => types(this.mode) && this.stream.send(bytes));
    const run = this.pasting;
    const all = await run.go((text) => fill(this.status, text,
      button('Stop pasting', () => run.stop())));
    this.pasting = null;
    this.say(all ? 'Pasted.' : `The paste was stopped after ${run.sent} bytes.`, !all);
  }

  private async who(): Promise<void> {
    const users = store.find(this.name)?.users ?? [];
    const rows = users.map((user) => element('p', {},
      `${user.name} from ${user.address ?? 'the station'}, ${user.mode}, `
      + `since ${age(user.since, store.now())}`));
    await tell(`Who is at ${this.name}`,
      rows.length > 0 ? rows : [element('p', {}, 'Nobody is attached.')]);
  }

  private showFind(): void {
    this.find.hidden = false;
    this.find.focus();
    this.find.select();
  }

  private findKey(event: KeyboardEvent): void {
    if (event.key === 'Enter') {
      const found = this.screen.find(this.find.value, !event.shiftKey);
      this.say(found ? '' : `"${this.find.value}" is not in what is shown. The history has more.`);
    } else if (event.key === 'Escape') {
      this.find.hidden = true;
      this.screen.clearFound();
      this.focus();
    } else {
      return;
    }
    event.preventDefault();
    event.stopPropagation();
  }

  private showState(): void {
    const console = store.find(this.name);
    if (console === undefined) {
      this.state.textContent = store.list === null ? '' : 'no such console';
      return;
    }
    const users = console.users.length;
    this.state.className = `state state-${console.state}`;
    this.state.textContent = `${console.state}${users > 0 ? `, ${users} attached` : ''}`;
    this.state.title = console.problem ?? '';
  }

  private showMode(mode: ModeNumber, text: string): void {
    this.mode = mode;
    this.modes.value = String(mode);
    this.screen.terminal.options.disableStdin = !types(mode);
    this.screen.terminal.options.cursorBlink = types(mode);
    this.node.dataset['mode'] = String(mode);
    const hint = types(mode) ? 'Ctrl+] and a key for the page.' : 'Press 2 to type, ? for all keys.';
    this.say(text !== '' ? text : `${modeOf(mode)?.tells ?? ''} ${hint}`);
  }

  private showRefusal(number: number | null, text: string): void {
    const offer = canTakeOver(number);
    fill(this.status, refusalInWords(number, text),
      offer ? button('Take over', () => void this.takeOver()) : null);
    this.status.classList.add('bad');
    this.status.dataset['refusal'] = String(number ?? '');
  }

  private say(text: string, isBad = false): void {
    this.status.textContent = text;
    this.status.classList.toggle('bad', isBad);
    delete this.status.dataset['refusal'];
  }
}
