// Which echoes are selected: those in a box of the map that are in a chosen bar of each histogram.

export class Selection {
  // `onChange()` is called after each change.
  constructor(onChange) {
    this.onChange = onChange;
    this.show(null);
  }

  // Starts with no selection among the echoes of a layer.
  show(layer) {
    this.box = null;
    this.bars = new Map();
    this.edges = new Map();
    for (const value of layer?.values ?? []) {
      if (value.histogram) this.edges.set(value.name, value.histogram.edges);
    }
  }

  get isEmpty() {
    return !this.box && !this.bars.size;
  }

  clear() {
    this.box = null;
    this.bars.clear();
    this.onChange();
  }

  // A box by two of its corners, from the origin of the layer; the server compares 32 bits as well.
  setBox([x1, y1], [x2, y2]) {
    this.box = [Math.min(x1, x2), Math.min(y1, y2), Math.max(x1, x2), Math.max(y1, y2)].map(Math.fround);
    this.onChange();
  }

  removeBox() {
    this.box = null;
    this.onChange();
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
    for (const [name, numbers] of this.bars) query.append("bars", `${name}:${[...numbers].sort((a, b) => a - b)}`);
    return query;
  }

  // 255 for each of the points that is selected, else 0; null if there is no selection.
  chosen(columns) {
    if (this.isEmpty) return null;
    const { x, y } = columns;
    const found = new Uint8Array(x.length).fill(255);
    if (this.box) {
      const [west, south, east, north] = this.box;
      for (let i = 0; i < x.length; i++) {
        if (!(x[i] >= west && x[i] <= east && y[i] >= south && y[i] <= north)) found[i] = 0;
      }
    }
    for (const [name, numbers] of this.bars) {
      const numberOf = classNumber(this.edges.get(name));
      const values = columns[name];
      for (let i = 0; i < values.length; i++) if (!numbers.has(numberOf(values[i]))) found[i] = 0;
    }
    return found;
  }
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
