"""The pulse fit: echoes as copies of the measured pulse, each with its uncertainty."""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import dataclass, fields

import numpy as np
import numpy.typing as npt

from fullwaveform import _core
from fullwaveform._core import RunMonitor
from fullwaveform.data.arrays import FloatArray, IntArray, UInt16Array
from fullwaveform.data.checks import checked_counts, checked_integers, checked_samples
from fullwaveform.data.columns import Columns

#: Remarks on an echo of a pulse fit; bits of the column ``flags``.
PulseEchoFlag = _core.PulseEchoFlag
#: Largest rate that can be asked for, echoes of noise per 1,000 waveforms without light.
MAX_FALSE_ALARMS = 100.0


@dataclass(frozen=True)
class PulseModel:
    """What a pulse fit knows of a receiver: the shape of a returned pulse, the noise, the scatter.

    Lengths and times are in samples, levels in counts. A pulse of variance v is the pulse convolved
    with a Gaussian of this variance (samples squared).

    Raises ValueError for a model with which nothing can be fitted.
    """

    pulse: tuple[float, ...]  # at equidistant lags; maximum 1 at lag 0, close to 0 at both ends
    first_lag: float  # of the first value, negative
    lag_step: float  # between two values
    baseline: float  # median level without light
    baseline_spread: float  # standard deviation of the level from waveform to waveform
    noise_rms: float  # of a single sample
    noise_correlation: float  # noise seen by a matched filter, relative to that of white noise
    scatter: float  # rms deviation of a pulse from the model, relative to its amplitude
    variance_spread: float  # standard deviation of v of echoes of flat surfaces
    widening: float  # mean v that slopes add, an exponential distribution
    sampling_interval: float  # s

    def __post_init__(self) -> None:
        object.__setattr__(self, "pulse", tuple(float(value) for value in self.pulse))
        if not (self.sampling_interval > 0.0 and math.isfinite(self.sampling_interval)):
            raise ValueError(
                f"invalid sampling interval {self.sampling_interval} of a pulse model; expected "
                "seconds above 0"
            )
        if error := self.compiled().error:
            raise ValueError(error)

    def compiled(self) -> _core.PulseModel:
        """The model as the compiled module takes it."""
        model = _core.PulseModel()
        for field in fields(self):
            if field.name != "sampling_interval":
                setattr(model, field.name, getattr(self, field.name))
        return model


@dataclass(frozen=True)
class PulseFitSettings:
    """Settings of a pulse fit.

    Raises ValueError if one is out of range.
    """

    false_alarms: float = 1.0  # echoes of noise per 1,000 waveforms without light
    # Gain of twice the log-likelihood that an echo must bring at least; NaN: chosen by the scatter
    # of the pulses.
    min_echo_cost: float = math.nan
    digitiser_limit: float = math.inf  # counts; samples from here on are clipped
    max_variance: float = 25.0  # samples squared; largest widening of a pulse

    def __post_init__(self) -> None:
        if error := self.compiled().error:
            raise ValueError(error)

    def compiled(self) -> _core.PulseFitSettings:
        """The settings as the compiled module takes them."""
        settings = _core.PulseFitSettings()
        for field in fields(self):
            setattr(settings, field.name, getattr(self, field.name))
        return settings


@dataclass(frozen=True)
class PulseFitTable:
    """Echoes and waveforms of a pulse fit.

    echoes : one row per echo, by waveform and position: ``row`` (of the samples), ``position``
        (samples), ``amplitude`` (counts above the baseline), ``fwhm`` (samples), their standard
        deviations ``sigma_position``, ``sigma_amplitude`` and ``sigma_fwhm`` (NaN where the samples
        do not determine them), ``significance`` (amplitude over its standard deviation), ``flags``
        (of `PulseEchoFlag`)
    waveforms : one row per fitted waveform, in their order: ``baseline`` (counts),
        ``reduced_chi_square`` (1 if the model explains the samples), ``clipped_samples``,
        ``echo_count``; NaN for a waveform without samples
    """

    echoes: Columns
    waveforms: Columns


class PulseFit:
    """Fits the waveforms of one receiver.

    Calls from several threads run one after the other; use one object per thread. `monitor` cancels
    a call from another thread, which then raises `Cancelled`, and counts the waveforms; signals end
    a call in the main thread without it.
    """

    def __init__(
        self,
        model: PulseModel,
        settings: PulseFitSettings | None = None,
        monitor: RunMonitor | None = None,
    ) -> None:
        settings = settings or PulseFitSettings()
        self._fit = _core.PulseFit(model.compiled(), settings.compiled(), monitor)

    def apply(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.ArrayLike | None = None,
        rows: Sequence[int] | IntArray | None = None,
    ) -> PulseFitTable:
        """Fit waveforms.

        Parameters
        ----------
        samples : (n, width) whole numbers from 0 to 65535
            Counts. uint16 is read without a copy; its rows must be contiguous and aligned.
        counts : (n,) integers, optional
            Valid samples of each row. Default: `width`.
        rows : (k,) integers, optional
            The rows to fit. Default: all.

        Raises
        ------
        ValueError
            Wrong shape or type, or a count or row out of range.
        """
        samples = checked_samples(samples)
        number, width = samples.shape
        if counts is None:
            counts = np.full(number, width, np.uint16)
        valid = checked_counts(counts, number, width)
        chosen = _checked_rows(rows, number)
        raw = self._fit.apply(samples, valid, chosen)
        waveforms = raw["waveforms"]
        empty = valid[chosen] == 0
        for name in ("baseline", "reduced_chi_square"):
            waveforms[name][empty] = np.nan
        return PulseFitTable(Columns(raw["echoes"]), Columns(waveforms))

    def pulses(
        self, positions: FloatArray, amplitudes: FloatArray, fwhms: FloatArray, places: FloatArray
    ) -> FloatArray:
        """Sum (k,) in counts of the pulses of echoes (m,) at places (k,), all without the baseline.

        Positions, places and full widths at half maximum are in samples, amplitudes in counts.

        Raises ValueError for values that are not finite.
        """
        columns = [
            np.ascontiguousarray(values, dtype=np.float64)
            for values in (positions, amplitudes, fwhms, places)
        ]
        if not all(np.isfinite(column).all() for column in columns):
            raise ValueError("invalid echoes or places of pulses: values must be finite")
        return self._fit.pulses(*columns)


def fit_pulses(
    samples: UInt16Array,
    counts: npt.ArrayLike | None,
    model: PulseModel,
    settings: PulseFitSettings | None = None,
    monitor: RunMonitor | None = None,
) -> PulseFitTable:
    """Fit all waveforms of an array once; see `PulseFit`, which keeps its tables between calls."""
    return PulseFit(model, settings, monitor).apply(samples, counts)


def _checked_rows(rows: Sequence[int] | IntArray | None, number: int) -> IntArray:
    if rows is None:
        return np.arange(number)
    chosen = np.asarray(rows)
    if chosen.size == 0:
        return np.empty(0, np.int64)
    rule = f"is not a row of the samples, which have {number}"
    checked_integers(chosen, "rows", chosen.size, number - 1, rule)
    return np.ascontiguousarray(chosen, dtype=np.int64)
