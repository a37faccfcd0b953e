// Which echoes are selected: those in a box of the map, or in one of a side view, that are in a chosen
// bar of each histogram.

export class Selection {
  // `onChange()` is called after each change.
  constructor(onChange) {
    this.onChange = onChange;
    this.show(null, null);
  }

  // Starts with no selection among the echoes of a layer; `noise` is the histogram of the waveforms.
  show(layer, noise) {
    this.removeRegion();
    this.bars = new Map();
    this.edges = new Map();
    for (const value of layer?.values ?? []) {
      if (value.histogram) this.edges.set(value.name, value.histogram.edges);
    }
    if (noise) this.edges.set("noise", noise.edges);
  }

  get isEmpty() {
    return !this.box && !this.slab && !this.bars.size;
  }

  clear() {
    this.removeRegion();
    this.bars.clear();
    this.onChange();
  }

  // A box by two of its corners, from the origin of the layer; the server compares 32 bits as well.
  setBox([x1, y1], [x2, y2]) {
    this.slab = null;
    this.box = [Math.min(x1, x2), Math.min(y1, y2), Math.max(x1, x2), Math.max(y1, y2)].map(Math.fround);
    this.onChange();
  }

  // A box of a side view by two of its corners: distance along its line, and height from the origin.
  setSlab(side, [from, low], [to, high]) {
    this.box = null;
    this.slab = { side, from: Math.min(from, to), to: Math.max(from, to), low: Math.min(low, high), high: Math.max(low, high) };
    this.onChange();
  }

  removeRegion() {
    this.box = null;
    this.slab = null; // of a side view
  }

  // The chosen bars of a histogram, a set of numbers; all echoes if it is empty.
  setBars(name, numbers) {
    if (numbers.size) this.bars.set(name, numbers);
    else this.bars.delete(name);
    this.onChange();
  }

  query() {
    const query = new URLSearchParams();
    if (this.box) query.set("box", this.box.join());
    if (this.slab) query.set("slab", slabNumbers(this.slab).join());
    for (const [name, numbers] of this.bars) query.append("bars", `${name}:${[...numbers].sort((a, b) => a - b)}`);
    return query;
  }

  // 255 for each of the points that is selected, else 0; null if there is no selection.
  chosen(columns) {
    if (this.isEmpty) return null;
    const { x, y, z } = columns;
    const found = new Uint8Array(x.length).fill(255);
    if (this.box) {
      const [west, south, east, north] = this.box;
      for (let i = 0; i < x.length; i++) {
        if (!(x[i] >= west && x[i] <= east && y[i] >= south && y[i] <= north)) found[i] = 0;
      }
    }
    if (this.slab) {
      const isInside = insideSlab(this.slab);
      for (let i = 0; i < x.length; i++) if (!isInside(x[i], y[i], z[i])) found[i] = 0;
    }
    for (const [name, numbers] of this.bars) {
      const numberOf = classNumber(this.edges.get(name));
      const values = columns[name];
      for (let i = 0; i < values.length; i++) if (!numbers.has(numberOf(values[i]))) found[i] = 0;
    }
    return found;
  }
}

// Both ends of the line of a slab, half of its width, its lowest and its highest place.
function slabNumbers({ side, from, to, low, high }) {
  return [...side.at(from), ...side.at(to), side.halfWidth, low, high];
}

// Whether a place is in a slab. Computed step by step as on the server, in 64 bits.
function insideSlab(slab) {
  const [x1, y1, x2, y2, halfWidth, low, high] = slabNumbers(slab);
  const [ux, uy] = [x2 - x1, y2 - y1];
  const square = ux * ux + uy * uy;
  const reach = halfWidth * Math.sqrt(square);
  return (x, y, z) => {
    const [dx, dy] = [x - x1, y - y1];
    const at = dx * ux + dy * uy;
    return square > 0 && at >= 0 && at <= square && Math.abs(dx * uy - dy * ux) <= reach && z >= low && z <= high;
  };
}

// Number of the class of a value, -1 if it is unknown. Computed in 32 bits as on the server, so
// that the echoes shown are those counted.
export function classNumber(edges) {
  const last = edges.length - 2;
  const low = Math.fround(edges[0]);
  const perUnit = Math.fround((last + 1) / (edges[edges.length - 1] - edges[0]));
  return (value) => {
    if (!Number.isFinite(value)) return -1;
    return Math.trunc(Math.min(Math.max(Math.fround(Math.fround(value - low) * perUnit), 0), last));
  };
}
