// Elements of the page. Text gets into it through textContent alone, so no text becomes markup.

type Child = Node | string | null;
type Attributes = Record<string, string | boolean | ((event: Event) => void)>;

/**
 * An element with attributes and children. An attribute named onEVENT is a listener; true stands for
 * an attribute without a value, false for none.
 */
export function element<Tag extends keyof HTMLElementTagNameMap>(
  tag: Tag, attributes: Attributes = {}, ...children: Child[]
): HTMLElementTagNameMap[Tag] {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === 'function') {
      made.addEventListener(name.slice(2), value);
    } else if (value !== false) {
      made.setAttribute(name, value === true ? '' : value);
    }
  }
  append(made, ...children);
  return made;
}

function append(parent: Element, ...children: Child[]): void {
  for (const child of children) {
    if (child !== null) parent.append(child);
  }
}

export function fill(parent: Element, ...children: Child[]): void {
  parent.replaceChildren();
  append(parent, ...children);
}

/** The same, but elements that are there already stay, with the keyboard and a click that began. */
export function refill(parent: Element, ...children: (HTMLElement | null)[]): void {
  const wanted = children.filter((child) => child !== null);
  const had = parent.children;
  const isSame = wanted.length === had.length
    && wanted.every((child, index) => child.isEqualNode(had[index] ?? null));
  if (!isSame) parent.replaceChildren(...wanted);
}

export function button(
  label: string, action: (event: Event) => void, attributes: Attributes = {},
): HTMLButtonElement {
  return element('button', { type: 'button', onclick: action, ...attributes }, label);
}

/** An element of index.html. */
export function byId(id: string): HTMLElement {
  const found = document.getElementById(id);
  if (found === null) throw new Error(`The page has no element ${id}.`);
  return found;
}

const kShown = 8000;  // milliseconds
let announced: number | undefined;

/** Tells the user something for a moment, on the screen and to a screen reader. */
export function announce(text: string): void {
  const place = byId('announcement');
  // The same text again is news, too.
  place.textContent = place.textContent === text ? `${text} ` : text;
  window.clearTimeout(announced);
  announced = window.setTimeout(() => place.replaceChildren(), kShown);
}
