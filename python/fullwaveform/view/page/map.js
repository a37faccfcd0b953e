// The map: echoes from above, and from the side along a line that the user draws.

import { nodePoints } from "./data.js";
import { axisBottom, axisLeft, scaleLinear, select } from "./libraries/libraries.min.js";
import { PointCloud } from "./pointcloud.js";

const MARGIN = { left: 76, right: 8, top: 6, bottom: 36 };
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
    this.line = null;
    this.marked = null;
    new ResizeObserver(() => this.resized()).observe(element);
    this.listen();
  }

  show(number, valueName) {
    this.cloud.clear();
    this.loading = new Set(); // requests for the former layer keep theirs
    this.number = number;
    this.layer = this.session.layers[number];
    this.nodes = this.layer.nodes;
    this.children = childrenOf(this.nodes);
    this.ratio = this.layer.ratio; // of a unit of x to one of y, in length
    this.valueName = valueName;
    this.whole();
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

  // Shows a box, null for none, and highlights echoes, see `PointCloud.highlight`.
  select(box, chooser) {
    this.box = box;
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
    const height = this.line ? clientHeight * (1 - SIDE_SHARE) : clientHeight;
    return inside({ left: 0, top: 0, width: clientWidth, height });
  }

  sideArea() {
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
    const length = Math.hypot(end[0] - start[0], end[1] - start[1]);
    this.line = length > 0 && {
      start,
      along: [(end[0] - start[0]) / length, (end[1] - start[1]) / length],
      length,
      halfWidth,
    };
    // The side view takes a part of the map's area; the line stays in view.
    const area = this.mapArea();
    const isVisible = [start, end].map((place) => this.toScreen(place)).every(([left, top]) =>
      left >= area.left && left <= area.left + area.width && top >= area.top && top <= area.top + area.height);
    if (this.line && !isVisible) {
      this.middle = [(start[0] + end[0]) / 2, (start[1] + end[1]) / 2];
      this.scale = Math.min(this.scale, (0.9 * Math.min(area.width, area.height)) / length);
    }
    this.moved();
  }

  removeLine() {
    this.line = null;
    this.moved();
  }

  sideScales() {
    const area = this.sideArea();
    const [low, high] = this.heights;
    const room = Math.max(high - low, 1e-3) * 0.05;
    const across = scaleLinear([0, this.line.length], [area.left, area.left + area.width]);
    const up = scaleLinear([low - room, high + room], [area.top + area.height, area.top]);
    return { across, up };
  }

  // Lowest and highest echo in the side view, of those in memory.
  heightsAlongLine() {
    let [low, high] = [Infinity, -Infinity];
    for (const node of this.wanted) {
      const columns = this.cloud.nodes.get(node)?.columns;
      if (!columns) continue;
      const { x, y, z } = columns;
      for (let i = 0; i < x.length; i++) {
        if ((z[i] < low || z[i] > high) && this.fromSide(x[i], y[i], z[i])) {
          low = Math.min(low, z[i]);
          high = Math.max(high, z[i]);
        }
      }
    }
    return low <= high ? [low, high] : [0, 1];
  }

  // Distance along the line and height of a point; null outside of the side view.
  fromSide(x, y, z) {
    const { start, along, length, halfWidth } = this.line;
    const [dx, dy] = [x - start[0], y - start[1]];
    const at = dx * along[0] + dy * along[1];
    const aside = Math.abs(dx * along[1] - dy * along[0]);
    return at >= 0 && at <= length && aside <= halfWidth ? [at, z] : null;
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
    const { layer, loading } = this;
    const missing = nodes.filter((node) => !this.cloud.nodes.has(node) && !loading.has(node));
    if (!missing.length) return false;
    missing.forEach((node) => loading.add(node));
    this.showState();
    try {
      const counts = missing.map((node) => this.nodes.count[node]);
      const columns = await nodePoints(layer, this.number, missing, counts);
      if (layer !== this.layer) return false; // another file was chosen
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
    if (this.line) {
      this.heights = this.heightsAlongLine();
      const side = this.sideArea();
      const { across, up } = this.sideScales();
      const [low, high] = up.domain();
      areas.push({
        ...side,
        line: this.line,
        middle: [this.line.length / 2, (low + high) / 2],
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
    if (this.line) {
      const side = this.sideArea();
      const { across, up } = this.sideScales();
      up.domain(up.domain().map((value) => value + origin[2]));
      drawAxes(overlay, side, across, up, label("distance along the line", xAxis), label(zAxis.name, zAxis));
      const { start, along, length } = this.line;
      this.drawLine(start, [start[0] + along[0] * length, start[1] + along[1] * length]);
    }
    if (this.box) this.drawBox(this.box.slice(0, 2), this.box.slice(2));
    if (this.marked) this.drawMark();
  }

  clipToMap() {
    const area = this.mapArea();
    if (!this.overlay.select("#map-area").empty()) return;
    this.overlay.append("clipPath").attr("id", "map-area").append("rect").attr("x", area.left)
      .attr("y", area.top).attr("width", area.width).attr("height", area.height);
  }

  drawBox(corner, opposite) {
    const [[x1, y1], [x2, y2]] = [this.toScreen(corner), this.toScreen(opposite)];
    this.clipToMap();
    this.overlay.append("rect").attr("class", "selection-box").attr("clip-path", "url(#map-area)")
      .attr("fill", "none").attr("stroke", "#ffffff").attr("stroke-width", 1.5).attr("stroke-dasharray", "6 3")
      .attr("x", Math.min(x1, x2)).attr("y", Math.min(y1, y2))
      .attr("width", Math.abs(x2 - x1)).attr("height", Math.abs(y2 - y1));
  }

  drawLine(start, end) {
    const [[x1, y1], [x2, y2]] = [this.toScreen(start), this.toScreen(end)];
    this.clipToMap();
    this.overlay.append("line").attr("class", "side-line").attr("clip-path", "url(#map-area)")
      .attr("stroke", "#ffd166").attr("stroke-width", 2)
      .attr("x1", x1).attr("y1", y1).attr("x2", x2).attr("y2", y2);
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
    const seen = this.line && this.fromSide(...this.marked);
    if (seen) {
      const { across, up } = this.sideScales();
      circle([across(seen[0]), up(seen[1])]);
    }
  }

  // ---- what the user does ----

  // The echo next to a place of the element: node and number in it; null if none is near.
  echoAt([left, top], reach = REACH) {
    const side = this.line && top > this.element.clientHeight * (1 - SIDE_SHARE);
    const scales = side && this.sideScales();
    let best = reach * reach;
    let found = null;
    for (const node of this.wanted) {
      const columns = this.cloud.nodes.get(node)?.columns;
      if (!columns) continue;
      const { x, y, z } = columns;
      const [cx, cy] = this.toMap([left, top]);
      for (let i = 0; i < x.length; i++) {
        let distance;
        if (side) {
          const seen = this.fromSide(x[i], y[i], z[i]);
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
      tool = event.shiftKey ? "box" : this.tool;
    });
    element.addEventListener("pointermove", (event) => {
      if (!from) return;
      const place = placeOf(event);
      if (tool === "line" || tool === "box") {
        this.drawOverlay();
        this[tool === "box" ? "drawBox" : "drawLine"](this.toMap(from), this.toMap(place));
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
      from = null;
    });
    element.addEventListener("pointercancel", () => (from = null));
    element.addEventListener("wheel", (event) => {
      event.preventDefault();
      this.zoom(1.0015 ** -event.deltaY, placeOf(event));
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

function inside(box) {
  return {
    left: box.left + MARGIN.left,
    top: box.top + MARGIN.top,
    width: Math.max(box.width - MARGIN.left - MARGIN.right, 10),
    height: Math.max(box.height - MARGIN.top - MARGIN.bottom, 10),
  };
}

function drawAxes(overlay, area, x, y, xLabel, yLabel) {
  const bottom = area.top + area.height;
  overlay.append("g").attr("transform", `translate(0,${bottom})`).call(axisBottom(x).ticks(area.width / 110));
  overlay.append("g").attr("transform", `translate(${area.left},0)`).call(axisLeft(y).ticks(area.height / 60));
  overlay.append("text").attr("x", area.left + area.width / 2).attr("y", bottom + 32)
    .attr("text-anchor", "middle").text(xLabel);
  overlay.append("text").attr("transform", `translate(12,${area.top + area.height / 2}) rotate(-90)`)
    .attr("text-anchor", "middle").text(yLabel);
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
