"""Decay of the exponential tail of outgoing pulses."""

from __future__ import annotations

from dataclasses import dataclass, field
from functools import lru_cache

import numpy as np

from fullwaveform.data.arrays import Float32Array, FloatArray, IntArray
from fullwaveform.data.blocks import OutgoingPulses
from fullwaveform.waveform_metrics.pulse_shape import maximum_places, pulse_shape

_BEFORE, _AFTER = 3, 7  # reach of the comparison, times the width at half maximum
_WIDTHS = np.geomspace(0.28, 0.46, 5)  # Gaussian part, times the full width at half maximum
_DECAYS = np.concatenate([[0.0], np.geomspace(0.15, 0.8, 10)])  # times the full width
_DECAY_RATIO = 0.21  # of neighbouring decays, minus 1
_DERIVATIVE_STEP = 1e-4
_PHASES = (-0.25, 0.25)  # samples, of the maximum
_MIN_FWHM, _MAX_FWHM = 2, 40  # samples
_MIN_SAMPLES = 8
_QUIET_SHARE = 0.1  # of the samples on either end, whose median is the baseline


def outgoing_decays(outgoing: OutgoingPulses) -> FloatArray:
    """Time constant (n,) of the tail of each outgoing pulse, s; NaN where it is unknown.

    Each pulse is compared with a grid of shapes of its width at half maximum; from the one with the
    largest normalised product a step of least squares leads to the decay. Pulses without samples,
    or narrower than two samples, have none.
    """
    decays = np.full(len(outgoing), np.nan)
    for count in np.unique(outgoing.counts[outgoing.counts >= _MIN_SAMPLES]).tolist():
        rows = np.flatnonzero(outgoing.counts == count)
        decays[rows] = _decays(outgoing.samples[rows, :count].astype(np.float32))
    return decays * outgoing.sampling_intervals


def _decays(samples: Float32Array) -> FloatArray:
    """Decay (n,) in samples."""
    rows, count = samples.shape
    end = max(int(_QUIET_SHARE * count), 1)
    quiet = np.concatenate([samples[:, :end], samples[:, -end:]], axis=1)
    values = samples - np.median(quiet, axis=1).astype(np.float32)[:, np.newaxis]
    peak = np.argmax(values, axis=1)
    width = _full_width(values, peak)
    usable = (width >= _MIN_FWHM) & (width <= _MAX_FWHM) & (peak > 0) & (peak < count - 1)
    found = np.full(rows, np.nan)
    for fwhm in np.unique(width[usable]).tolist():
        chosen = np.flatnonzero(usable & (width == fwhm))
        found[chosen] = _best(values[chosen], peak[chosen], fwhm)
    return found


def _full_width(values: Float32Array, peak: IntArray) -> IntArray:
    """Samples (n,) from the peak's first to its last one above half of it."""
    index, rows = np.arange(values.shape[1]), np.arange(len(values))
    below = values < 0.5 * values[rows, peak][:, np.newaxis]
    before = np.where(below & (index < peak[:, np.newaxis]), index, -1).max(axis=1)
    after = np.where(below & (index > peak[:, np.newaxis]), index, len(index)).min(axis=1)
    width: IntArray = after - before - 1
    return width


def _best(values: Float32Array, peak: IntArray, fwhm: int) -> FloatArray:
    """Decay (n,) in samples of pulses of one width."""
    before, after = _BEFORE * fwhm // 2, _AFTER * fwhm // 2
    padded = np.pad(values, ((0, 0), (before, after)))
    cut = padded[np.arange(len(values))[:, np.newaxis], peak[:, np.newaxis] + np.arange(
        before + after + 1)]  # fmt: skip
    nodes = _nodes(fwhm, before, after)
    products = np.stack([np.einsum("nw,w->n", cut, shape) for shape in nodes.shapes])
    best = np.argmax(products, axis=0)
    found = np.empty(len(values))
    for node in np.unique(best).tolist():
        rows = np.flatnonzero(best == node)
        found[rows] = nodes.decays[node] + _step(cut[rows], nodes, node)
    return found


@dataclass(frozen=True)
class _Nodes:
    """A grid of shapes around their maxima, times in samples."""

    x: FloatArray  # (w,)
    widths: FloatArray  # (k,)
    decays: FloatArray  # (k,)
    phases: FloatArray  # (k,)
    places: FloatArray  # (k,), of the maxima after the centres of the Gaussians
    shapes: Float32Array  # (k, w), of unit norm
    rows: dict[int, tuple[FloatArray, FloatArray]] = field(default_factory=dict)

    def shape(self, node: int, width: float, decay: float) -> FloatArray:
        """The shape of area 1 with another width and decay, at the place of that of the node."""
        place = self.places[node]
        return pulse_shape(self.x - self.phases[node] + place, width, decay)

    def step_rows(self, node: int) -> tuple[FloatArray, FloatArray]:
        """Weights (w,) of samples whose sums are amplitude, and amplitude times change of decay."""
        if node not in self.rows:
            width, decay = float(self.widths[node]), float(self.decays[node])
            change = _DERIVATIVE_STEP
            shape = self.shape(node, width, decay)
            wider = self.shape(node, width * (1.0 + change), decay) - shape
            longer = self.shape(node, width, decay * (1.0 + change)) - shape
            terms = (
                shape,
                longer / (decay * change),
                wider / (width * change),
                np.gradient(shape),
                np.ones(len(shape)),
            )
            inverse = np.linalg.pinv(np.column_stack(terms))
            self.rows[node] = inverse[0].copy(), inverse[1].copy()
        return self.rows[node]


@lru_cache(maxsize=64)
def _nodes(fwhm: int, before: int, after: int) -> _Nodes:
    grid = np.stack(np.meshgrid(_WIDTHS * fwhm, _DECAYS * fwhm, _PHASES, indexing="ij"))
    widths, decays, phases = grid.reshape(3, -1)
    x = np.arange(-before, after + 1, dtype=np.float64)
    places = np.empty(len(widths))
    for decay in np.unique(decays).tolist():
        places[decays == decay] = maximum_places(widths[decays == decay], decay)
    nodes = _Nodes(x, widths, decays, phases, places, np.empty((0, len(x)), np.float32))
    shapes = [
        nodes.shape(node, width, decay)
        for node, (width, decay) in enumerate(zip(widths.tolist(), decays.tolist(), strict=True))
    ]
    unit = [shape / np.linalg.norm(shape) for shape in shapes]
    return _Nodes(x, widths, decays, phases, places, np.array(unit, np.float32))


def _step(cut: Float32Array, nodes: _Nodes, node: int) -> FloatArray:
    """Decay (n,) of pulses minus that of their node, samples: one step of Gauss and Newton.

    The pulse is a sum of the node's shape, its derivatives and a constant. A node without a tail
    has no step, and no step leads farther than to the neighbours of the node.
    """
    decay = float(nodes.decays[node])
    if decay == 0.0:
        return np.zeros(len(cut))
    shape_row, decay_row = nodes.step_rows(node)
    amplitude = np.einsum("nw,w->n", cut, shape_row, dtype=np.float64)
    change = np.einsum("nw,w->n", cut, decay_row, dtype=np.float64)
    limit = decay * _DECAY_RATIO
    step: FloatArray = change / np.where(amplitude > 0.0, amplitude, np.inf)
    return np.asarray(np.clip(step, -limit, limit))
