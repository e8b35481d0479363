// The look before pasting, and the pasting itself.

import { askWith } from './dialog.ts';
import { element } from './dom.ts';
import { asTyped, kPaces, pieces, summary, visible, type Pace } from './paste.ts';

export interface Chosen {
  bytes: Uint8Array;
  pace: Pace;
}

/** Shows the text as it is, with what cannot be seen made visible; null if it is not wanted. */
export async function askToPaste(name: string, text: string): Promise<Chosen | null> {
  const field = element('textarea', { rows: '8', 'aria-label': 'Text to paste', id: 'paste-text' });
  field.value = text;
  const look = element('pre', { 'aria-label': 'The text as it is', id: 'paste-look' });
  const told = element('p', { role: 'status' });
  const pace = element('select', { 'aria-label': 'How fast' }, ...kPaces.map((one, index) =>
    element('option', { value: String(index) }, one.label)));
  const show = () => {
    look.textContent = visible(field.value);
    told.textContent = summary(field.value);
  };
  field.addEventListener('input', show);
  show();
  const choices = [{ label: 'Paste', value: true }, { label: 'Cancel', value: false }];
  const sure = await askWith(`Paste into ${name}?`, [field, look, told, pace], choices);
  const chosen = kPaces[Number(pace.value)];
  if (sure !== true || chosen === undefined || field.value === '') return null;
  return { bytes: new TextEncoder().encode(asTyped(field.value)), pace: chosen.pace };
}

/** One paste, which can be stopped between two pieces. */
export class PasteRun {
  sent = 0;
  private stopped = false;

  constructor(private readonly chosen: Chosen,
    private readonly send: (bytes: Uint8Array) => boolean) {}

  stop(): void {
    this.stopped = true;
  }

  /** Sends all of it; false when it was stopped, or could not be sent. */
  async go(tell: (text: string) => void): Promise<boolean> {
    const { bytes, pace } = this.chosen;
    for (const piece of pieces(bytes, pace)) {
      if (this.stopped || !this.send(piece)) return false;
      this.sent += piece.length;
      tell(`Pasting: ${this.sent} of ${bytes.length} bytes. `);
      await new Promise((resolve) => window.setTimeout(resolve, pace.pause));
    }
    return true;
  }
}
