// The table of devices. One of them, or all, is chosen: by click, or by arrow keys from row to row.

import { byId, clock, make, setText } from "./dom.js";

export const ALL = ""; // stands for all devices where a hardware id would be

const lines = new Map(); // hardware id: its line of the table
let chosen = ALL;
let onChoice = () => {};

export function setUp(callback) {
  onChoice = callback;
  byId("rows").addEventListener("keydown", move);
  byId("find").addEventListener("input", find);
  clear();
}

export function clear() {
  lines.clear();
  byId("rows").replaceChildren();
  chosen = ALL;
  const line = addLine(ALL, "All devices");
  line.row.classList.add("all");
  line.row.append(make("td", { colSpan: 6, className: "hint" }));
}

export function show(device) {
  const line = lines.get(device.hardware_id) ?? addDevice(device.hardware_id);
  line.device = device;
  setText(line.id, device.id);
  for (const flag of ["registered", "claimed", "connected"]) {
    setText(line[flag], device[flag] ? "yes" : "no");
    line[flag].dataset.on = device[flag];
  }
  setText(line.since, device.since ? clock(device.since) : "");
  setText(line.heartbeat, device.heartbeat ? clock(device.heartbeat.time) : "");
}

/** After a change of some lines: what depends on all of them. */
export function finish() {
  byId("no-devices").hidden = lines.size > 1;
  find();
}

function addDevice(hardwareId) {
  const line = addLine(hardwareId, hardwareId);
  const cell = (name, className, content = "") => {
    line.row.append(make("td", { className }, content));
    return line.row.lastChild;
  };
  line.id = cell("id", "wide mono");
  for (const flag of ["registered", "claimed", "connected"]) {
    line[flag] = make("span", { className: "flag" });
    cell(flag, flag === "registered" ? "wide" : "", line[flag]);
  }
  line.since = cell("since", "time");
  line.heartbeat = cell("heartbeat", "wide time");
  return line;
}

/** Keeps the lines sorted. */
function addLine(hardwareId, label) {
  const button = make("button", { type: "button", tabIndex: -1, "aria-pressed": "false" }, label);
  const row = make("tr", { "data-device": hardwareId }, make("th", { scope: "row" }, button));
  const next = [...byId("rows").children].find((other) => other.dataset.device > hardwareId);
  byId("rows").insertBefore(row, next ?? null);
  row.addEventListener("click", () => choose(hardwareId));
  lines.set(hardwareId, { row, button });
  if (hardwareId === chosen) mark(chosen);
  return lines.get(hardwareId);
}

function choose(hardwareId) {
  mark(hardwareId);
  onChoice(hardwareId);
}

function mark(hardwareId) {
  chosen = hardwareId;
  for (const [name, { row, button }] of lines) {
    row.classList.toggle("chosen", name === chosen);
    button.setAttribute("aria-pressed", name === chosen);
    button.tabIndex = name === chosen ? 0 : -1; // the table is one stop of the Tab key
  }
}

function move(event) {
  const rows = [...byId("rows").children].filter((row) => !row.hidden);
  const at = rows.indexOf(event.target.closest("tr"));
  const to = { ArrowUp: at - 1, ArrowDown: at + 1, Home: 0, End: rows.length - 1 }[event.key];
  if (to === undefined || !rows[to]) return;
  event.preventDefault();
  choose(rows[to].dataset.device);
  lines.get(chosen).button.focus();
}

/** Hides what does not fit; the chosen device and the first line stay. */
function find() {
  const wanted = byId("find").value.trim().toLowerCase();
  let found = 0;
  for (const [name, { row, device }] of lines) {
    const fits = !device || `${name} ${device.id}`.toLowerCase().includes(wanted);
    row.hidden = !fits && name !== chosen;
    found += fits && name !== ALL;
  }
  byId("none-found").hidden = found > 0 || lines.size === 1;
}
