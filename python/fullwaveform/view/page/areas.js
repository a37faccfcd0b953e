// Parts of the canvas with axes around them.

import { axisBottom, axisLeft } from "./libraries/libraries.min.js";

const MARGIN = { left: 84, right: 26, top: 6, bottom: 36 };

// The part of a box of the element that is left for points.
export function inside(box) {
  return {
    left: box.left + MARGIN.left,
    top: box.top + MARGIN.top,
    width: Math.max(box.width - MARGIN.left - MARGIN.right, 10),
    height: Math.max(box.height - MARGIN.top - MARGIN.bottom, 10),
  };
}

export function drawAxes(overlay, area, x, y, xLabel, yLabel) {
  const bottom = area.top + area.height;
  overlay.append("g").attr("transform", `translate(0,${bottom})`).call(axisBottom(x).ticks(area.width / 110));
  overlay.append("g").attr("transform", `translate(${area.left},0)`).call(axisLeft(y).ticks(area.height / 60));
  overlay.append("text").attr("x", area.left + area.width / 2).attr("y", bottom + 32)
    .attr("text-anchor", "middle").text(xLabel);
  overlay.append("text").attr("transform", `translate(12,${area.top + area.height / 2}) rotate(-90)`)
    .attr("text-anchor", "middle").text(yLabel);
}

// Draws the outline of a selection, from corner to corner, as far as it is in the area.
export function drawOutline(overlay, area, corners) {
  const id = clipped(overlay, area);
  overlay.append("polygon").attr("class", "selection-box").attr("clip-path", `url(#${id})`)
    .attr("fill", "none").attr("stroke", "#ffffff").attr("stroke-width", 1.5).attr("stroke-dasharray", "6 3")
    .attr("points", corners.map((corner) => corner.join()).join(" "));
}

export function drawLine(overlay, area, [x1, y1], [x2, y2]) {
  const id = clipped(overlay, area);
  overlay.append("line").attr("class", "side-line").attr("clip-path", `url(#${id})`)
    .attr("stroke", "#8ecdf7").attr("stroke-width", 2)
    .attr("x1", x1).attr("y1", y1).attr("x2", x2).attr("y2", y2);
}

// Name of the clip path of an area.
function clipped(overlay, area) {
  const id = `area-${Math.round(area.top)}`;
  if (overlay.select(`#${id}`).empty()) {
    overlay.append("clipPath").attr("id", id).append("rect").attr("x", area.left)
      .attr("y", area.top).attr("width", area.width).attr("height", area.height);
  }
  return id;
}
