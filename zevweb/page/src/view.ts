// What fills the main part of the page.

export interface View {
  node: HTMLElement;
  title: string;
  /** Which link of the navigation it belongs to. */
  part: 'consoles' | 'search' | 'audit' | 'fleet';
  /** Puts the keyboard where work begins. */
  focus(): void;
  /** Takes a key that nothing else has taken; true if it means something here. */
  key?(event: KeyboardEvent): boolean;
  /** Gives back what it holds: timers, connections, terminals. */
  close(): void;
}
