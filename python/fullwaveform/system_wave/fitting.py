"""The system wave: the part of an averaged pulse that the deconvolution sees, as exponentials."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray
from fullwaveform.system_wave.averaging import AveragePulse
from fullwaveform.system_wave.exponentials import (
    ExponentialFit,
    ExponentialSum,
    fit_exponentials,
)

#: The deconvolution evaluates the wave from its first sample to its twelfth.
WINDOW_SAMPLES = 11.0
_STEPS_PER_SAMPLE = 10
_PLOT_MARGIN, _PLOTTED_PER_SAMPLE = 6.0, 50  # samples around the window; points
#: The window begins where the pulse has risen to this share of its maximum ...
RISE_SHARE = 0.01
#: ... unless it then holds less than this share of the pulse's energy.
CONTAINED_SHARE = 0.98


@dataclass(frozen=True)
class SystemWave:
    """A pulse, the window cut out of it, and the exponentials through the window.

    begin : first position of the window, samples from the pulse's maximum
    contained : share of the pulse's energy (sum of squares) inside the window
    fit : over samples from `begin`
    """

    pulse: AveragePulse
    begin: float
    contained: float
    fit: ExponentialFit

    @property
    def is_contained(self) -> bool:
        """Whether practically all of the pulse lies in the window."""
        return self.contained >= CONTAINED_SHARE

    def in_seconds(self) -> ExponentialSum:
        """The wave over seconds from the beginning of its window, as a description holds it."""
        return self.fit.sum.scaled_in_time(self.pulse.sampling_interval)

    def at(self, position: npt.ArrayLike) -> FloatArray:
        """The wave at positions in samples from the pulse's maximum; NaN outside the window."""
        since = np.asarray(position, dtype=np.float64) - self.begin
        inside = (since >= -1e-9) & (since <= WINDOW_SAMPLES + 1e-9)
        return np.where(inside, self.fit.sum(np.where(inside, since, 0.0)), np.nan)

    def plotted_positions(self) -> FloatArray:
        """Positions for a plot: the window and some samples around it, where the pulse is known."""
        first = max(self.begin - _PLOT_MARGIN, self.pulse.position[0])
        last = min(self.begin + WINDOW_SAMPLES + _PLOT_MARGIN, self.pulse.position[-1])
        return np.linspace(first, last, int((last - first) * _PLOTTED_PER_SAMPLE) + 1)


def fit_system_wave(
    pulse: AveragePulse, *, order: int | None = None, begin: float | None = None
) -> SystemWave:
    """The exponentials through the twelve samples of the pulse that the deconvolution uses.

    Parameters
    ----------
    order : exponents; None chooses by the misfit
    begin : where the window begins, samples from the maximum, usually negative; None: where the
        rise has reached a hundredth of the maximum, or, for a pulse that is longer than the
        window, where the window holds most of its energy

    Raises ValueError when the pulse was not recorded over the whole window, or no sum fits.
    """
    chosen = _chosen_begin(pulse) if begin is None else float(begin)
    position = chosen + np.arange(int(WINDOW_SAMPLES * _STEPS_PER_SAMPLE) + 1) / _STEPS_PER_SAMPLE
    value = pulse.at(position)
    if not np.isfinite(value).all():
        raise ValueError(
            f"{pulse.origin}: the pulse is known from {pulse.position[0]:.1f} to "
            f"{pulse.position[-1]:.1f} samples about its maximum; the system wave needs it from "
            f"{position[0]:.1f} to {position[-1]:.1f}"
        )
    fit = fit_exponentials(value, 1.0 / _STEPS_PER_SAMPLE, order)
    return SystemWave(pulse, chosen, _energy_share(pulse, chosen), fit)


def _chosen_begin(pulse: AveragePulse) -> float:
    low = np.flatnonzero((pulse.position < 0.0) & (pulse.value <= RISE_SHARE))
    if len(low):
        begin = float(pulse.position[low[-1]])
        whole = begin + WINDOW_SAMPLES <= pulse.position[-1]
        if whole and _energy_share(pulse, begin) >= CONTAINED_SHARE:
            return begin
    return _richest_begin(pulse)


def _richest_begin(pulse: AveragePulse) -> float:
    """Where a window that lies within the pulse holds most of its energy."""
    width = round(WINDOW_SAMPLES / (pulse.position[1] - pulse.position[0]))
    energy = np.concatenate([[0.0], np.cumsum(pulse.value**2)])
    inside = energy[width + 1 :] - energy[: -width - 1]
    if len(inside) == 0:
        return float(pulse.position[0])
    return float(pulse.position[int(np.argmax(inside))])


def _energy_share(pulse: AveragePulse, begin: float) -> float:
    inside = (pulse.position >= begin - 1e-9) & (pulse.position <= begin + WINDOW_SAMPLES + 1e-9)
    energy = pulse.value**2
    return float(energy[inside].sum() / energy.sum())
