// What the page uses of its libraries; bundle.sh makes libraries.min.js of it.
export { axisBottom, axisLeft } from "d3-axis";
export { rgb } from "d3-color";
export { scaleLinear } from "d3-scale";
export { interpolateCividis, interpolatePlasma, interpolateViridis } from "d3-scale-chromatic";
export { select } from "d3-selection";
export { line } from "d3-shape";
export {
  createBufferInfoFromArrays,
  createProgramInfo,
  createTexture,
  drawBufferInfo,
  setBuffersAndAttributes,
  setUniforms,
} from "twgl.js";
