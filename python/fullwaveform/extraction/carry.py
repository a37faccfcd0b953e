"""Reach of echoes without a width, for the comparison with discrete returns."""

from __future__ import annotations

import numpy as np

from fullwaveform.core.driver import system_wave
from fullwaveform.core.scanner import Scanner


def half_width_of_system_wave(scanner: Scanner, interval: float) -> float:
    """Half the width at half the maximum, s; 0 without a system wave."""
    if not scanner.has_system_wave:
        return 0.0
    time, value = system_wave(scanner, interval)
    top = int(np.argmax(value))
    low = np.flatnonzero(value < value[top] / 2.0)
    begin, end = low[low < top].max(initial=0), low[low > top].min(initial=len(time) - 1)
    return float(time[end] - time[begin]) / 2.0
