// The page: what the lab tells goes into the table, the panel and the time line.

import * as commands from "./commands.js";
import * as devices from "./devices.js";
import { byId, clock, make, setText } from "./dom.js";
import { listen } from "./news.js";
import * as timeline from "./timeline.js";

const MOST_SPOKEN = 3; // changes at once; more are counted only
const DOCUMENTS = ["register", "claim", "discovery", "advisor", "state"];
const GONE = "The lab does not answer. What you see is what was; the page goes on by itself when the lab is back.";
const NONE_CHOSEN = "For a message or a drop choose a device that is connected.";

let lab = {};
let isUp = false;
let chosen = devices.ALL;
const known = new Map(); // the devices by their hardware ids

const heard = {
  link(up) {
    isUp = up;
    byId("link").dataset.state = up ? "up" : "down";
    setText(byId("link"), up ? "Lab is up" : "Lab is gone");
    byId("gone").hidden = up;
    setText(byId("gone"), up ? "" : GONE);
    showChosen();
  },

  lab(document) {
    if (lab.run && lab.run !== document.run) startAnew();
    lab = document;
    setText(byId("agent-command"), lab.agent_command_line);
    setText(byId("advice"), adviceText(lab.advice));
    setText(byId("fault-count"), String(lab.faults));
    byId("fault-count").dataset.some = lab.faults > 0;
    commands.offerHandlers([...lab.handlers, lab.agent_handler]);
  },

  devices(rows) {
    const news = rows.map((row) => changeText(known.get(row.hardware_id), row)).filter(Boolean);
    for (const row of rows) {
      known.set(row.hardware_id, row);
      devices.show(row);
    }
    devices.finish();
    const all = [...known.values()];
    setText(byId("device-count"), String(all.length));
    setText(byId("connected-count"), String(all.filter((row) => row.connected).length));
    announce(news);
    showChosen();
  },

  event: timeline.add,
  gap: timeline.addGap,
};

/** Another run of the lab has nothing to do with what was. */
function startAnew() {
  known.clear();
  devices.clear();
  timeline.clear();
  choose(devices.ALL);
}

function choose(hardwareId) {
  chosen = hardwareId;
  timeline.choose(hardwareId);
  showChosen();
}

function showChosen() {
  const device = known.get(chosen);
  commands.enable(device, isUp);
  setText(byId("chosen-title"), device ? device.hardware_id : "All devices");
  setText(byId("chosen-state"), device ? stateText(device) : NONE_CHOSEN);
  showDocuments(device);
}

function stateText(device) {
  const parts = [device.registered ? `${device.id}, ${device.model}` : "not registered"];
  parts.push(device.claimed ? "claimed" : "not claimed");
  if (device.connected) parts.push(`session ${device.session} since ${clock(device.since)}`);
  else if (device.session) parts.push(`session ${device.session} ended ${clock(device.since)}: ${device.ended_by}`);
  else parts.push("no session yet");
  if (device.heartbeat) parts.push(`heartbeat ${device.heartbeat.sequence} at ${clock(device.heartbeat.time)}`);
  if (device.advice) parts.push(`own advice: ${adviceText(device.advice)}`);
  if (device.slow) parts.push(`slow: ${device.slow} s a packet`);
  return parts.join(" · ");
}

function adviceText(advice) {
  if (advice._type === "ActionWait") return advice.period > 0 ? `wait ${advice.period} s` : "wait for ever";
  return `connect to ${advice.broker}:${advice.port ?? "?"}`;
}

/** The last document of each kind; what is open stays so. */
function showDocuments(device) {
  const wanted = DOCUMENTS.filter((kind) => device?.documents[kind]);
  const container = byId("documents");
  for (const part of [...container.children]) if (!wanted.includes(part.dataset.kind)) part.remove();
  for (const kind of wanted) {
    const part = [...container.children].find((child) => child.dataset.kind === kind) ?? addDocument(container, kind);
    const { time, status, request, answer, document: state } = device.documents[kind];
    setText(part.querySelector(".when"), `${clock(time)}${status ? `, status ${status}` : ""}`);
    setText(part.querySelector("pre"), state ?? [request, answer].filter(Boolean).join("\n\n"));
  }
}

function addDocument(container, kind) {
  const title = kind === "state" ? "Last state document" : `Last exchange: ${kind}`;
  const summary = make("summary", {}, `${title} `, make("span", { className: "when hint" }));
  container.append(make("details", { "data-kind": kind }, summary, make("pre")));
  return container.lastChild;
}

/** What a listener should know of a device's change; empty if it is nothing. */
function changeText(before, now) {
  const words = { registered: ["not registered", "registered"], claimed: ["released", "claimed"] };
  words.connected = ["disconnected", "connected"];
  const changed = Object.keys(words).filter((flag) => (before?.[flag] ?? false) !== now[flag]);
  return changed.length ? `${now.hardware_id} ${changed.map((flag) => words[flag][Number(now[flag])]).join(", ")}` : "";
}

function announce(news) {
  if (!news.length) return;
  setText(byId("announcer"), news.length > MOST_SPOKEN ? `${news.length} devices have changed` : news.join("; "));
}

devices.setUp(choose);
timeline.setUp();
commands.setUp();
showChosen();
listen(heard);
