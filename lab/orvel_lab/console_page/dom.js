// Small helpers. Whatever comes from the wire gets into the page as text only: through `make` and `textContent`.

export const byId = (id) => document.getElementById(id);

/** An element with properties (or, with a dash, attributes) and children, which are elements or text. */
export function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name.includes("-")) element.setAttribute(name, value);
    else element[name] = value;
  }
  element.append(...children);
  return element;
}

/** Changes the text only when it differs, so that a selection in it stays. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/** A time in seconds since 1970: of today without the date. */
export function clock(seconds, fraction = 0) {
  const time = new Date(seconds * 1000);
  const shown = time.toLocaleTimeString("en-GB", fraction ? { fractionalSecondDigits: fraction, ...PARTS } : PARTS);
  return time.toDateString() === new Date().toDateString() ? shown : `${time.toLocaleDateString("en-CA")} ${shown}`;
}

const PARTS = { hour: "2-digit", minute: "2-digit", second: "2-digit" };
