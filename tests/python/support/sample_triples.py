"""Waveforms of sample triples with known Gaussians, and their scanner and driver.

The Gaussian through a, 2a, a has its maximum 2a at the middle sample and a standard deviation of
sqrt(0.5 / ln 2) samples: in logarithms the curvature is -2 ln 2.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform import Driver, Scanner
from fullwaveform.core.scanner import DEFAULT_ATTRIBUTES, NO_AFTER_PULSE, AfterPulse

Samples = npt.NDArray[np.uint16]

INTERVAL = 2.0**-29  # s, about 1.9 ns; multiples and differences of it are exact
TRIPLE_STD = 0.8493218002880191  # samples


def triples(peaks: Mapping[int, int], length: int = 60) -> Samples:
    """A waveform of zeros with a triple of even height at each of the given positions."""
    samples = np.zeros(length, np.uint16)
    for position, height in peaks.items():
        samples[position - 1 : position + 2] = height // 2, height, height // 2
    return samples


def scanner(after_pulse: AfterPulse | None = NO_AFTER_PULSE, **attributes: Any) -> Scanner:
    """A scanner of unknown type with the sampling interval `INTERVAL`."""
    values = {"WaveformSampleInterval": INTERVAL, **DEFAULT_ATTRIBUTES, **attributes}
    return Scanner.from_attributes(values, after_pulse=after_pulse)


def driver(**attributes: Any) -> Driver:
    """A driver of mode 0 for `scanner`."""
    return Driver(0, scanner(**attributes))
