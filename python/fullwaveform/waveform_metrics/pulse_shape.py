"""Shape of a pulse whose receiver answers with an exponential tail.

The shape is a Gaussian of standard deviation `width` convolved with an exponential that decays with
the time constant `decay`, the exponentially modified Gaussian of chromatography (E. Grushka, Anal.
Chem. 44 (1972) 1733, doi:10.1021/ac60319a011).
"""

from __future__ import annotations

from functools import lru_cache

import numpy as np
from scipy.special import erfc, erfcx

from fullwaveform.data.arrays import FloatArray

_SMALLEST_DECAY = 1e-3  # of the width; with a shorter decay the shape is a Gaussian


def pulse_shape(x: FloatArray, width: float, decay: float) -> FloatArray:
    """The shape at `x`, of area 1; 0 is the centre of the Gaussian, all in the same unit."""
    gauss = np.exp(-0.5 * (x / width) ** 2)
    if decay < _SMALLEST_DECAY * width:
        return np.asarray(gauss / (width * np.sqrt(2.0 * np.pi)))
    z = (width / decay - x / width) / np.sqrt(2.0)
    # Two forms of the same product, each where none of its factors overflows.
    front = gauss * erfcx(np.maximum(z, 0.0))
    exponent = np.where(z < 0.0, 0.5 * (width / decay) ** 2 - x / decay, 0.0)
    tail = np.exp(exponent) * erfc(np.minimum(z, 0.0))
    return np.asarray(np.where(z >= 0.0, front, tail) / (2.0 * decay))


@lru_cache(maxsize=65536)
def maximum_place(width: float, decay: float) -> float:
    """Place of the maximum of the shape, after the centre of the Gaussian, in the unit of both."""
    low, high = 0.0, max(decay, 1e-12)
    if decay < _SMALLEST_DECAY * width:
        return 0.0
    for _ in range(60):
        # At the maximum the shape equals the Gaussian: f' = (g - f) / decay.
        middle = 0.5 * (low + high)
        gauss = float(np.exp(-0.5 * (middle / width) ** 2) / (width * np.sqrt(2.0 * np.pi)))
        is_rising = gauss > float(pulse_shape(np.array([middle]), width, decay)[0])
        low, high = (middle, high) if is_rising else (low, middle)
    return 0.5 * (low + high)
