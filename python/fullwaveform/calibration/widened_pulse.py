"""A pulse, widened or narrowed, with its derivatives."""

from __future__ import annotations

from dataclasses import dataclass
from functools import cached_property

import numpy as np

from fullwaveform.calibration.curve import Curve
from fullwaveform.data.arrays import FloatArray

_STEPS = 16  # lags per sample
_PADDING = 24  # samples on either side, over which the ends of the pulse fade to 0
# Of a pulse of 4 samples at half maximum, in samples squared.
_MIN_VARIANCE, _MAX_VARIANCE, _NODE_STEP = -0.5, 9.0, 0.125
_USUAL_FWHM = 4.0  # samples
# Above this frequency (cycles per sample, of such a pulse) nothing of a pulse is in the samples;
# narrowing would amplify it.
_BAND_LIMIT, _ORDER = 0.7, 16


@dataclass(frozen=True)
class WidenedPulse:
    """A curve convolved with Gaussians of variance v; a negative v narrows it."""

    curve: Curve

    def at(
        self, lag: FloatArray, variance: FloatArray
    ) -> tuple[FloatArray, FloatArray, FloatArray]:
        """Value, derivative by lag and derivative by variance; NaN outside of the curve.

        Parameters
        ----------
        lag : (n, m) samples
        variance : (n,) of each row, within the tabulated ones
        """
        first, table = self._table
        node_step = _NODE_STEP * self._scale**2
        inside = (lag >= -self.curve.before) & (lag <= self.curve.after)
        node = np.rint((variance - self.min_variance) / node_step).astype(np.int64)
        rest = (variance - (self.min_variance + node_step * node))[:, np.newaxis] / 2.0
        place = np.where(inside, (lag - first) * _STEPS, 0.0)
        index = np.rint(place).astype(np.int64)
        off = (place - index) / _STEPS
        # Widening is the heat equation: the derivative by half the variance is the second by lag.
        d = [np.where(inside, table[k][node[:, np.newaxis], index], np.nan) for k in range(6)]
        value = [
            d[k] + off * (d[k + 1] + off / 2.0 * d[k + 2]) + rest * (d[k + 2] + off * d[k + 3])
            for k in range(3)
        ]
        return value[0], value[1], value[2] / 2.0

    @property
    def min_variance(self) -> float:
        """Smallest tabulated variance, samples squared."""
        return _MIN_VARIANCE * self._scale**2

    @property
    def max_variance(self) -> float:
        """Largest tabulated variance, samples squared."""
        return _MAX_VARIANCE * self._scale**2

    @cached_property
    def _scale(self) -> float:
        return max(self.curve.fwhm() / _USUAL_FWHM, 1.0)

    @cached_property
    def _table(self) -> tuple[float, FloatArray]:
        """First lag, and derivatives of order 0 to 5 by variance and lag."""
        ends = np.array([-self.curve.before, self.curve.after])
        first, last = np.floor(ends[0]) - _PADDING, np.ceil(ends[1]) + _PADDING
        lag = np.arange(first, last, 1.0 / _STEPS)
        value = self.curve(np.clip(lag, ends[0], ends[1]))
        beyond = np.maximum(np.maximum(ends[0] - lag, lag - ends[1]), 0.0)
        value *= 0.5 + 0.5 * np.cos(np.pi * np.minimum(beyond / (_PADDING - 2), 1.0))
        frequency = np.fft.rfftfreq(len(lag), 1.0 / _STEPS)
        angular = 2.0 * np.pi * frequency
        nodes = np.arange(_MIN_VARIANCE, _MAX_VARIANCE + _NODE_STEP / 2.0, _NODE_STEP)
        exponent = 0.5 * self._scale**2 * nodes[:, np.newaxis] * angular**2
        exponent += (frequency * self._scale / _BAND_LIMIT) ** _ORDER
        widened = np.fft.rfft(value) * np.exp(-exponent)
        table = [np.fft.irfft(widened * (1j * angular) ** order, len(lag)) for order in range(6)]
        return float(first), np.stack(table)
