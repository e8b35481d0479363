// One or several consoles side by side, with the list beside them where there is room.

import { element } from './dom.ts';
import { showHelp } from './keys.ts';
import { kMostPanes, ListView } from './list.ts';
import { Pane, type PaneHost } from './pane.ts';
import { go } from './route.ts';
import type { View } from './view.ts';

export class ConsolesView implements View, PaneHost {
  readonly part = 'consoles';
  readonly node: HTMLElement;
  private readonly list: ListView;
  private readonly place = element('div', { class: 'panes' });
  private readonly panes: Pane[] = [];

  constructor(names: readonly string[]) {
    this.list = new ListView(names);
    this.node = element('div', { class: 'split' }, this.list.node, this.place);
    this.show(names);
  }

  get title(): string {
    return this.panes.map((pane) => pane.name).join(', ');
  }

  /** Shows these consoles. One that is shown already stays as it is, its user attached. */
  show(names: readonly string[]): void {
    const wanted = [...new Set(names)].slice(0, kMostPanes);
    for (const pane of this.panes.filter((one) => !wanted.includes(one.name))) {
      pane.close();
      pane.node.remove();
      this.panes.splice(this.panes.indexOf(pane), 1);
    }
    const added = wanted.filter((name) => !this.panes.some((pane) => pane.name === name))
      .map((name) => new Pane(name, this));
    this.panes.push(...added);
    this.place.append(...added.map((pane) => pane.node));
    this.panes.forEach((pane) => { pane.node.style.order = String(wanted.indexOf(pane.name)); });
    this.place.className = 'panes';
    if (this.panes.length > 1) this.place.classList.add(this.panes.length > 2 ? 'four' : 'two');
    queueMicrotask(() => {
      for (const pane of added) pane.begin();
      added[0]?.focus();
    });
  }

  focus(): void {
    this.panes[0]?.focus();
  }

  close(): void {
    this.list.close();
    for (const pane of this.panes) pane.close();
  }

  key(event: KeyboardEvent): boolean {
    if (this.list.node.contains(event.target as Node)) return this.list.key(event);
    if (event.key === 'Escape') {
      go('list');
      return true;
    }
    return this.paneOf(event)?.command(event.key) ?? false;
  }

  closePane(pane: Pane): void {
    go(this.panes.length > 1 ? 'consoles' : 'list',
      this.panes.filter((one) => one !== pane).map((one) => one.name));
  }

  nextPane(pane: Pane): void {
    this.panes[(this.panes.indexOf(pane) + 1) % this.panes.length]?.focus();
  }

  help(): void {
    void showHelp();
  }

  private paneOf(event: KeyboardEvent): Pane | undefined {
    return this.panes.find((pane) => pane.node.contains(event.target as Node)) ?? this.panes[0];
  }
}
