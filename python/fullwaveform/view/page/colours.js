// Colour maps of quantities, readable with colour vision deficiencies and on a dark page.

import { interpolateCividis, interpolatePlasma, interpolateViridis, rgb } from "./libraries/libraries.min.js";

const COUNT = 256; // colours of a map

export const COLOUR_MAPS = {
  viridis: sampled(interpolateViridis),
  cividis: sampled(interpolateCividis),
  plasma: sampled(interpolatePlasma),
};

// Red, green and blue from 0 to 255 of each colour.
function sampled(colourAt) {
  return Array.from({ length: COUNT }, (_, i) => {
    const { r, g, b } = rgb(colourAt(i / (COUNT - 1)));
    return [r, g, b];
  });
}
