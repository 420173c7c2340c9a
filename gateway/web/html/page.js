"use strict";

// Shows the gateway's services from state.json, which is fetched again every two seconds.

const PERIOD = 2000;
const TIMEOUT = 5000;
// Readings come every two seconds; a few may be late on a busy machine.
const OLD = 10;

const element = (id) => document.getElementById(id);

class Unavailable extends Error {}

// The state, and what the time is on the gateway: its clock need not agree with the visitor's.
async function fetchState() {
  const response = await fetch("state.json", { cache: "no-store", signal: AbortSignal.timeout(TIMEOUT) })
    .catch(() => { throw new Unavailable("The gateway does not answer."); });
  if (response.status === 404) throw new Unavailable("The gateway has no reading yet.");
  try {
    if (!response.ok) throw new Error(response.statusText);
    return { state: await response.json(), now: Date.parse(response.headers.get("Date")) / 1000 };
  } catch {
    throw new Unavailable("The gateway's data cannot be read.");
  }
}

const moment = (seconds) => new Date(seconds * 1000).toLocaleString();

// What is wrong with the data, in words; empty when nothing is. The words stay the same while nothing changes, as a
// screen reader reads them out at every change.
function fault(state, now) {
  if (now - state.written > OLD) return `This data is old: it was last renewed at ${moment(state.written)}.`;
  if (state.reading === null) return "The supervisor has not answered yet.";
  if (now - state.reading > OLD) return `The supervisor has not answered since ${moment(state.reading)}.`;
  return "";
}

function cell(kind, text, style) {
  const made = document.createElement(kind);
  // Names are any text: never markup.
  made.textContent = text;
  made.className = style;
  return made;
}

function row({ name, active, pid }) {
  const made = document.createElement("tr");
  const head = cell("th", name, "name");
  head.scope = "row";
  const word = cell("span", active ? "active" : "inactive", active ? "state active" : "state inactive");
  const state = document.createElement("td");
  state.append(word);
  made.append(head, state, cell("td", pid === null ? "–" : String(pid), "pid"));
  return made;
}

// Only what has changed is put in place: a selection stays, and a screen reader is not told the same again.
function put(target, text) {
  if (target.textContent !== text) target.textContent = text;
}

let shown = "";

function showServices(services) {
  const text = JSON.stringify(services);
  if (text === shown) return;
  shown = text;
  element("services").replaceChildren(...services.map(row));
  const active = services.filter((service) => service.active).length;
  put(element("summary"), `${active} of ${services.length} active`);
  element("summary").classList.toggle("some-inactive", active < services.length);
}

function showReading(seconds) {
  if (seconds === null) return;
  element("reading").dateTime = new Date(seconds * 1000).toISOString();
  put(element("reading"), moment(seconds));
}

function showDevice(name) {
  element("device").hidden = !name;
  put(element("device"), name ?? "");
  document.title = name ? `${name} – Gateway` : "Gateway";
}

function showNotice(text) {
  put(element("notice"), text);
  element("notice").hidden = text === "";
  document.body.classList.toggle("old", text !== "");
}

async function refresh() {
  try {
    const { state, now } = await fetchState();
    if (state.reading !== null) showServices(state.services);
    showReading(state.reading);
    showDevice(state.device);
    showNotice(fault(state, now));
  } catch (error) {
    showNotice(error instanceof Unavailable ? error.message : "The gateway's data cannot be shown.");
  }
  setTimeout(refresh, PERIOD);
}

refresh();
