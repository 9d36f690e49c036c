// The few helpers through which views touch the document. Text goes in as text, never as markup:
// descriptions and reasons come from outside.

/** Makes an element: h("td", { className: "number" }, "84 W"). Names with a dash are attributes. */
export function h(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name.includes("-") || name === "role" || name === "for") element.setAttribute(name, value);
    else element[name] = value;
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

export const byId = (id) => document.getElementById(id);

/** Writes only what has changed, so that selections and screen readers are left in peace. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export function setData(element, name, value) {
  const text = String(value);
  if (element.dataset[name] !== text) element.dataset[name] = text;
}

export function setAttribute(element, name, value) {
  const text = String(value);
  if (element.getAttribute(name) !== text) element.setAttribute(name, text);
}

export function show(element, isShown) {
  if (element.hidden === isShown) element.hidden = !isShown;
}

/** Rebuilds a list only when what it shows has changed. */
export function whenChanged(build) {
  let last;
  return (value) => {
    const key = JSON.stringify(value);
    if (key === last) return;
    last = key;
    build(value);
  };
}
