"""Axes of pictures: places of values, and round numbers to label them."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from matplotlib.ticker import MaxNLocator

from fullwaveform.data.arrays import AnyArray, FloatArray


@dataclass(frozen=True, slots=True)
class Scale:
    """Places of values on one axis: `first` to `last` are drawn from `start` to `stop`."""

    first: float
    last: float
    start: float
    stop: float

    def of(self, values: AnyArray) -> FloatArray:
        """Place of each value."""
        step = (self.stop - self.start) / (self.last - self.first)
        return np.asarray(self.start + (np.asarray(values, np.float64) - self.first) * step)

    def place(self, value: float) -> float:
        """Place of one value."""
        return float(self.of(np.array(value)))

    def ticks(self, count: int, *, whole: bool = False) -> FloatArray:
        """Round values within the scale, at most about `count`; `whole` numbers only."""
        locator = MaxNLocator(count, steps=[1, 2, 5, 10], integer=whole)
        found = np.asarray(locator.tick_values(self.first, self.last), np.float64)
        inside: FloatArray = found[(found >= self.first) & (found <= self.last)]
        return inside
