"""The system wave: the part of an averaged pulse that the deconvolution uses, as exponentials."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.calibration.averaging import AveragePulse
from fullwaveform.core.constants import SYSTEM_WAVE_SAMPLES
from fullwaveform.data.arrays import FloatArray
from fullwaveform.system_wave.exponentials import (
    ExponentialFit,
    ExponentialSum,
    fit_exponentials,
)

#: Length of the window, from the first to the last sample that the deconvolution evaluates.
WINDOW_SAMPLES = float(SYSTEM_WAVE_SAMPLES - 1)
_STEPS_PER_SAMPLE = 10
_PLOT_MARGIN, _PLOTTED_PER_SAMPLE = 6.0, 50  # samples around the window; points
#: The window begins where the pulse has risen to this share of its maximum, unless less than
#: `CONTAINED_SHARE` of the energy of the pulse is then inside.
RISE_SHARE = 0.01
CONTAINED_SHARE = 0.98


@dataclass(frozen=True)
class SystemWave:
    """A pulse, its window, and the exponentials fitted in the window.

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
        """Whether nearly all energy of the pulse is in the window."""
        return self.contained >= CONTAINED_SHARE

    def in_seconds(self) -> ExponentialSum:
        """The wave as a function of seconds from the start of its window."""
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
    """Fit exponentials to the samples of the pulse that the deconvolution uses.

    Parameters
    ----------
    order : number of exponents; None: chosen by the misfit
    begin : start of the window, samples from the maximum, usually negative; None: where the pulse
        has risen to a hundredth of its maximum or, for a pulse longer than the window, where the
        window has the most energy

    Raises ValueError if the pulse does not cover the window, or no sum fits.
    """
    chosen = _chosen_begin(pulse) if begin is None else float(begin)
    position = chosen + np.arange(int(WINDOW_SAMPLES * _STEPS_PER_SAMPLE) + 1) / _STEPS_PER_SAMPLE
    value = pulse.at(position)
    if not np.isfinite(value).all():
        raise ValueError(
            f"{pulse.origin}: the pulse was recorded from {pulse.position[0]:.1f} to "
            f"{pulse.position[-1]:.1f} samples around its maximum; the system wave needs "
            f"{position[0]:.1f} to {position[-1]:.1f}"
        )
    fit = fit_exponentials(value, 1.0 / _STEPS_PER_SAMPLE, order)
    return SystemWave(pulse, chosen, _energy_share(pulse, chosen), fit)


def _chosen_begin(pulse: AveragePulse) -> float:
    low = np.flatnonzero((pulse.position < 0.0) & (pulse.value <= RISE_SHARE))
    if len(low):
        begin = float(pulse.position[low[-1]])
        is_covered = begin + WINDOW_SAMPLES <= pulse.position[-1]
        if is_covered and _energy_share(pulse, begin) >= CONTAINED_SHARE:
            return begin
    return _begin_of_most_energy(pulse)


def _begin_of_most_energy(pulse: AveragePulse) -> float:
    """Start of the window inside the pulse that has the most energy."""
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
