"""Shape of a pulse whose receiver answers with an exponential tail.

The shape is a Gaussian of standard deviation `width` convolved with an exponential that decays with
the time constant `decay`, the exponentially modified Gaussian of chromatography (E. Grushka, Anal.
Chem. 44 (1972) 1733, doi:10.1021/ac60319a011).
"""

from __future__ import annotations

import numpy as np
from scipy.special import erfc, erfcx

from fullwaveform.data.arrays import FloatArray

_SMALLEST_DECAY = 1e-3  # of the width; with a shorter decay the shape is a Gaussian
_HALVINGS = 40  # of the range in which a maximum lies


def pulse_shape(x: FloatArray, width: float, decay: float) -> FloatArray:
    """The shape at `x`, of area 1; 0 is the centre of the Gaussian, all in the same unit."""
    if decay < _SMALLEST_DECAY * width:
        gauss = np.exp(-0.5 * (x / width) ** 2)
        return np.asarray(gauss / (width * np.sqrt(2.0 * np.pi)))
    return _with_tail(x, width, decay)


def _with_tail(x: FloatArray, width: float | FloatArray, decay: float) -> FloatArray:
    z = (width / decay - x / width) / np.sqrt(2.0)
    # Two forms of the same product, each where none of its factors overflows.
    front = np.exp(-0.5 * (x / width) ** 2) * erfcx(np.maximum(z, 0.0))
    exponent = np.where(z < 0.0, 0.5 * (width / decay) ** 2 - x / decay, 0.0)
    tail = np.exp(exponent) * erfc(np.minimum(z, 0.0))
    return np.asarray(np.where(z >= 0.0, front, tail) / (2.0 * decay))


def maximum_places(widths: FloatArray, decay: float) -> FloatArray:
    """Places (k,) of the maxima of shapes, after the centres of their Gaussians; one unit."""
    low, high = np.zeros(len(widths)), np.full(len(widths), decay)
    if decay == 0.0:
        return low
    usable = np.minimum(widths, decay / _SMALLEST_DECAY)
    for _ in range(_HALVINGS):
        # At the maximum the shape equals the Gaussian: f' = (g - f) / decay.
        middle = 0.5 * (low + high)
        gauss = np.exp(-0.5 * (middle / usable) ** 2) / (usable * np.sqrt(2.0 * np.pi))
        is_rising = gauss > _with_tail(middle, usable, decay)
        low, high = np.where(is_rising, middle, low), np.where(is_rising, high, middle)
    return np.asarray(0.5 * (low + high))
