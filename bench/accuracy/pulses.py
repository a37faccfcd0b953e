"""Pulses as Fourier series: exact at any position, widened by any variance, with derivatives."""

from __future__ import annotations

import math
from dataclasses import dataclass
from functools import cached_property

import numpy as np
import numpy.typing as npt

Floats = npt.NDArray[np.float64]

PERIOD = 256  # samples, of the series: a waveform and the longest pulse
LAG_STEP = 0.0625  # samples, of a tabulated pulse
_PHASES = 16  # per sample, at which heights and widths are measured
_VARIANCES = np.concatenate([np.arange(-0.4, 1.5, 0.02), np.arange(1.5, 25.1, 0.1)])
_ROWS = 2048  # at once


@dataclass(frozen=True, eq=False)
class Pulse:
    """A pulse with maximum 1 at lag 0.

    spectrum : (PERIOD + 1,) Fourier transform at the frequencies k / PERIOD, cycles per sample
    first_lag, last_lag : samples, where the pulse begins and ends
    """

    name: str
    spectrum: npt.NDArray[np.complex128]
    first_lag: float
    last_lag: float

    @classmethod
    def gaussian(cls, name: str, fwhm: float) -> Pulse:
        """A Gaussian of a full width at half maximum in samples."""
        sigma = fwhm / math.sqrt(8.0 * math.log(2.0))
        angular = 2.0 * math.pi * _frequencies()
        shape = np.exp(-0.5 * (angular * sigma) ** 2)
        spectrum: npt.NDArray[np.complex128] = (sigma * math.sqrt(2.0 * math.pi) * shape).astype(
            np.complex128
        )
        reach = math.ceil(6.0 * sigma)
        return cls(name, spectrum, -reach, reach)

    @classmethod
    def of_values(cls, name: str, values: Floats, first_lag: float, lag_step: float) -> Pulse:
        """A pulse of values at equidistant lags, close to 0 at both ends."""
        lags = first_lag + lag_step * np.arange(len(values))
        waves = np.exp(-2j * math.pi * np.outer(_frequencies(), lags))
        spectrum = waves @ (values * (lag_step / np.max(values)))
        return cls(name, spectrum.astype(np.complex128), float(lags[0]), float(lags[-1]))

    def table(self) -> Floats:
        """Values from `first_lag` to `last_lag` in steps of `LAG_STEP`; 0 at both ends."""
        lags = np.arange(self.first_lag, self.last_lag + 0.5 * LAG_STEP, LAG_STEP)
        waves = np.exp(2j * math.pi * np.outer(lags, _frequencies()))
        waves[:, 1:] *= 2.0
        return np.asarray((waves @ self.spectrum).real / PERIOD)

    @property
    def fwhm(self) -> float:
        """Full width at half maximum, samples."""
        return float(self.fwhm_at(np.zeros(1))[0])

    def samples(
        self,
        position: Floats,
        variance: Floats,
        width: int,
        *,
        by_lag: int = 0,
    ) -> Floats:
        """The pulse at samples 0 to `width` - 1, or a derivative by lag: (n, width).

        position : (n,) samples, of the maximum of the pulse that is not widened
        variance : (n,) samples squared, of the Gaussian by which it is widened; may be negative
        by_lag : order of the derivative
        """
        parts = [
            self._samples(position[first : first + _ROWS], variance[first : first + _ROWS], by_lag)
            for first in range(0, len(position), _ROWS)
        ]
        return np.concatenate(parts)[:, :width] if parts else np.empty((0, width))

    def _samples(self, position: Floats, variance: Floats, by_lag: int) -> Floats:
        angular = 2.0 * math.pi * _frequencies()
        phase = np.exp(-1j * np.outer(position, angular) - 0.5 * np.outer(variance, angular**2))
        terms = phase * (self.spectrum * (1j * angular) ** by_lag)
        # At whole samples, frequencies above 0.5 cycles per sample look like lower ones.
        half = PERIOD // 2
        folded = terms[:, : half + 1].copy()
        folded[:, :half] += np.conj(terms[:, :half:-1])
        folded[:, half] *= 2.0
        return np.fft.irfft(folded, PERIOD, axis=1)

    @cached_property
    def _shapes(self) -> tuple[Floats, Floats]:
        """Height and full width at half maximum at `_VARIANCES`."""
        angular = 2.0 * math.pi * _frequencies()
        # Lag 0 in the middle, so that no pulse wraps.
        shift = np.exp(-1j * angular * (PERIOD // 2))
        terms = self.spectrum * shift * np.exp(-0.5 * np.outer(_VARIANCES, angular**2))
        padded = np.zeros((len(_VARIANCES), PERIOD * _PHASES // 2 + 1), np.complex128)
        padded[:, : terms.shape[1]] = terms
        curves = np.fft.irfft(padded, axis=1) * _PHASES
        shapes = np.array([_height_and_width(curve) for curve in curves])
        return shapes[:, 0], shapes[:, 1] / _PHASES

    def height_at(self, variance: Floats) -> Floats:
        """Height of the widened pulse (n,)."""
        return np.interp(variance, _VARIANCES, self._shapes[0])

    def fwhm_at(self, variance: Floats) -> Floats:
        """Full width at half maximum of the widened pulse (n,), samples."""
        return np.interp(variance, _VARIANCES, self._shapes[1])

    def slope_of(self, quantity: str, variance: Floats) -> Floats:
        """Derivative (n,) of "height" or "fwhm" by the variance."""
        shape = self._shapes[0 if quantity == "height" else 1]
        return np.interp(variance, _VARIANCES, np.gradient(shape, _VARIANCES))


def ringing_pulse(name: str) -> Pulse:
    """1.9 exp(-t/4) (1 - cos(t/2)), t in samples: strongly skewed, rings 4 % after 13 samples."""
    time = np.arange(0.0, 60.0, LAG_STEP)
    values = np.exp(-0.25 * time) * (1.0 - np.cos(0.5 * time))
    return Pulse.of_values(name, values, -ringing_delay(), LAG_STEP)


def ringing_delay() -> float:
    """Samples from the start of the ringing pulse to its maximum."""
    # 0.5 sin(t/2) = 0.25 (1 - cos(t/2)) gives tan(t/4) = 2.
    return 4.0 * math.atan(2.0)


def _frequencies() -> Floats:
    return np.arange(PERIOD + 1) / PERIOD


def _height_and_width(curve: Floats) -> tuple[float, float]:
    top = int(np.argmax(curve))
    before, after = curve[top - 1], curve[top + 1]
    bend = before - 2.0 * curve[top] + after
    height = curve[top] - (after - before) ** 2 / (8.0 * bend)
    above = curve > 0.5 * height
    first = top - int(np.argmin(above[top::-1])) + 1
    last = top + int(np.argmin(above[top:])) - 1
    half = 0.5 * height
    left = (curve[first] - half) / (curve[first] - curve[first - 1])
    right = (curve[last] - half) / (curve[last] - curve[last + 1])
    return height, (last - first) + left + right
