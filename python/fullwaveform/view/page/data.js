// What the server answers; errors have its message.

async function answer(path) {
  let response;
  try {
    response = await fetch(path);
  } catch {
    throw new Error("The viewer does not answer; it may have been stopped.");
  }
  if (response.ok) return response;
  const text = await response.text();
  let message = text;
  try {
    message = JSON.parse(text).error ?? text;
  } catch {
    // plain text
  }
  throw new Error(message);
}

export async function json(path) {
  return (await answer(path)).json();
}

const ARRAYS = { "<f4": Float32Array, "<u4": Uint32Array, u1: Uint8Array };

// The points of nodes, one object of typed arrays per node; with the noise of their waveforms, which
// the server may have to measure first.
export async function nodePoints(layer, number, nodes, counts, withNoise) {
  const query = `nodes=${nodes.join()}${withNoise ? "&noise=1" : ""}`;
  const content = await (await answer(`layers/${number}/points?${query}`)).arrayBuffer();
  const types = Object.fromEntries(layer.values.map((value) => [value.name, value.type]));
  const found = nodes.map(() => ({}));
  let at = 0;
  for (const name of withNoise ? [...layer.columns, "noise"] : layer.columns) {
    const type = name === "row" || name === "waveform" ? "<u4" : (types[name] ?? "<f4");
    const array = ARRAYS[type];
    nodes.forEach((_, i) => {
      const size = counts[i] * array.BYTES_PER_ELEMENT;
      found[i][name] = new array(content.slice(at, at + size));
      at += size;
    });
  }
  return found;
}
