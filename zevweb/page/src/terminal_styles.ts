// The terminal makes style elements and style attributes, which the page's content policy forbids:
// styles that come as text could be markup. The same styles set through the object model are not
// text, and are permitted. So elements of this page do it that way.

/** Takes the place of a style element: its text becomes a style sheet of its own. */
function styleElement(): HTMLElement {
  const made = plainCreate('meta');
  const sheet = new CSSStyleSheet();
  document.adoptedStyleSheets.push(sheet);
  Object.defineProperty(made, 'textContent', {
    set: (text: string) => sheet.replaceSync(text),
  });
  made.remove = () => {
    const at = document.adoptedStyleSheets.indexOf(sheet);
    if (at >= 0) document.adoptedStyleSheets.splice(at, 1);
    Element.prototype.remove.call(made);
  };
  return made;
}

const plainCreate = document.createElement.bind(document);

/** To be called once, before the first terminal is made. */
export function permitTerminalStyles(): void {
  Object.defineProperty(document, 'createElement', {
    value: (tag: string) => (tag === 'style' ? styleElement() : plainCreate(tag)),
  });
  HTMLElement.prototype.setAttribute = function setAttribute(name: string, value: string): void {
    if (name === 'style') this.style.cssText = value;
    else Element.prototype.setAttribute.call(this, name, value);
  };
}
