// Questions to the user, in dialogs that trap the keyboard and end with Escape.

import { button, element } from './dom.ts';

/** Shows the content with buttons; the answer is the chosen button's value, null with Escape. */
export function askWith<Value>(
  title: string, content: Node[], choices: { label: string; value: Value }[], main = 0,
): Promise<Value | null> {
  return new Promise((resolve) => {
    const before = document.activeElement;
    const heading = element('h2', { id: 'dialog-title' }, title);
    const dialog = element('dialog', { 'aria-labelledby': 'dialog-title' });
    let answer: Value | null = null;
    const choose = (value: Value) => () => {
      answer = value;
      dialog.close();
    };
    const buttons = choices.map((choice, index) =>
      button(choice.label, choose(choice.value), index === main ? { class: 'main' } : {}));
    const form = element('form', { onsubmit: (event) => event.preventDefault() }, heading, ...content, element('div', { class: 'buttons' }, ...buttons));
    dialog.append(form);
    dialog.addEventListener('close', () => {
      dialog.remove();
      if (before instanceof HTMLElement) before.focus();
      resolve(answer);
    });
    dialog.addEventListener('keydown', (event) => {
      // What is typed in a dialog is no command of the page.
      event.stopPropagation();
      const isField = event.target instanceof HTMLInputElement
        || event.target instanceof HTMLSelectElement;
      if (event.key !== 'Enter' || !isField) return;
      event.preventDefault();
      buttons[main]?.click();
    });
    document.body.append(dialog);
    dialog.showModal();
    if (!dialog.querySelector('input, select, textarea')) buttons[main]?.focus();
  });
}

/** A question whose safe answer is "Cancel", which has the keyboard first. */
export async function confirm(title: string, text: string, label: string): Promise<boolean> {
  const choices = [{ label, value: true }, { label: 'Cancel', value: false }];
  return (await askWith(title, [element('p', {}, text)], choices, 1)) === true;
}

export async function tell(title: string, content: Node[]): Promise<void> {
  await askWith(title, content, [{ label: 'Close', value: true }]);
}
