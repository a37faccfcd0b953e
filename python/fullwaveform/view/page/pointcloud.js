// Points in WebGL: the nodes of the tree that the map shows, drawn from above and from the side.

import {
  createBufferInfoFromArrays,
  createProgramInfo,
  createTexture,
  drawBufferInfo,
  setBuffersAndAttributes,
  setUniforms,
} from "./libraries/libraries.min.js";

// The colour is the same all over a point: decided once per point, and not interpolated, which
// takes a fifth of the time where the processor draws.
const VERTEX = `#version 300 es
in vec3 place;
in float value, chosen;
uniform vec2 middle, scale, range;
uniform bool fromSide;
uniform vec2 start, along;
uniform float halfWidth, length, size, part;
uniform sampler2D colours;
flat out vec4 shade;
void main() {
  vec2 seen = place.xy;
  if (fromSide) {
    vec2 from = place.xy - start;
    float at = dot(from, along), aside = abs(from.x * along.y - from.y * along.x);
    seen = vec2(at, place.z);
    if (aside > halfWidth || at < 0.0 || at > length) seen = vec2(1e30);
  }
  if (part > 0.5 && (part > 1.5) != (chosen > 0.5)) seen = vec2(1e30);
  gl_Position = vec4((seen - middle) * scale, 0.0, 1.0);
  gl_PointSize = size;
  float at = clamp((value - range.x) / (range.y - range.x), 0.0, 1.0);
  shade = value < -1e37 ? vec4(0.45, 0.45, 0.45, 1.0) : texture(colours, vec2(at, 0.5));
  if (part > 1.5) shade = vec4(1.0, 0.82, 0.4, 1.0);
  else if (part > 0.5) shade.rgb *= 0.35;
}`;

const FRAGMENT = `#version 300 es
precision mediump float;
flat in vec4 shade;
out vec4 colour;
void main() {
  colour = shade;
}`;
// Parts of the points that are drawn one after the other, so that those selected are on top.
const [ALL, NOT_SELECTED, SELECTED] = [0, 1, 2];

const UNKNOWN = -1e38; // shaders do not have to distinguish NaN

function shaderValues(column) {
  return Float32Array.from(column, (value) => (Number.isNaN(value) ? UNKNOWN : value));
}

export class PointCloud {
  constructor(canvas) {
    this.canvas = canvas;
    const gl = (this.gl = canvas.getContext("webgl2", { antialias: false, depth: false }));
    if (!gl) throw new Error("The browser has no WebGL 2, which the map needs.");
    this.program = createProgramInfo(gl, [VERTEX, FRAGMENT]);
    this.nodes = new Map();
    this.chooser = null;
  }

  // Columns of a node, of which `valueName` decides the colour.
  add(node, columns, valueName) {
    const count = columns.x.length;
    const place = new Float32Array(3 * count);
    for (let i = 0; i < count; i++) {
      place[3 * i] = columns.x[i];
      place[3 * i + 1] = columns.y[i];
      place[3 * i + 2] = columns.z[i];
    }
    const buffers = createBufferInfoFromArrays(this.gl, {
      place: { numComponents: 3, data: place },
      value: { numComponents: 1, data: shaderValues(columns[valueName]) },
      chosen: { numComponents: 1, data: this.chooser?.(columns) ?? new Uint8Array(count) },
    });
    this.nodes.set(node, { columns, buffers, count });
  }

  remove(node) {
    const { buffers } = this.nodes.get(node);
    for (const attribute of Object.values(buffers.attribs)) this.gl.deleteBuffer(attribute.buffer);
    this.nodes.delete(node);
  }

  clear() {
    for (const node of [...this.nodes.keys()]) this.remove(node);
  }

  colourBy(valueName) {
    const gl = this.gl;
    for (const { columns, buffers } of this.nodes.values()) {
      gl.bindBuffer(gl.ARRAY_BUFFER, buffers.attribs.value.buffer);
      gl.bufferData(gl.ARRAY_BUFFER, shaderValues(columns[valueName]), gl.STATIC_DRAW);
    }
  }

  // Highlights the points for which `chooser(columns)` of their node is 255; null: none.
  highlight(chooser) {
    const gl = this.gl;
    this.chooser = chooser;
    if (!chooser) return;
    for (const { columns, buffers } of this.nodes.values()) {
      gl.bindBuffer(gl.ARRAY_BUFFER, buffers.attribs.chosen.buffer);
      gl.bufferData(gl.ARRAY_BUFFER, chooser(columns), gl.STATIC_DRAW);
    }
  }

  // Colours, [red, green, blue] each, for the values from `range[0]` to `range[1]`.
  setColours(colours, range, smooth) {
    const gl = this.gl;
    if (this.texture) gl.deleteTexture(this.texture);
    const filter = smooth ? gl.LINEAR : gl.NEAREST;
    this.texture = createTexture(gl, {
      src: new Uint8Array(colours.flatMap((colour) => [...colour, 255])),
      width: colours.length,
      height: 1,
      min: filter,
      mag: filter,
      wrap: gl.CLAMP_TO_EDGE,
    });
    this.range = range;
  }

  // Draws nodes into areas of the canvas, in pixels of the page; returns the number of points.
  draw(nodes, areas, background) {
    const gl = this.gl;
    const ratio = window.devicePixelRatio;
    const [width, height] = [this.canvas.clientWidth, this.canvas.clientHeight];
    if (this.canvas.width !== Math.round(width * ratio)) this.canvas.width = Math.round(width * ratio);
    if (this.canvas.height !== Math.round(height * ratio)) this.canvas.height = Math.round(height * ratio);
    gl.disable(gl.SCISSOR_TEST);
    gl.clearColor(...background, 1);
    gl.clear(gl.COLOR_BUFFER_BIT);
    gl.enable(gl.SCISSOR_TEST);
    gl.useProgram(this.program.program);
    let drawn = 0;
    for (const area of areas) {
      const box = [area.left, height - area.top - area.height, area.width, area.height];
      gl.viewport(...box.map((value) => Math.round(value * ratio)));
      gl.scissor(...box.map((value) => Math.round(value * ratio)));
      setUniforms(this.program, {
        middle: area.middle,
        scale: area.scale,
        range: this.range,
        colours: this.texture,
        fromSide: Boolean(area.line),
        start: area.line?.start ?? [0, 0],
        along: area.line?.along ?? [1, 0],
        halfWidth: area.line?.halfWidth ?? 0,
        length: area.line?.length ?? 0,
        size: area.pointSize * ratio,
      });
      for (const part of this.chooser ? [NOT_SELECTED, SELECTED] : [ALL]) {
        setUniforms(this.program, { part });
        for (const node of nodes) {
          const loaded = this.nodes.get(node);
          if (!loaded) continue;
          setBuffersAndAttributes(gl, this.program, loaded.buffers);
          drawBufferInfo(gl, loaded.buffers, gl.POINTS);
          if (!area.line && part !== SELECTED) drawn += loaded.count;
        }
      }
    }
    return drawn;
  }
}
