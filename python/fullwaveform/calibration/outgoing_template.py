"""The mean outgoing pulse of a file, and the position of every outgoing pulse by fitting it."""

from __future__ import annotations

from dataclasses import dataclass
from functools import cached_property

import numpy as np

from fullwaveform.calibration.curve import Curve, vertex
from fullwaveform.calibration.pulses import pulses_of_rows, screened
from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray, UInt16Array

#: More pulses do not improve the mean.
MAX_PULSES = 1000
_MIN_PULSES = 20
_DEGREE = 5  # of the spline; with one knot per sample it cannot follow errors of the positions
_ITERATIONS = 4
_FULL_EXTENT = 24  # samples on either side of the maximum, before the window is chosen
_SHARE = 0.05  # of the maximum, at which the pulse begins and ends
_MARGIN = 3  # samples of the window before and after the pulse, for the baseline
_ROOM_QUANTILE = 0.02  # pulses that may have less room than the window
_PHASES = 32  # positions per sample for which the fit is prepared
_MAX_STEPS = 12
_MAX_STEP = 1.0  # samples per step of the fit


@dataclass(frozen=True)
class OutgoingTemplate:
    """The mean outgoing pulse: a spline with maximum 1 at position 0.

    A pulse is fitted in the window of samples `first` to `last` from its largest sample.
    """

    sampling_interval: float  # s, of the outgoing pulses
    first: int  # samples, negative
    last: int  # samples
    knots: tuple[float, ...]  # samples from the maximum
    coefficients: tuple[float, ...]

    def positions(self, samples: UInt16Array, counts: UInt16Array) -> FloatArray:
        """Position of the maximum of each outgoing pulse by least squares, in samples.

        Amplitude, baseline and position of the template are fitted together, in Gauss-Newton steps
        whose matrix is prepared for every 1/32 of a sample. The position of a pulse does not depend
        on the pulses that are fitted with it.

        Parameters
        ----------
        samples : (n, width) counts
        counts : (n,) valid samples of each row

        Returns
        -------
        (n,), NaN for a pulse that is missing, too close to the ends of its samples, or not like the
        template.
        """
        position = np.full(len(counts), np.nan)
        if samples.shape[1] < self.last - self.first + 1:
            return position
        valid = np.arange(samples.shape[1]) < counts[:, np.newaxis]
        centre = np.argmax(np.where(valid, samples, np.uint16(0)), axis=1)
        offset = np.zeros(len(counts))
        rows = np.arange(len(counts))
        for _ in range(_MAX_STEPS):
            rows = rows[self._is_inside(centre[rows], counts[rows])]
            if len(rows) == 0:
                break
            phase = np.rint(offset[rows] * _PHASES).astype(np.int64)
            move, amplitude = self._step(samples, rows, centre[rows], phase)
            settled = (np.abs(move) <= 1.0 / _PHASES) & (amplitude > 0.0)
            position[rows[settled]] = (centre[rows] + phase / _PHASES + move)[settled]
            rows, phase, move = rows[~settled], phase[~settled], move[~settled]
            moved = phase / _PHASES + np.clip(move, -_MAX_STEP, _MAX_STEP)
            centre[rows] += np.rint(moved).astype(np.int64)
            offset[rows] = moved - np.rint(moved)
        return position

    def _is_inside(self, centre: IntArray, counts: UInt16Array) -> BoolArray:
        return np.asarray((centre + self.first >= 0) & (centre + self.last < counts))

    def _step(
        self, samples: UInt16Array, rows: IntArray, centre: IntArray, phase: IntArray
    ) -> tuple[FloatArray, FloatArray]:
        """Movement in samples and amplitude in counts by one step of the fit."""
        of_amplitude, of_move = self._estimators
        window = np.arange(self.first, self.last + 1)
        values = samples[rows[:, np.newaxis], centre[:, np.newaxis] + window].astype(np.float64)
        amplitude = _row_sums(values, of_amplitude[phase + _PHASES // 2])
        shift = _row_sums(values, of_move[phase + _PHASES // 2])
        with np.errstate(divide="ignore", invalid="ignore"):
            move = shift / amplitude
        return np.where(np.isfinite(move), move, _MAX_STEP), amplitude

    @cached_property
    def _estimators(self) -> tuple[FloatArray, FloatArray]:
        """Weights of the samples in amplitude, and in amplitude times movement, by phase."""
        from scipy.interpolate import BSpline  # on demand, see `Curve.through`

        phase = np.arange(-_PHASES // 2, _PHASES // 2 + 1) / _PHASES
        x = np.arange(self.first, self.last + 1) - phase[:, np.newaxis]
        spline = BSpline(np.array(self.knots), np.array(self.coefficients), _DEGREE)
        columns = np.stack([spline(x), np.ones_like(x), -spline(x, nu=1)], axis=2)
        inverse = np.linalg.pinv(columns)
        return inverse[:, 0].copy(), inverse[:, 2].copy()


def mean_outgoing_pulse(
    samples: UInt16Array, counts: UInt16Array, sampling_interval: float
) -> OutgoingTemplate | None:
    """The mean of outgoing pulses, aligned to fractions of a sample.

    Positions and mean are fitted in turn. Clipped, weak and cut pulses are left out.

    Parameters
    ----------
    samples : (n, width) counts
    counts : (n,) valid samples of each row
    sampling_interval : s

    Returns
    -------
    None if fewer than 20 pulses are usable.
    """
    usable = screened(
        pulses_of_rows(samples, counts, sampling_interval, "outgoing pulses"), MAX_PULSES
    ).values
    if len(usable) < _MIN_PULSES:
        return None
    top = np.nanargmax(usable, axis=1)
    first, last = _window(usable, top)
    values = _windows(usable, top, first - 1, last + 1)
    whole = np.isfinite(values).all(axis=1)
    values, top = values[whole], top[whole]
    if len(values) < _MIN_PULSES:
        return None
    position = _vertices(values, 1 - first)
    used = np.clip(values, 0.0, 65535.0).astype(np.uint16)
    length = np.full(len(used), used.shape[1], np.uint16)
    for _ in range(_ITERATIONS):
        template = _template(values, position, (first, last), sampling_interval)
        fitted = template.positions(used, length)
        position = np.where(np.isfinite(fitted), fitted, position)
    return _template(values, position, (first, last), sampling_interval)


def _window(values: FloatArray, top: IntArray) -> tuple[int, int]:
    """First and last sample of the pulse from its maximum, with some baseline on either side."""
    length = np.count_nonzero(np.isfinite(values), axis=1)
    # One sample less than most pulses have: the maximum of another one may be a sample away.
    before = min(int(np.quantile(top, _ROOM_QUANTILE)), _FULL_EXTENT) - 1
    after = min(int(np.quantile(length - 1 - top, _ROOM_QUANTILE)), _FULL_EXTENT) - 1
    profile = np.nanmedian(_windows(values, top, -before, after), axis=0)
    level = profile.min()
    strong = profile - level >= _SHARE * (profile[before] - level)
    rise = int(np.argmin(strong[before::-1])) or before
    fall = int(np.argmin(strong[before:])) or after
    return -min(rise + _MARGIN, before), min(fall + _MARGIN, after)


def _windows(values: FloatArray, top: IntArray, first: int, last: int) -> FloatArray:
    """Samples `first` to `last` from the maximum, (n, last - first + 1); NaN outside."""
    padding = max(-first, last)
    padded = np.pad(values, ((0, 0), (padding, padding)), constant_values=np.nan)
    columns = top[:, np.newaxis] + padding + np.arange(first, last + 1)
    return np.asarray(np.take_along_axis(padded, columns, axis=1))


def _vertices(values: FloatArray, centre: int) -> FloatArray:
    """Vertices of the parabolas around the sample `centre`, to start with."""
    left, middle, right = values[:, centre - 1], values[:, centre], values[:, centre + 1]
    bend = left - 2.0 * middle + right
    move = np.divide(0.5 * (left - right), bend, out=np.zeros_like(bend), where=bend < 0.0)
    return np.asarray(centre + np.clip(move, -0.5, 0.5))


def _template(
    values: FloatArray, position: FloatArray, window: tuple[int, int], interval: float
) -> OutgoingTemplate:
    """Spline through the pulses at their positions, with maximum 1 at position 0."""
    first, last = window
    x = np.arange(values.shape[1]) - position[:, np.newaxis]
    baseline = values.min(axis=1, keepdims=True)
    height = values.max(axis=1, keepdims=True) - baseline
    y = (values - baseline) / height
    extent = (1.0 - first, 1.0 + last)
    spline = Curve.through(x, y, np.ones_like(y), extent, (1, _DEGREE)).spline
    fine = np.arange(-100, 101) / 100.0
    shape = spline(fine)
    shift, top = vertex(fine, shape, int(np.argmax(shape)))
    return OutgoingTemplate(
        sampling_interval=interval,
        first=first,
        last=last,
        knots=tuple((spline.t - shift).tolist()),
        coefficients=tuple((spline.c / top).tolist()),
    )


def _row_sums(values: FloatArray, weights: FloatArray) -> FloatArray:
    # Column by column, so that the order of the sum does not depend on the number of rows.
    total = np.zeros(len(values))
    for column, weight in zip(values.T, weights.T, strict=True):
        total += column * weight
    return total
