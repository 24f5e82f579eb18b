// What happens, newest first: packets, HTTP exchanges, deliveries, and what the lab was told to do.

import { byId, clock, make } from "./dom.js";

const MOST = 500;
const KINDS = {
  all: () => true,
  packets: (event) => event.details.packets?.length > 0,
  exchanges: (event) => "answer" in event.details,
  deliveries: (event) => event.source === "handler",
};

let events = []; // the newest last
let held = false;
let chosen = "";

export function setUp() {
  byId("kind").addEventListener("change", showAll);
  byId("only-chosen").addEventListener("change", showAll);
  byId("clear").addEventListener("click", clear);
  byId("hold").addEventListener("click", () => {
    held = !held;
    byId("hold").setAttribute("aria-pressed", held);
    if (!held) showAll();
  });
}

export function clear() {
  events = [];
  showAll();
}

export function add(event) {
  events.push(event);
  if (events.length > 2 * MOST) events = events.slice(-MOST);
  if (held || !isWanted(event)) return;
  byId("events").prepend(entry(event));
  if (byId("events").children.length > MOST) byId("events").lastChild.remove();
  byId("no-events").hidden = true;
}

export function addGap(count) {
  add({ time: Date.now() / 1000, source: "lab", summary: `${count} events were missed`, details: {} });
}

export function choose(hardwareId) {
  chosen = hardwareId;
  if (byId("only-chosen").checked) showAll();
}

function showAll() {
  const wanted = events.filter(isWanted).slice(-MOST).reverse();
  byId("events").replaceChildren(...wanted.map(entry));
  byId("no-events").hidden = wanted.length > 0;
}

function isWanted(event) {
  const ofChosen = !byId("only-chosen").checked || !chosen || event.device === chosen;
  return ofChosen && KINDS[byId("kind").value](event);
}

function entry(event) {
  const head = [
    make("time", { dateTime: new Date(event.time * 1000).toISOString() }, clock(event.time, 3)),
    make("span", { className: "source", "data-source": event.source }, event.source),
    make("span", { className: "who mono" }, event.device ?? ""),
    make("span", { className: "what" }, inOneLine(event)),
  ];
  const more = wholeText(event.details);
  if (!more) return make("li", {}, make("div", { className: "head" }, ...head));
  const details = make("details", {}, make("summary", { className: "head" }, ...head));
  details.addEventListener("toggle", () => details.append(make("pre", {}, more)), { once: true });
  return make("li", {}, details);
}

/** Of a delivery without the escaped line ends and tabs of its beginning; the whole is behind the entry. */
function inOneLine({ source, summary }) {
  return source === "handler" ? summary.replace(/(\\[nt])+/g, " ") : summary;
}

/** Everything that is known of an event, for who opens it. */
function wholeText(details) {
  const parts = [];
  if (details.packets?.length > 1) parts.push(details.packets.join("\n"));
  if (details.bytes) parts.push(hexDump(details.bytes) + (details.size > 64 ? `\n... ${details.size} bytes` : ""));
  if (details.method) {
    const lines = details.headers.map(([name, value]) => `${name}: ${value}`);
    parts.push([`${details.method} ${details.target}`, ...lines].join("\n"), details.body, details.answer);
  }
  if (details.message) parts.push(details.message);
  if (details.file) parts.push(`kept as ${details.file}`);
  return parts.filter(Boolean).join("\n\n");
}

/** Sixteen bytes a line, with their characters. */
function hexDump(bytes) {
  const all = bytes.split(" ");
  const lines = [];
  for (let at = 0; at < all.length; at += 16) {
    const some = all.slice(at, at + 16);
    const shown = some.map((byte) => parseInt(byte, 16)).map((code) => String.fromCharCode(isPlain(code) ? code : 46));
    lines.push(`${at.toString(16).padStart(4, "0")}  ${some.join(" ").padEnd(47)}  ${shown.join("")}`);
  }
  return lines.join("\n");
}

const isPlain = (code) => code >= 32 && code < 127;
