// Connects the selection with the map, the histograms, the list of the worst fits and the files.

import { json } from "./data.js";
import { Selection } from "./selection.js";
import { Histogram } from "./statistics.js";

const find = (selector) => document.querySelector(selector);
const SIDES = ["west", "south", "east", "north"];
const FORMATS = { zip: "las with waveforms (zip)" };
const SLAB = ["from", "to", "lowest", "highest"];
const OF_OTHERS = { shot_echoes: "shots", noise: "waveforms" }; // histograms that do not count echoes
const count = (number, one) => `${number.toLocaleString("en")} ${one}${number === 1 ? "" : one === "echo" ? "es" : "s"}`;

export class Brushing {
  // `onEcho(echo)` is called for the echo of a fit that the user chooses.
  constructor(map, session, onEcho, onError) {
    Object.assign(this, { map, session, onEcho, onError });
    this.selection = new Selection(() => this.changed());
    this.histograms = [];
    this.isCounting = false;
    this.isMeasuring = false;
    this.wantedBars = null; // of the noise, to be selected when it has been measured
    map.onBox = (from, to) => this.selection.setBox(from, to);
    map.onSlab = (from, to) => this.selection.setSlab(map.side, from, to);
    map.onSide = () => this.showNumbersOfRegion();
    this.listen();
  }

  // To be called when the map shows another layer.
  show() {
    const { layer } = this.map;
    this.wantedBars = null;
    this.selection.show(layer, this.session.noise);
    const parent = find("#histograms");
    parent.replaceChildren();
    this.histograms = described(layer, this.session.noise).map((one) =>
      new Histogram(parent, one, (bars) => this.setBars(one.name, bars)));
    this.changed();
  }

  setBars(name, bars) {
    if (name === "noise" && !this.map.withNoise) this.setNoiseBars(bars).catch(this.onError);
    else this.selection.setBars(name, bars);
  }

  // Noise is known of a sample of the waveforms only; to select by it, all are measured once.
  async setNoiseBars(bars) {
    this.wantedBars = bars;
    if (this.isMeasuring) return;
    this.isMeasuring = true;
    const waveforms = count(this.session.waveforms, "waveform");
    find("#selection").dataset.state = "measuring";
    find("#clear").disabled = false;
    find("#selection-status").textContent = `Measuring the noise of ${waveforms}, once …`;
    try {
      this.session.noise = await json("noise");
    } catch (error) {
      this.wantedBars = null;
      this.changed(); // shows what is selected still
      throw error;
    } finally {
      this.isMeasuring = false;
    }
    this.map.addNoise();
    const histogram = this.histograms.find((one) => one.name === "noise");
    histogram.counts = this.session.noise.counts;
    if (this.wantedBars) this.selection.setBars("noise", this.wantedBars);
    else this.changed(); // the selection was cleared meanwhile
    this.wantedBars = null;
  }

  clear() {
    this.wantedBars = null;
    this.selection.clear();
  }

  changed() {
    const { map, selection } = this;
    map.select(selection, selection.isEmpty ? null : (columns) => selection.chosen(columns));
    this.showNumbersOfRegion();
    for (const histogram of this.histograms) histogram.update(histogram.part, selection.bars.get(histogram.name));
    find("#clear").disabled = selection.isEmpty;
    this.isStale = true;
    find("#selection").dataset.state = "counting";
    this.count().catch((error) => {
      find("#selection").dataset.state = "failed";
      this.onError(error);
    });
  }

  // Asks for the numbers of the selection; one request at a time, until there was no change meanwhile.
  async count() {
    if (this.isCounting) return;
    this.isCounting = true;
    try {
      while (this.isStale) {
        this.isStale = false;
        // Without a selection the counts are needed only while the statistics are open.
        const isWanted = !this.selection.isEmpty || find("#statistics").open;
        const query = this.selection.query();
        const found = isWanted ? await this.numbers(query) : null;
        if (!this.isStale) this.showNumbers(found, query);
      }
    } finally {
      this.isCounting = false;
    }
  }

  // The numbers of a selection; an error counts only if the selection did not change meanwhile.
  async numbers(query) {
    try {
      return await json(`layers/${this.map.number}/selection?${query}`);
    } catch (error) {
      if (!this.isStale) throw error;
      return null;
    }
  }

  showNumbers(found, query) {
    const { layer } = this.map;
    const { isEmpty, bars } = this.selection;
    for (const histogram of this.histograms) {
      const { name } = histogram;
      const part = isEmpty ? null : name in OF_OTHERS ? found[name] : found.values[name];
      histogram.update(part ?? null, bars.get(histogram.name));
    }
    const all = count(layer.echoes, "echo");
    find("#selection-status").textContent = isEmpty
      ? `No selection, ${all}.`
      : `${found.echoes.toLocaleString("en")} of ${all} selected, of ${count(found.shots, "shot")}.`;
    this.showFiles(isEmpty || !found.echoes ? [] : found.formats, query);
    if (found) this.showFits(found.worst);
    const { dataset } = find("#selection");
    dataset.echoes = isEmpty ? "" : found.echoes;
    dataset.state = "ready";
  }

  showFiles(formats, query) {
    const links = formats.map((format) => {
      // A file is downloaded; an error is shown in another tab, so that the selection stays.
      const link = Object.assign(document.createElement("a"), { textContent: FORMATS[format] ?? format, target: "_blank" });
      link.href = `layers/${this.map.number}/selection.${format}?${query}`;
      return link;
    });
    find("#selection-files").replaceChildren(...(links.length ? ["Save as ", ...links] : []));
  }

  showFits(worst) {
    const none = this.map.layer.values.some((value) => value.name === "chi_square" && value.histogram)
      ? "No echo of the selection has a reduced chi²."
      : "The echoes have no reduced chi²; only mode pulse-fit computes it.";
    find("#worst").replaceChildren(...worst.map((fit) => {
      const entry = document.createElement("li");
      const button = document.createElement("button");
      button.type = "button";
      button.textContent = `${fit.chi_square} · waveform ${fit.waveform}`;
      button.dataset.waveform = fit.waveform;
      button.addEventListener("click", () => this.onEcho(fit));
      entry.append(button);
      return entry;
    }));
    find("#worst-note").textContent = worst.length ? "" : none;
  }

  // The width of the side view has changed.
  changedSide() {
    if (this.selection.slab?.side === this.map.side) this.changed();
  }

  // ---- box in numbers ----

  showNumbersOfRegion() {
    const { origin, size } = this.map.layer;
    const { box, slab } = this.selection;
    const digits = Math.min(Math.max(6 - Math.floor(Math.log10(size)), 0), 15); // a millionth of the extent
    const show = (id, value) => (find(`#${id}`).value = value === undefined ? "" : Number(value.toFixed(digits)));
    SIDES.forEach((side, i) => show(side, box ? box[i] + origin[i % 2] : undefined));
    for (const id of ["#slab-form", "#select-side"]) find(id).hidden = !this.map.side;
    const shown = slab?.side === this.map.side ? slab : null;
    const numbers = shown ? [slab.from, slab.to, slab.low + origin[2], slab.high + origin[2]] : [];
    SLAB.forEach((id, i) => show(id, numbers[i]));
  }

  readBox() {
    const { origin } = this.map.layer;
    const [west, south, east, north] = this.read(SIDES).map((value, i) => value - origin[i % 2]);
    if (north !== undefined) this.selection.setBox([west, south], [east, north]);
  }

  readSlab() {
    const { layer, side } = this.map;
    const [from, to, low, high] = this.read(SLAB);
    if (high === undefined) return;
    this.selection.setSlab(side, [from, low - layer.origin[2]], [to, high - layer.origin[2]]);
  }

  // The numbers of fields; none until all are given. All empty fields remove the box.
  read(ids) {
    const texts = ids.map((id) => find(`#${id}`).value);
    if (texts.every((text) => text === "")) {
      this.selection.removeRegion();
      this.changed();
    }
    return texts.some((text) => text === "") ? [] : texts.map(Number);
  }

  selectView() {
    this.selection.setBox(...this.map.corners());
  }

  selectSide() {
    const { side } = this.map;
    const { across, up } = side.scales(this.map.sideArea());
    const [[from, to], [low, high]] = [across.domain(), up.domain()];
    this.selection.setSlab(side, [from, low], [to, high]);
  }

  listen() {
    find("#clear").addEventListener("click", () => this.clear());
    find("#select-view").addEventListener("click", () => this.selectView());
    find("#box-form").addEventListener("change", () => this.readBox());
    find("#slab-form").addEventListener("change", () => this.readSlab());
    find("#select-side").addEventListener("click", () => this.selectSide());
    find("#statistics").addEventListener("toggle", () => this.changed());
    document.addEventListener("keydown", (event) => {
      const isAny = !this.selection.isEmpty || this.wantedBars;
      if (event.key === "Escape" && isAny && !event.target.closest("select")) this.clear();
    });
  }
}

// The histograms of a layer, and of the noise of its scan.
function described(layer, noise) {
  const found = [];
  for (const { name, label, unit, category, histogram } of layer.values) {
    if (!histogram) continue;
    const shots = name === "shot_echoes";
    const { edges, counts } = shots ? layer.shots : histogram;
    const of = OF_OTHERS[name] ?? "echoes";
    found.push({ name, label: shots ? "echoes per shot" : label, unit, category, of, edges, counts });
  }
  if (noise) {
    found.push({ name: "noise", label: "noise rms", unit: "counts", category: false, of: OF_OTHERS.noise, ...noise });
  }
  return found;
}
