// The map: echoes from above, and from the side along a line that the user draws.

import { drawAxes, drawLine, drawOutline, inside } from "./areas.js";
import { nodePoints } from "./data.js";
import { scaleLinear, select } from "./libraries/libraries.min.js";
import { PointCloud } from "./pointcloud.js";
import { SideView } from "./side.js";

const SIDE_SHARE = 0.36; // of the height
const NODE_EDGE = 100; // pixels of the screen above which a node is divided
const MOVING_POINTS = 100_000; // drawn while the map moves; all are drawn when it rests
const REST_MS = 200; // without a move until all are drawn, more where frames take longer
const LONGEST_STEP_MS = 600; // between two moves that belong together
const KEPT_POINTS = 1_500_000; // in memory, also of places out of view
const REACH = 10; // pixels from a click to an echo
const BACKGROUND = [0.078, 0.094, 0.114];
const UNKNOWN = 0xffffffff;

export class EchoMap {
  // `onPick(index, waveform, place)` is called for the echo that the user chooses.
  constructor(element, session, onPick, onError) {
    Object.assign(this, { element, session, onPick, onError });
    this.cloud = new PointCloud(element.querySelector("canvas"));
    this.overlay = select(element.querySelector("svg"));
    this.tool = "pan";
    this.wanted = [];
    this.loading = new Set();
    this.withNoise = false; // whether points have the noise of their waveforms
    this.side = null; // the side view, if there is one
    this.marked = null;
    new ResizeObserver(() => this.resized()).observe(element);
    this.listen();
  }

  show(number, valueName) {
    this.cloud.clear();
    this.loading = new Set(); // requests for the former layer keep theirs
    const former = this.layer;
    this.number = number;
    this.layer = this.session.layers[number];
    if (former) this.moveOrigin(former.origin.map((value, axis) => value - this.layer.origin[axis]));
    this.nodes = this.layer.nodes;
    this.children = childrenOf(this.nodes);
    this.ratio = this.layer.ratio; // of a unit of x to one of y, in length
    this.valueName = valueName;
    this.whole();
  }

  // Places count from the origin of the layer.
  moveOrigin(shift) {
    const moved = (place) => place.map((value, axis) => value + shift[axis]);
    if (this.marked) this.marked = moved(this.marked);
    if (this.side) this.side = new SideView(moved(this.side.start), moved(this.side.end), this.side.halfWidth);
  }

  // Loads the points anew, with the noise of their waveforms.
  addNoise() {
    if (this.withNoise) return;
    this.withNoise = true;
    this.cloud.clear();
    this.loading = new Set();
    this.moved(0);
  }

  setColours(valueName, colours, range, smooth) {
    this.valueName = valueName;
    this.cloud.setColours(colours, range, smooth);
    this.cloud.colourBy(valueName);
    this.draw();
  }

  // Shows all echoes.
  whole() {
    const { low, size } = this.layer;
    const area = this.mapArea();
    this.scale = 0.96 * Math.min(area.width / this.ratio, area.height) / size;
    this.middle = [low[0] + size / 2, low[1] + size / 2];
    this.moved(0);
  }

  // Shows the outline of a selection, and highlights echoes, see `PointCloud.highlight`.
  select(selection, chooser) {
    this.selection = selection;
    this.cloud.highlight(chooser);
    this.draw();
  }

  // South-west and north-east corner of the part that is shown.
  corners() {
    this.resized(); // in case that was not reported yet
    const area = this.mapArea();
    return [this.toMap([area.left, area.top + area.height]), this.toMap([area.left + area.width, area.top])];
  }

  // ---- areas of the canvas ----

  mapArea() {
    const { clientWidth, clientHeight } = this.element;
    const height = this.side ? clientHeight * (1 - SIDE_SHARE) : clientHeight;
    return inside({ left: 0, top: 0, width: clientWidth, height });
  }

  sideArea() {
    if (!this.side) return null;
    const { clientWidth, clientHeight } = this.element;
    const top = clientHeight * (1 - SIDE_SHARE);
    return inside({ left: 0, top, width: clientWidth, height: clientHeight - top });
  }

  // From the map to pixels of the element and back.
  toScreen([x, y]) {
    const area = this.mapArea();
    return [
      area.left + area.width / 2 + (x - this.middle[0]) * this.scale * this.ratio,
      area.top + area.height / 2 - (y - this.middle[1]) * this.scale,
    ];
  }

  toMap([left, top]) {
    const area = this.mapArea();
    return [
      this.middle[0] + (left - area.left - area.width / 2) / (this.scale * this.ratio),
      this.middle[1] - (top - area.top - area.height / 2) / this.scale,
    ];
  }

  // ---- side view ----

  setLine(start, end, halfWidth) {
    const side = new SideView(start, end, halfWidth);
    this.side = side.length > 0 ? side : null;
    // The side view takes a part of the map's area; the line stays in view.
    const area = this.mapArea();
    const isVisible = [start, end].map((place) => this.toScreen(place)).every(([left, top]) =>
      left >= area.left && left <= area.left + area.width && top >= area.top && top <= area.top + area.height);
    if (this.side && !isVisible) {
      this.middle = [(start[0] + end[0]) / 2, (start[1] + end[1]) / 2];
      this.scale = Math.min(this.scale, (0.9 * Math.min(area.width, area.height)) / side.length);
    }
    this.moved();
    this.onSide();
  }

  removeLine() {
    this.side = null;
    this.moved();
    this.onSide();
  }

  // Shows about the same part in an element of another size.
  resized() {
    const { clientWidth, clientHeight } = this.element;
    const { width, height } = inside({ left: 0, top: 0, width: clientWidth, height: clientHeight });
    const extent = Math.min(width, height);
    if (this.extent) this.scale *= extent / this.extent;
    this.extent = extent;
    this.moved();
  }

  // ---- what is drawn ----

  // To be called after each change of the view: draws at once, and loads what is missing.
  moved(delay = this.restTime()) {
    if (!this.layer) return;
    this.wanted = this.nodesInView();
    this.draw(MOVING_POINTS);
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.load().catch(this.onError), delay);
  }

  // Twice the time of a step where that is longer: all of the echoes between two steps would delay
  // the next one.
  restTime() {
    const step = performance.now() - (this.lastMove ?? -Infinity);
    this.lastMove = performance.now();
    return step < LONGEST_STEP_MS ? Math.max(REST_MS, 2 * step) : REST_MS;
  }

  // Nodes in the view from the root on, as many levels as may be drawn.
  nodesInView() {
    const { level, column, row } = this.nodes;
    const area = this.mapArea();
    const [west, north] = this.toMap([area.left, area.top]);
    const [east, south] = this.toMap([area.left + area.width, area.top + area.height]);
    const found = [];
    let current = level.length ? [0] : [];
    while (current.length) {
      const next = [];
      for (const node of current) {
        const edge = this.layer.size / 2 ** level[node];
        const left = this.layer.low[0] + column[node] * edge;
        const bottom = this.layer.low[1] + row[node] * edge;
        if (left > east || left + edge < west || bottom > north || bottom + edge < south) continue;
        found.push(node);
        if (edge * this.scale > NODE_EDGE) next.push(...this.children[node]);
      }
      current = next;
    }
    return this.wholeLevels(found, this.session.max_points);
  }

  // The first levels of nodes that have no more points than the limit: a part of a level would be
  // an area with more points than the rest.
  wholeLevels(nodes, limit) {
    const { level, count } = this.nodes;
    let [total, end] = [0, 0];
    nodes.forEach((node, i) => {
      total += count[node];
      if (total <= limit && level[node] !== level[nodes[i + 1]]) end = i + 1;
    });
    return nodes.slice(0, end);
  }

  // The coarse levels come first, so that there is a picture early.
  async load() {
    const coarse = this.wholeLevels(this.wanted, MOVING_POINTS);
    if (coarse.length < this.wanted.length && (await this.add(coarse))) this.draw(MOVING_POINTS);
    await this.add(this.wanted);
    this.draw();
  }

  // Loads nodes that are not in memory; false if all are.
  async add(nodes) {
    const { layer, loading, withNoise } = this;
    const missing = nodes.filter((node) => !this.cloud.nodes.has(node) && !loading.has(node));
    if (!missing.length) return false;
    missing.forEach((node) => loading.add(node));
    this.showState();
    try {
      const counts = missing.map((node) => this.nodes.count[node]);
      const columns = await nodePoints(layer, this.number, missing, counts, withNoise);
      if (layer !== this.layer || withNoise !== this.withNoise) return false; // asked for once more
      missing.forEach((node, i) => this.cloud.add(node, columns[i], this.valueName));
      this.forget();
    } finally {
      missing.forEach((node) => loading.delete(node));
    }
    return true;
  }

  // Removes nodes out of view if too many points are in memory.
  forget() {
    let total = 0;
    for (const { count } of this.cloud.nodes.values()) total += count;
    const inView = new Set(this.wanted);
    for (const [node, { count }] of [...this.cloud.nodes]) {
      if (total <= KEPT_POINTS) break;
      if (inView.has(node)) continue;
      this.cloud.remove(node);
      total -= count;
    }
  }

  // Draws the nodes in view; with a limit only the coarse ones, as many as it allows.
  draw(limit = Infinity) {
    if (!this.layer || !this.cloud.texture) return;
    const nodes = this.wholeLevels(this.wanted, limit);
    this.isWhole = nodes.length === this.wanted.length;
    const area = this.mapArea();
    const few = this.layer.echoes < 50_000;
    const areas = [
      {
        ...area,
        middle: this.middle,
        scale: [(2 * this.scale * this.ratio) / area.width, (2 * this.scale) / area.height],
        pointSize: few ? 4 : 2,
      },
    ];
    if (this.side) {
      this.side.measure(this.wanted.map((node) => this.cloud.nodes.get(node)?.columns).filter(Boolean));
      const side = this.sideArea();
      const { across, up } = this.side.scales(side);
      const [low, high] = up.domain();
      areas.push({
        ...side,
        line: this.side,
        middle: [this.side.length / 2, (low + high) / 2],
        scale: [2 / (across.domain()[1] || 1), 2 / (high - low)],
        pointSize: 3,
      });
    }
    this.drawn = this.cloud.draw(nodes, areas, BACKGROUND);
    this.drawOverlay();
    this.showState();
  }

  // For scripts and tests: what is drawn, and whether more is to come.
  showState() {
    this.element.dataset.points = this.drawn;
    this.element.dataset.complete = Boolean(this.isWhole) && this.wanted.every((node) => this.cloud.nodes.has(node));
  }

  drawOverlay() {
    const { origin } = this.layer;
    const area = this.mapArea();
    const [west, north] = this.toMap([area.left, area.top]);
    const [east, south] = this.toMap([area.left + area.width, area.top + area.height]);
    const x = scaleLinear([west + origin[0], east + origin[0]], [area.left, area.left + area.width]);
    const y = scaleLinear([south + origin[1], north + origin[1]], [area.top + area.height, area.top]);
    const overlay = this.overlay;
    const [xAxis, yAxis, zAxis] = this.session.axes;
    const label = (name, { unit }) => `${name}, ${unit}`;
    overlay.selectAll("*").remove();
    drawAxes(overlay, area, x, y, label(xAxis.name, xAxis), label(yAxis.name, yAxis));
    if (this.side) {
      const { across, up } = this.side.scales(this.sideArea());
      up.domain(up.domain().map((value) => value + origin[2]));
      drawAxes(overlay, this.sideArea(), across, up, label("distance along the line", xAxis), label(zAxis.name, zAxis));
      drawLine(overlay, area, this.toScreen(this.side.start), this.toScreen(this.side.end));
    }
    this.drawSelection();
    if (this.marked) this.drawMark();
  }

  drawSelection() {
    const { box, slab } = this.selection ?? {};
    if (box) this.drawBox(box.slice(0, 2), box.slice(2));
    if (!slab) return;
    const { side, from, to, low, high } = slab;
    drawOutline(this.overlay, this.mapArea(), side.footprint(from, to).map((corner) => this.toScreen(corner)));
    if (side === this.side) this.drawSlab([from, low], [to, high]);
  }

  // Draws a box of the map by two of its corners.
  drawBox([x1, y1], [x2, y2]) {
    const corners = [[x1, y1], [x2, y1], [x2, y2], [x1, y2]];
    drawOutline(this.overlay, this.mapArea(), corners.map((corner) => this.toScreen(corner)));
  }

  // Draws a box of the side view by two of its corners, distance and height each.
  drawSlab([from, low], [to, high]) {
    const { across, up } = this.side.scales(this.sideArea());
    const corners = [[from, low], [to, low], [to, high], [from, high]];
    drawOutline(this.overlay, this.sideArea(), corners.map(([at, z]) => [across(at), up(z)]));
  }

  // Marks the echo at a place, and moves the map if it is out of view.
  mark(xyz) {
    this.marked = xyz && xyz.map((value, axis) => value - this.layer.origin[axis]);
    if (this.marked) {
      const area = this.mapArea();
      const [left, top] = this.toScreen(this.marked);
      const isInside = left >= area.left && left <= area.left + area.width &&
        top >= area.top && top <= area.top + area.height;
      if (!isInside) {
        this.middle = this.marked.slice(0, 2);
        this.moved();
        return;
      }
    }
    this.drawOverlay();
  }

  drawMark() {
    const circle = ([left, top]) => this.overlay.append("circle").attr("class", "mark")
      .attr("cx", left).attr("cy", top).attr("r", 7).attr("fill", "none")
      .attr("stroke", "#ffffff").attr("stroke-width", 2);
    circle(this.toScreen(this.marked));
    const seen = this.side?.seen(...this.marked);
    if (seen) {
      const { across, up } = this.side.scales(this.sideArea());
      circle([across(seen[0]), up(seen[1])]);
    }
  }

  // ---- what the user does ----

  // Whether a place of the element is in the side view.
  isInSide([, top]) {
    return this.side !== null && top > this.element.clientHeight * (1 - SIDE_SHARE);
  }

  // Distance along the line and height, within the view, at a place of the element.
  toSide([left, top]) {
    const { across, up } = this.side.scales(this.sideArea());
    const [low, high] = up.domain();
    return [
      Math.min(Math.max(across.invert(left), 0), this.side.length),
      Math.min(Math.max(up.invert(top), low), high),
    ];
  }

  // The echo next to a place of the element: node and number in it; null if none is near.
  echoAt([left, top], reach = REACH) {
    const scales = this.isInSide([left, top]) && this.side.scales(this.sideArea());
    let best = reach * reach;
    let found = null;
    for (const node of this.wanted) {
      const columns = this.cloud.nodes.get(node)?.columns;
      if (!columns) continue;
      const { x, y, z } = columns;
      const [cx, cy] = this.toMap([left, top]);
      for (let i = 0; i < x.length; i++) {
        let distance;
        if (scales) {
          const seen = this.side.seen(x[i], y[i], z[i]);
          if (!seen) continue;
          distance = (scales.across(seen[0]) - left) ** 2 + (scales.up(seen[1]) - top) ** 2;
        } else {
          distance = (((x[i] - cx) * this.ratio) ** 2 + (y[i] - cy) ** 2) * this.scale ** 2;
        }
        if (distance < best) {
          best = distance;
          found = { node, i };
        }
      }
    }
    return found;
  }

  pick(place, reach) {
    const found = this.echoAt(place, reach);
    if (!found) return;
    const columns = this.cloud.nodes.get(found.node).columns;
    const waveform = columns.waveform[found.i];
    const index = this.firstOf(found.node) + found.i;
    const { origin } = this.layer;
    const xyz = ["x", "y", "z"].map((name, axis) => columns[name][found.i] + origin[axis]);
    this.onPick({ index, waveform: waveform === UNKNOWN ? null : waveform, xyz });
  }

  // Number of the first echo of a node in the order of the index.
  firstOf(node) {
    let first = 0;
    for (let i = 0; i < node; i++) first += this.nodes.count[i];
    return first;
  }

  pan(dx, dy) {
    const across = this.scale * this.ratio;
    this.middle = [this.middle[0] - dx / across, this.middle[1] + dy / this.scale];
    this.moved();
  }

  // Zooms by a factor around a place of the element, by default the middle of the map.
  zoom(factor, place) {
    const area = this.mapArea();
    const at = place ?? [area.left + area.width / 2, area.top + area.height / 2];
    const fixed = this.toMap(at);
    this.scale *= factor;
    const moved = this.toMap(at);
    this.middle = [this.middle[0] + fixed[0] - moved[0], this.middle[1] + fixed[1] - moved[1]];
    this.moved();
  }

  listen() {
    const element = this.element;
    let from = null;
    let last = null;
    let tool = null; // of the drag in progress
    const placeOf = (event) => {
      const box = element.getBoundingClientRect();
      return [event.clientX - box.left, event.clientY - box.top];
    };
    element.addEventListener("pointerdown", (event) => {
      element.setPointerCapture(event.pointerId);
      from = last = placeOf(event);
      tool = this.isInSide(from) ? "slab" : event.shiftKey ? "box" : this.tool;
    });
    element.addEventListener("pointermove", (event) => {
      if (!from) return;
      const place = placeOf(event);
      if (tool !== "pan") {
        this.drawOverlay();
        if (tool === "slab") this.drawSlab(this.toSide(from), this.toSide(place));
        else if (tool === "box") this.drawBox(this.toMap(from), this.toMap(place));
        else drawLine(this.overlay, this.mapArea(), from, place);
      } else if (Math.hypot(place[0] - from[0], place[1] - from[1]) > 3 || last !== from) {
        this.pan(place[0] - last[0], place[1] - last[1]);
        last = place;
      }
    });
    element.addEventListener("pointerup", (event) => {
      if (!from) return;
      const place = placeOf(event);
      const isClick = Math.hypot(place[0] - from[0], place[1] - from[1]) <= 3;
      if (isClick) this.pick(place);
      else if (tool === "line") this.onLine(this.toMap(from), this.toMap(place));
      else if (tool === "box") this.onBox(this.toMap(from), this.toMap(place));
      else if (tool === "slab") this.onSlab(this.toSide(from), this.toSide(place));
      from = null;
    });
    element.addEventListener("pointercancel", () => (from = null));
    element.addEventListener("wheel", (event) => {
      event.preventDefault();
      if (!this.isInSide(placeOf(event))) this.zoom(1.0015 ** -event.deltaY, placeOf(event));
    }, { passive: false });
    element.addEventListener("keydown", (event) => {
      const moves = { ArrowLeft: [60, 0], ArrowRight: [-60, 0], ArrowUp: [0, 60], ArrowDown: [0, -60] };
      const area = this.mapArea();
      if (event.key in moves) this.pan(...moves[event.key]);
      else if (event.key === "+") this.zoom(1.5);
      else if (event.key === "-") this.zoom(1 / 1.5);
      else if (event.key === "Enter") {
        this.pick([area.left + area.width / 2, area.top + area.height / 2], area.width);
      } else return;
      event.preventDefault();
    });
  }
}

// The nodes one level below each node whose squares are quarters of its square.
function childrenOf({ level, column, row }) {
  const byPlace = new Map();
  const key = (l, c, r) => `${l} ${c} ${r}`;
  level.forEach((l, node) => byPlace.set(key(l, column[node], row[node]), node));
  const children = level.map(() => []);
  level.forEach((l, node) => {
    const parent = byPlace.get(key(l - 1, column[node] >> 1, row[node] >> 1));
    if (parent !== undefined) children[parent].push(node);
  });
  return children;
}
