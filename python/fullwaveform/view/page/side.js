// The side view: echoes near a line of the map, by their distance along it and their height.

import { scaleLinear } from "./libraries/libraries.min.js";

export class SideView {
  // The line from one place of the map to another one; `halfWidth` to either side of it is shown.
  constructor(start, end, halfWidth) {
    const length = Math.hypot(end[0] - start[0], end[1] - start[1]);
    const along = [(end[0] - start[0]) / length, (end[1] - start[1]) / length];
    Object.assign(this, { start, end, length, along, halfWidth, heights: [0, 1] });
  }

  // Distance along the line and height of a point; null outside of the view.
  seen(x, y, z) {
    const { start, along, length, halfWidth } = this;
    const [dx, dy] = [x - start[0], y - start[1]];
    const at = dx * along[0] + dy * along[1];
    const aside = Math.abs(dx * along[1] - dy * along[0]);
    return at >= 0 && at <= length && aside <= halfWidth ? [at, z] : null;
  }

  // Notes the lowest and highest of the points that are seen, of columns of several nodes.
  measure(nodes) {
    let [low, high] = [Infinity, -Infinity];
    for (const { x, y, z } of nodes) {
      for (let i = 0; i < x.length; i++) {
        if ((z[i] < low || z[i] > high) && this.seen(x[i], y[i], z[i])) {
          low = Math.min(low, z[i]);
          high = Math.max(high, z[i]);
        }
      }
    }
    this.heights = low <= high ? [low, high] : [0, 1];
  }

  // Scales of distance and height in an area of the canvas.
  scales(area) {
    const [low, high] = this.heights;
    const room = Math.max(high - low, 1e-3) * 0.05;
    const across = scaleLinear([0, this.length], [area.left, area.left + area.width]);
    const up = scaleLinear([low - room, high + room], [area.top + area.height, area.top]);
    return { across, up };
  }

  // The place on the line at a distance from its start.
  at(distance) {
    return [this.start[0] + this.along[0] * distance, this.start[1] + this.along[1] * distance];
  }

  // Corners of the part of the map that is seen between two distances.
  footprint(from, to) {
    const aside = [-this.along[1] * this.halfWidth, this.along[0] * this.halfWidth];
    const moved = ([x, y], sign) => [x + sign * aside[0], y + sign * aside[1]];
    const [first, last] = [this.at(from), this.at(to)];
    return [moved(first, 1), moved(last, 1), moved(last, -1), moved(first, -1)];
  }
}
