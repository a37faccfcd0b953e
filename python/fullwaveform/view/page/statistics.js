// Histograms of all echoes and of the selected ones, whose bars are selected by mouse and keyboard.

import { axisBottom, axisLeft, scaleLinear, select } from "./libraries/libraries.min.js";

const MARGIN = { left: 44, right: 6, top: 6, bottom: 34 };
const SIZE = { width: 218, height: 132 };
const PART = 0.5; // width of the bar of the selection, as a share of that of the whole

// A histogram: `counts` of the whole file, of which `of` names what is counted. `onBars(set)` is
// called when bars are selected.
export class Histogram {
  constructor(parent, { name, label, unit, category, of, edges, counts }, onBars) {
    Object.assign(this, { name, label, unit, category, of, edges, counts, onBars });
    this.bars = new Set();
    this.part = null;
    this.cursor = -1;
    const figure = select(parent).append("figure").attr("data-name", name);
    this.title = `${label}${unit ? `, ${unit}` : ""}`;
    this.svg = figure.append("svg").attr("width", SIZE.width).attr("height", SIZE.height)
      .attr("aria-label", `Histogram of ${this.title}; arrows and space select bars`)
      .attr("role", "listbox").attr("aria-multiselectable", "true").attr("tabindex", 0);
    this.listen();
    this.draw();
  }

  get total() {
    return this.counts.reduce((sum, count) => sum + count, 0);
  }

  // Shows the counts of the selection, null without one, and which bars are selected.
  update(part, bars) {
    this.part = part;
    this.bars = bars ?? new Set();
    this.draw();
  }

  draw() {
    const { svg, edges, counts, part } = this;
    svg.selectAll("*").remove();
    const partTotal = part?.reduce((sum, count) => sum + count, 0) ?? 0;
    const share = (count, total) => (total ? (100 * count) / total : 0);
    const whole = counts.map((count) => share(count, this.total));
    const chosen = part?.map((count) => share(count, partTotal)) ?? [];
    const bottom = SIZE.height - MARGIN.bottom;
    const x = (this.x = scaleLinear([edges[0], edges[edges.length - 1]], [MARGIN.left, SIZE.width - MARGIN.right]));
    const y = scaleLinear([0, Math.max(...whole, ...chosen) || 1], [bottom, MARGIN.top]);
    const ticks = axisBottom(x).ticks(4);
    if (this.category) ticks.tickFormat((value) => (Number.isInteger(value) ? value : ""));
    svg.append("g").attr("transform", `translate(0,${bottom})`).call(ticks);
    svg.append("g").attr("transform", `translate(${MARGIN.left},0)`).call(axisLeft(y).ticks(4));
    svg.append("text").attr("x", SIZE.width / 2 + 8).attr("y", SIZE.height - 4)
      .attr("text-anchor", "middle").text(this.title);
    svg.append("text").attr("transform", `translate(11,${bottom / 2}) rotate(-90)`)
      .attr("text-anchor", "middle").text(`% of ${this.of}`);
    const mark = (bar, kind, height, from, to) => bar.append("rect").attr("class", kind)
      .attr("x", from).attr("width", Math.max(to - from, 1)).attr("y", y(height)).attr("height", bottom - y(height));
    counts.forEach((count, i) => {
      const [left, right] = [x(edges[i]), x(edges[i + 1])];
      const aside = ((1 - PART) * (right - left)) / 2;
      const bar = svg.append("g").attr("class", "bar").attr("id", `${this.name}-bar-${i}`).attr("data-count", count)
        .attr("data-selected", part?.[i] ?? "")
        .attr("role", "option").attr("aria-selected", this.bars.has(i)).attr("aria-label", this.textOf(i));
      bar.append("title").text(this.textOf(i));
      bar.append("rect").attr("class", "place").attr("x", left).attr("width", right - left)
        .attr("y", MARGIN.top).attr("height", bottom - MARGIN.top);
      mark(bar, "whole", whole[i], left + 0.5, right - 0.5);
      if (part) mark(bar, "part", chosen[i], left + aside, right - aside);
      if (this.bars.has(i)) bar.append("rect").attr("class", "chosen").attr("x", left).attr("width", right - left)
        .attr("y", bottom + 1).attr("height", 4);
    });
    this.showCursor();
  }

  textOf(i) {
    const text = (value) => String(+value.toPrecision(4));
    const [low, high] = [this.edges[i], this.edges[i + 1]];
    let range = `${text(low)} to ${text(high)}`;
    if (this.category) range = text(low + 0.5);
    else if (i === 0) range = `below ${text(high)}`;
    else if (i === this.counts.length - 1) range = `from ${text(low)} on`;
    const chosen = this.part ? `, ${this.part[i].toLocaleString("en")} of the selection` : "";
    return `${this.label} ${range}${this.unit ? ` ${this.unit}` : ""}: ` +
      `${this.counts[i].toLocaleString("en")} ${this.of}${chosen}`;
  }

  // ---- selecting ----

  // Outlines the bar of the keyboard, and those from there to the bar at which a drag has begun.
  showCursor(anchor = this.cursor) {
    const [low, high] = [Math.min(anchor, this.cursor), Math.max(anchor, this.cursor)];
    this.svg.selectAll(".bar").each(function (_, i) {
      this.classList.toggle("cursor", i >= low && i <= high && low >= 0);
    });
    if (this.cursor >= 0) this.svg.attr("aria-activedescendant", `${this.name}-bar-${this.cursor}`);
  }

  // Selects the bars from one to another, in addition to those selected or in place of them.
  selectRange(from, to, isAdded) {
    const bars = new Set(isAdded ? this.bars : []);
    for (let i = Math.min(from, to); i <= Math.max(from, to); i++) bars.add(i);
    const isSame = !isAdded && bars.size === this.bars.size && [...bars].every((i) => this.bars.has(i));
    this.onBars(isSame ? new Set() : bars); // the same bars once more: no longer
  }

  toggle(i) {
    const bars = new Set(this.bars);
    if (!bars.delete(i)) bars.add(i);
    this.onBars(bars);
  }

  barAt(event) {
    const box = this.svg.node().getBoundingClientRect();
    const at = this.x.invert(event.clientX - box.left);
    const found = this.edges.findIndex((edge, i) => i > 0 && at < edge) - 1;
    return at < this.edges[0] ? 0 : found < 0 ? this.counts.length - 1 : found;
  }

  listen() {
    const svg = this.svg.node();
    let from = null;
    svg.addEventListener("pointerdown", (event) => {
      svg.setPointerCapture(event.pointerId);
      from = this.cursor = this.barAt(event);
      this.showCursor();
    });
    svg.addEventListener("pointermove", (event) => {
      if (from === null) return;
      this.cursor = this.barAt(event);
      this.showCursor(from);
    });
    svg.addEventListener("pointerup", (event) => {
      if (from === null) return;
      const first = from;
      from = null;
      this.selectRange(first, this.barAt(event), event.shiftKey || event.ctrlKey);
    });
    svg.addEventListener("pointercancel", () => (from = null));
    svg.addEventListener("focus", () => {
      if (this.cursor < 0) this.cursor = 0;
      this.showCursor();
    });
    svg.addEventListener("keydown", (event) => this.press(event));
  }

  press(event) {
    const last = this.counts.length - 1;
    const moves = { ArrowLeft: this.cursor - 1, ArrowRight: this.cursor + 1, Home: 0, End: last };
    if (event.key in moves) {
      const former = this.cursor;
      this.cursor = Math.min(Math.max(moves[event.key], 0), last);
      if (event.shiftKey) this.selectRange(former, this.cursor, true);
      this.showCursor();
    } else if (event.key === " " || event.key === "Enter") this.toggle(this.cursor);
    else if (event.key === "Delete" || event.key === "Backspace") this.onBars(new Set());
    else return;
    event.preventDefault();
  }
}
