"""Records built of triples whose Gaussian is known, and echoes worked out by hand.

Through a, 2a, a goes the Gaussian with its top on the middle sample, 2a high and sqrt(0.5 / ln 2)
samples wide: in logarithms the curvature is -2 ln 2.
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


def record(peaks: Mapping[int, int], length: int = 60) -> Samples:
    """One record of zeros with a triple of even height at each of the given positions."""
    samples = np.zeros(length, np.uint16)
    for position, height in peaks.items():
        samples[position - 1 : position + 2] = height // 2, height, height // 2
    return samples


def scanner(after_pulse: AfterPulse | None = NO_AFTER_PULSE, **attributes: Any) -> Scanner:
    """A scanner from attributes, of no known type, with samples `INTERVAL` apart."""
    values = {"WaveformSampleInterval": INTERVAL, **DEFAULT_ATTRIBUTES, **attributes}
    return Scanner.from_attributes(values, after_pulse=after_pulse)


def driver(**attributes: Any) -> Driver:
    """A driver of the three-point method for `scanner`."""
    return Driver(0, scanner(**attributes))
