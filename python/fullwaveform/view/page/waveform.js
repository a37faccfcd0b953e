// The waveform panel: samples, levels, echoes and curves of the methods, residuals, lists.

import { axisBottom, axisLeft, line, scaleLinear, select } from "./libraries/libraries.min.js";

const MARGIN = { left: 52, right: 10, top: 8, bottom: 34 };
const HEIGHT = 230;
const RESIDUALS = 90;
const OUTGOING = 110;
const AROUND = 15; // samples shown to either side of the echoes
const REACH = 4; // widths of an echo that are shown to either side
const HEIGHT_AT_WIDTH = Math.exp(-0.5); // of a Gaussian, share of its maximum
const CURVE_WIDTHS = [3.2, 2.4, 1.8, 1.2, 0.8]; // so that equal curves are all visible

export function drawPanel(element, data, whole) {
  const root = select(element);
  root.selectAll("*").remove();
  const width = Math.max(element.clientWidth, 320);
  for (const waveform of data.waveforms) drawWaveform(root, waveform, width, whole);
  if (data.outgoing) drawOutgoing(root, data.outgoing, width);
}

export function channelName(flag) {
  return { 0: "high-power channel", 1: "low-power channel" }[flag] ?? `channel ${flag}`;
}

function drawWaveform(root, waveform, width, whole) {
  const time = waveform.gps_time === null ? "" : `, GPS time ${waveform.gps_time.toFixed(6)} s`;
  const receiver = waveform.beam || channelName(waveform.channel);
  root.append("h2").text(`Waveform ${waveform.number}, ${receiver}${time}`);
  const range = whole ? [0, waveform.samples.length - 1] : shownSamples(waveform);
  const x = scaleLinear([range[0] - 0.5, range[1] + 0.5], [MARGIN.left, width - MARGIN.right]);
  const top = highest(waveform);
  const y = scaleLinear([-0.06 * top, 1.1 * top], [HEIGHT - MARGIN.bottom, MARGIN.top]);
  const clip = `clip-${waveform.number}`;
  const svg = picture(root, width, HEIGHT, describe(waveform)).attr("data-waveform", waveform.number);
  svg.append("clipPath").attr("id", clip).append("rect").attr("x", MARGIN.left).attr("y", 0)
    .attr("width", width - MARGIN.left - MARGIN.right).attr("height", HEIGHT - MARGIN.bottom);
  axes(svg, x, y, HEIGHT, "sample", "counts");
  nanoseconds(svg, x, waveform.interval, width);
  const plot = svg.append("g").attr("clip-path", `url(#${clip})`);
  level(plot, x, y, waveform.threshold, "threshold", "#ffffff", "6 4");
  for (const [first, last] of waveform.segments) {
    plot.append("line").attr("class", "segment").attr("stroke", "#a9b4bf").attr("stroke-width", 4)
      .attr("x1", x(first)).attr("x2", x(last)).attr("y1", y(0)).attr("y2", y(0));
  }
  waveform.methods.forEach((method, i) => {
    level(plot, x, y, method.baseline, `baseline of ${method.name}`, method.colour, "1 3");
    curve(plot, method.fitted, x, y, method.colour, CURVE_WIDTHS[i], "fitted");
    curve(plot, method.deconvolved, x, y, method.colour, 1, "deconvolved").attr("stroke-dasharray", "4 2");
  });
  drawSamples(plot, waveform.samples, x, y, range); // above the curves, which would hide them
  for (const method of waveform.methods) drawEchoes(plot, method, x, y);
  for (const at of waveform.returns) {
    const height = waveform.samples[Math.max(0, Math.min(Math.round(at), waveform.samples.length - 1))];
    plot.append("path").attr("class", "return").attr("fill", "none").attr("stroke", "#ffffff")
      .attr("d", "M-5,-8h10l-5,8z").attr("transform", `translate(${x(at)},${y(height) - 8})`)
      .append("title").text(`return of the scanner at sample ${at.toFixed(2)}`);
  }
  drawResiduals(root, waveform, x, width);
  listEchoes(root, waveform);
}

function drawSamples(plot, samples, x, y, range) {
  const first = Math.max(0, Math.floor(range[0]));
  const last = Math.min(samples.length - 1, Math.ceil(range[1]));
  const group = plot.append("g").attr("class", "samples").attr("fill", "#e6eaee");
  let path = "";
  for (let i = first; i <= last; i++) path += `M${x(i) - 1.6},${y(samples[i])}a1.6,1.6 0 1,0 3.2,0a1.6,1.6 0 1,0 -3.2,0`;
  group.append("path").attr("d", path);
}

function drawEchoes(plot, method, x, y) {
  method.positions.forEach((position, i) => {
    const top = method.baseline + method.amplitudes[i];
    const width = method.widths[i];
    const [position1, amplitude1] = method.uncertainties[i];
    const echo = plot.append("g").attr("class", "echo").attr("stroke", method.colour)
      .attr("data-mode", method.name).attr("data-position", position)
      .attr("data-amplitude", method.amplitudes[i]).attr("data-width", width);
    const bar = (x1, y1, x2, y2, thick) => echo.append("line").attr("stroke-width", thick)
      .attr("x1", x(x1)).attr("y1", y(y1)).attr("x2", x(x2)).attr("y2", y(y2));
    bar(position, method.baseline, position, top, 1);
    if (width > 0) {
      const height = method.baseline + method.amplitudes[i] * HEIGHT_AT_WIDTH;
      bar(position - width, height, position + width, height, 2);
    }
    if (position1 > 0) bar(position - position1, top, position + position1, top, 4).attr("class", "uncertainty");
    if (amplitude1 > 0) bar(position, top - amplitude1, position, top + amplitude1, 4).attr("class", "uncertainty");
    echo.append("circle").attr("cx", x(position)).attr("cy", y(top)).attr("r", 4)
      .attr("fill", method.colour).attr("stroke", "#ffffff");
    echo.append("title").text(`${method.name}: sample ${position.toFixed(3)}`);
  });
}

function drawResiduals(root, waveform, x, width) {
  const methods = waveform.methods.filter((method) => method.residuals[0].length);
  if (!methods.length) return;
  const [low, high] = x.domain();
  const shown = methods.map((method) =>
    method.residuals[0].map((at, i) => [at, method.residuals[1][i]])
      .filter(([at, rest]) => rest !== null && at >= low && at <= high));
  const largest = Math.max(1, ...shown.flat().map(([, rest]) => Math.abs(rest)));
  const y = scaleLinear([-largest, largest], [RESIDUALS - MARGIN.bottom, MARGIN.top]);
  const svg = picture(root, width, RESIDUALS, "Residuals: samples minus the fitted sums").attr("class", "residuals");
  axes(svg, x, y, RESIDUALS, "sample", "residual");
  shown.forEach((points, i) => {
    const aside = 3 * (i - (shown.length - 1) / 2);
    svg.append("path").attr("stroke", methods[i].colour).attr("stroke-width", 2)
      .attr("d", points.map(([at, rest]) => `M${x(at) + aside},${y(0)}V${y(rest)}`).join(""));
  });
}

function drawOutgoing(root, { samples, interval }, width) {
  root.append("h2").text("Outgoing pulse");
  const x = scaleLinear([-0.5, samples.length - 0.5], [MARGIN.left, width - MARGIN.right]);
  const y = scaleLinear([0, 1.1 * Math.max(1, ...samples)], [OUTGOING - MARGIN.bottom, MARGIN.top]);
  const svg = picture(root, width, OUTGOING, `Outgoing pulse of ${samples.length} samples`).attr("class", "outgoing");
  axes(svg, x, y, OUTGOING, `sample of ${+(interval * 1e9).toFixed(3)} ns`, "counts");
  curve(svg, [samples.map((_, i) => i), samples], x, y, "#e6eaee", 1.5, "pulse");
}

// What the picture shows, as text: the lists of echoes with their uncertainties.
function listEchoes(root, waveform) {
  for (const method of waveform.methods) {
    const table = root.append("table").attr("data-mode", method.name);
    const caption = table.append("caption").style("color", method.colour).style("text-align", "left");
    caption.text(method.note ? `${method.name}: ${method.note}` : method.name);
    if (!method.positions.length) continue;
    const head = table.append("thead").append("tr");
    for (const title of ["echo", "position, samples", "amplitude, counts", "width (σ), samples"]) {
      head.append("th").attr("scope", "col").text(title);
    }
    const body = table.append("tbody");
    method.positions.forEach((position, i) => {
      const row = body.append("tr");
      const [position1, amplitude1, width1] = method.uncertainties[i];
      row.append("td").text(i + 1);
      row.append("td").text(measured(position, position1, 3));
      row.append("td").text(measured(method.amplitudes[i], amplitude1, 1));
      row.append("td").text(measured(method.widths[i], width1, 3));
    });
  }
}

function measured(value, uncertainty, digits) {
  if (value === null) return "–";
  const known = uncertainty === null ? "" : ` ± ${uncertainty.toFixed(digits)}`;
  return value.toFixed(digits) + known;
}

function describe(waveform) {
  const found = waveform.methods
    .map((method) => `${method.positions.length} echoes of ${method.name}`).join(", ");
  return `Waveform ${waveform.number} of ${waveform.samples.length} samples, threshold ` +
    `${waveform.threshold} counts: ${found}. The tables below list them.`;
}

function picture(root, width, height, description) {
  return root.append("svg").attr("width", width).attr("height", height).attr("role", "img")
    .attr("aria-label", description);
}

function axes(svg, x, y, height, xLabel, yLabel) {
  const bottom = height - MARGIN.bottom;
  const [left, right] = x.range();
  svg.append("g").attr("transform", `translate(0,${bottom})`).call(axisBottom(x).ticks((right - left) / 70));
  svg.append("g").attr("transform", `translate(${left},0)`).call(axisLeft(y).ticks(height / 45));
  svg.append("text").attr("x", (left + right) / 2).attr("y", height - 3).attr("text-anchor", "middle").text(xLabel);
  svg.append("text").attr("transform", `translate(11,${bottom / 2}) rotate(-90)`)
    .attr("text-anchor", "middle").text(yLabel);
}

// The time of the right end, next to the numbers of the samples.
function nanoseconds(svg, x, interval, width) {
  const step = +(interval * 1e9).toFixed(4);
  svg.append("text").attr("x", width - MARGIN.right).attr("y", HEIGHT - 3).attr("text-anchor", "end")
    .text(`1 sample = ${step} ns`);
}

function level(plot, x, y, height, name, colour, dashes) {
  const [left, right] = x.range();
  plot.append("line").attr("class", name.split(" ")[0]).attr("stroke", colour).attr("stroke-dasharray", dashes)
    .attr("data-height", height).attr("x1", left).attr("x2", right).attr("y1", y(height)).attr("y2", y(height))
    .append("title").text(`${name}: ${height}`);
}

function curve(plot, [xs, ys], x, y, colour, thick, name) {
  const path = line().defined((i) => ys[i] !== null).x((i) => x(xs[i])).y((i) => y(ys[i]));
  return plot.append("path").attr("class", name).attr("fill", "none").attr("stroke", colour)
    .attr("stroke-width", thick).attr("d", path(xs.map((_, i) => i)));
}

function highest(waveform) {
  const tops = waveform.methods.flatMap((method) => [
    ...method.amplitudes.map((amplitude) => amplitude + method.baseline),
    ...method.deconvolved[1],
  ]);
  let top = Math.max(1, 1.5 * waveform.threshold);
  for (const value of [...waveform.samples, ...tops]) if (value > top) top = value;
  return top;
}

// Range of samples around all echoes and returns; all of them without any.
function shownSamples(waveform) {
  const last = waveform.samples.length - 1;
  const spans = waveform.methods.flatMap((method) => method.positions.map((position, i) => {
    const around = Math.max(AROUND, REACH * (method.widths[i] ?? 0));
    return [position - around, position + around];
  }));
  for (const at of waveform.returns) if (at >= 0 && at <= last) spans.push([at - AROUND, at + AROUND]);
  if (!spans.length) return [0, last];
  const low = Math.max(0, Math.min(...spans.map((span) => span[0])));
  const high = Math.max(...spans.map((span) => span[1]));
  return [low, Math.min(last, Math.max(high, low + 50))];
}
