// What can be done to the chosen device, or to all: one form for each command.

import { byId, make, setText } from "./dom.js";
import { command } from "./news.js";
import { bytesOf, joined } from "./payload.js";

let chosen = null; // the hardware id; null is all devices

const BUILDERS = {
  claim: () => ({ tell: true }),
  release: () => ({ tell: true }),
  drop: () => ({ reset: false }),
  reset: () => ({ do: "drop", reset: true }),
  "advise-connect": () => ({}),
  "advise-wait": (form) => ({ seconds: form.seconds.valueAsNumber }),
  send: (form) => ({ handler: form.handler.value, ...joined(chunks()) }),
  fault: ({ where, what, seconds, times }) => ({
    where: where.value,
    what: what.value,
    seconds: seconds.valueAsNumber,
    times: times.valueAsNumber,
  }),
  calm: () => ({}),
};

export function setUp() {
  byId("commands").addEventListener("submit", submit);
  byId("add-chunk").addEventListener("click", () => addChunk().focus());
  addChunk();
}

export function offerHandlers(names) {
  byId("handlers").replaceChildren(...names.map((name) => make("option", { value: name })));
}

/** The commands that speak to a session need one, and all need the lab. */
export function enable(device, labIsUp) {
  chosen = device?.hardware_id ?? null;
  for (const fieldset of byId("commands").querySelectorAll("fieldset")) {
    fieldset.disabled = !labIsUp || (fieldset.dataset.needs === "session" && !device?.connected);
  }
}

async function submit(event) {
  event.preventDefault();
  const name = event.submitter?.value ?? event.target.querySelector("button").value;
  let document;
  try {
    document = { do: name, device: chosen, ...BUILDERS[name](event.target.elements) };
  } catch (error) {
    tell(error.message, "bad");
    return;
  }
  tell("...", "busy");
  const { done, error } = await command(document);
  tell(error ?? done, error ? "bad" : "good");
}

function tell(text, state) {
  const result = byId("result");
  result.hidden = false;
  result.dataset.state = state;
  setText(result, text.charAt(0).toUpperCase() + text.slice(1));
}

// The chunks of a message.

function chunks() {
  return [...byId("chunks").children].map((item, index) => {
    const [form, text] = [item.querySelector("select").value, item.querySelector("textarea").value];
    return bytesOf(form, text, index + 1);
  });
}

function addChunk() {
  const form = make("select", {}, make("option", { value: "text" }, "text"), make("option", { value: "hex" }, "hex"));
  const text = make("textarea", { rows: 2, spellcheck: false });
  const remove = make("button", { type: "button", className: "quiet" }, "Remove");
  const item = make("li", {}, form, text, remove);
  remove.addEventListener("click", () => {
    item.remove();
    number();
    byId("add-chunk").focus();
  });
  byId("chunks").append(item);
  number();
  return text;
}

function number() {
  const items = [...byId("chunks").children];
  items.forEach((item, index) => {
    item.querySelector("select").setAttribute("aria-label", `Form of chunk ${index + 1}`);
    item.querySelector("textarea").setAttribute("aria-label", `Chunk ${index + 1}`);
    const remove = item.querySelector("button");
    remove.setAttribute("aria-label", `Remove chunk ${index + 1}`);
    remove.hidden = items.length === 1;
  });
}
