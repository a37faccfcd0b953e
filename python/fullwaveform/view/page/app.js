// The page: connects the map, the waveform panel and what the user chooses.

import { Brushing } from "./brushing.js";
import { COLOUR_MAPS } from "./colours.js";
import { json } from "./data.js";
import { EchoMap } from "./map.js";
import { drawPanel } from "./waveform.js";

const KEYS = { n: ["echo", 1], p: ["echo", -1], j: ["shot", 1], k: ["shot", -1], w: ["empty", 1],
  W: ["empty", -1], m: ["many", 1], M: ["many", -1], x: ["chi", 1], X: ["chi", -1] };
const find = (selector) => document.querySelector(selector);
const current = { index: null, waveform: null, xyz: null, data: null };
let session;
let map;
let brushing;
let lastMove = Promise.resolve();
let asked = 0; // requests for a panel so far; older answers are ignored

function status(text, isError = false) {
  find("#status").textContent = text;
  find("#status").classList.toggle("error", isError);
}

function fail(error) {
  status(error.message, true);
}

// ---- waveform ----

function panelQuery() {
  const query = new URLSearchParams();
  for (const box of document.querySelectorAll("#modes input:checked")) query.append("mode", box.value);
  const threshold = find("#threshold").value.trim();
  if (threshold) query.set("threshold", threshold);
  query.set("scanner", find("#scanner").value);
  return query;
}

async function showWaveform() {
  const { waveform } = current;
  if (waveform === null) {
    status("The waveform of this echo is not known.", true);
    return;
  }
  const number = ++asked;
  const query = panelQuery();
  document.body.dataset.busy = "true";
  try {
    const data = await json(`waveforms/${waveform}?${query}`);
    if (number !== asked) return;
    current.data = data;
    drawPanel(find("#panel"), data, find("#whole").checked);
    find("#panel").dataset.waveform = waveform;
    status(`Waveform ${waveform}, shot ${data.shot}` +
      (current.index === null ? ", no echo on the map" : ""));
    for (const link of document.querySelectorAll("#export a")) {
      link.href = `waveforms/${waveform}/picture.${link.dataset.kind}?${query}`;
    }
    find("#command").textContent = data.command;
  } finally {
    if (number === asked) document.body.dataset.busy = "false";
  }
}

async function choose(echo) {
  Object.assign(current, echo);
  find("#panel").dataset.echo = echo.index ?? "";
  map.mark(echo.xyz);
  await showWaveform();
}

// Moves start from where the one before ended, however fast the keys are pressed.
function move(kind, step) {
  const moved = lastMove.then(() => moveNow(kind, step));
  lastMove = moved.catch(() => {});
  return moved;
}

async function moveNow(kind, step) {
  if (current.waveform === null) {
    status("Choose an echo first.", true);
    return;
  }
  const query = new URLSearchParams({ step, waveform: current.waveform });
  if (kind === "echo") {
    // From a waveform without echoes to those of the next shot.
    if (current.index === null) return moveNow("shot", step);
    query.set("echo", current.index);
  }
  if (kind === "many" || kind === "chi") query.set("limit", find(`#${kind}-limit`).value);
  const found = await json(`layers/${map.number}/next/${kind}?${query}`);
  if (found) await choose(found);
  else status("There is none in this direction.");
}

// ---- map ----

function colourValues(layer) {
  const values = layer.values.filter((value) => value.range !== null);
  return [{ name: "z", label: "height", unit: session.axes[2].unit, range: layer.ranges.z, category: false }, ...values];
}

function fillSelect(element, entries) {
  element.replaceChildren(...entries.map(([value, text]) => new Option(text, value)));
}

async function showLayer() {
  const number = Number(find("#layer").value);
  const values = colourValues(session.layers[number]);
  const former = find("#colour").value;
  fillSelect(find("#colour"), values.map((value) => [value.name, value.label]));
  if (values.some((value) => value.name === former)) find("#colour").value = former;
  await map.show(number, find("#colour").value);
  find("#side-width").value = Number((map.layer.size / 100).toPrecision(2));
  showColours();
  brushing.show();
}

function hex(colour) {
  return [1, 3, 5].map((at) => parseInt(colour.slice(at, at + 2), 16));
}

function showColours() {
  const value = colourValues(map.layer).find((one) => one.name === find("#colour").value);
  const legend = find("#legend");
  legend.replaceChildren(`${value.label}${value.unit ? `, ${value.unit}` : ""}: `);
  if (value.category) {
    const colours = session.categories;
    const last = colours.length - 1;
    map.setColours(value.name, colours.map(hex), [-0.5, last + 0.5], false);
    const shown = Math.min(last, value.histogram.counts.length - 1);
    for (let number = 0; number <= shown; number++) {
      if (!value.histogram.counts[number]) continue;
      const patch = document.createElement("i");
      patch.style.background = colours[number];
      const entry = document.createElement("span");
      entry.append(patch, number === last ? `${number} and more` : String(number));
      legend.append(entry);
    }
    return;
  }
  const colours = COLOUR_MAPS[find("#colour-map").value];
  const [low, high] = value.range ?? [0, 1];
  map.setColours(value.name, colours, [low, high > low ? high : low + 1], true);
  const bar = document.createElement("canvas");
  [bar.width, bar.height] = [colours.length, 1];
  const context = bar.getContext("2d");
  colours.forEach((colour, i) => {
    context.fillStyle = `rgb(${colour.join()})`;
    context.fillRect(i, 0, 1, 1);
  });
  const offset = value.name === "z" ? map.layer.origin[2] : 0;
  const text = (number) => String(+(number + offset).toPrecision(6));
  legend.append(text(low), bar, text(high));
}

// ---- side view ----

function halfWidth() {
  return Number(find("#side-width").value) / 2;
}

function sideAtEcho() {
  if (!current.xyz) {
    status("Choose an echo first.", true);
    return;
  }
  const [x, y] = current.xyz.map((value, axis) => value - map.layer.origin[axis]);
  const reach = (0.45 * map.mapArea().width) / (map.scale * map.ratio);
  map.setLine([x - reach, y], [x + reach, y], halfWidth());
}

// ---- start ----

function listen() {
  const run = (task) => (...given) => Promise.resolve(task(...given)).catch(fail);
  find("#layer").addEventListener("change", run(showLayer));
  find("#colour").addEventListener("change", run(showColours));
  find("#colour-map").addEventListener("change", run(showColours));
  find("#tool").addEventListener("change", () => (map.tool = find("#tool").value));
  find("#side-here").addEventListener("click", run(sideAtEcho));
  find("#side-off").addEventListener("click", () => map.removeLine());
  find("#whole-map").addEventListener("click", () => map.whole());
  find("#side-width").addEventListener("change", () => {
    if (map.side) {
      map.side.halfWidth = halfWidth();
      map.moved();
      brushing.changedSide();
    }
  });
  const recompute = run(() => current.waveform !== null && showWaveform());
  find("#panel-form").addEventListener("change", recompute);
  for (const form of document.forms) form.addEventListener("submit", (event) => event.preventDefault());
  find("#whole").addEventListener("change", () => current.data && drawPanel(find("#panel"), current.data, find("#whole").checked));
  for (const button of document.querySelectorAll("#moves button")) {
    button.addEventListener("click", run(() => move(button.dataset.kind, Number(button.dataset.step))));
  }
  document.addEventListener("keydown", (event) => {
    const isTyping = event.target.closest("input, select, textarea");
    if (isTyping || event.ctrlKey || event.altKey || event.metaKey) return;
    if (event.key in KEYS) run(move)(...KEYS[event.key]);
    else if (event.key === "b") brushing.selectView();
    else if (event.key === "B" && map.side) brushing.selectSide();
    else return;
    event.preventDefault();
  });
}

async function start() {
  session = await json("session");
  document.title = `${session.title} – fullwaveform view`;
  find("#title").textContent = session.title;
  fillSelect(find("#layer"), session.layers.map((layer, i) => [i, `${layer.label} (${layer.echoes.toLocaleString("en")})`]));
  fillSelect(find("#colour-map"), Object.keys(COLOUR_MAPS).map((name) => [name, name]));
  fillSelect(find("#scanner"), session.scanners.map((label, i) => [i, label]));
  for (const { mode, name, colour } of session.modes) {
    const box = Object.assign(document.createElement("input"), { type: "checkbox", value: name, checked: mode === session.default_mode });
    const label = document.createElement("label");
    label.append(box, ` ${name}`);
    label.style.borderBottom = `3px solid ${colour}`;
    find("#modes").append(label);
  }
  map = new EchoMap(find("#map"), session, (echo) => choose(echo).catch(fail), fail);
  brushing = new Brushing(map, session, (echo) => choose(echo).catch(fail), fail);
  map.onLine = (from, to) => map.setLine(from, to, halfWidth());
  listen();
  await showLayer();
  if (map.layer.echoes) status("Click an echo to see its waveform.");
  else if (session.waveforms) await choose({ index: null, waveform: 0, xyz: null });
  else status("There are no waveforms.");
  document.body.dataset.busy = "false";
  window.fullwaveform = { map }; // for tests and measurements
}

start().catch(fail);
