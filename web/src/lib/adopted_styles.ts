// xterm.js writes its colours and cell sizes into <style> elements it creates, and the
// page's policy refuses inline styles. While `run` runs, each <style> it asks for is an
// inert element whose text goes to a constructed style sheet instead: the same rules reach
// the page, no inline style is needed, and the sheet goes when the element is removed.
export function withAdoptedStyles<T>(doc: Document, run: () => T): T {
  const create = doc.createElement;
  doc.createElement = function (this: Document, tagName: string, options?: ElementCreationOptions) {
    if (tagName.toLowerCase() !== 'style') return create.call(this, tagName, options);
    // An inert element stands in: even an empty <style> in the page breaks the policy.
    const element = create.call(this, 'template');
    adopt(doc, element);
    return element;
  } as typeof doc.createElement;
  try {
    return run();
  } finally {
    doc.createElement = create;
  }
}

function adopt(doc: Document, element: HTMLElement): void {
  const sheet = new CSSStyleSheet();
  let text = '';
  Object.defineProperty(element, 'textContent', {
    configurable: true,
    get: () => text,
    set: (value: string | null) => {
      text = value ?? '';
      sheet.replaceSync(text);
    },
  });
  const remove = element.remove.bind(element);
  element.remove = () => {
    doc.adoptedStyleSheets = doc.adoptedStyleSheets.filter((s) => s !== sheet);
    remove();
  };
  doc.adoptedStyleSheets = [...doc.adoptedStyleSheets, sheet];
}
