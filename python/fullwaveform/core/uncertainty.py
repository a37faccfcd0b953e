"""Standard deviations of positions, heights and widths of echoes by the noise of the samples."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform import _core
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray, UInt16Array

MAX_NOISE_LAG = _core.MAX_NOISE_LAG

#: Standard deviations (m,) of position (samples), height (counts) and full width at half maximum
#: (samples); NaN where the samples do not determine the value.
Uncertainties = tuple[FloatArray, FloatArray, FloatArray]


@dataclass(frozen=True, slots=True)
class FittedRows:
    """Waveforms in which echoes were found, and their noise."""

    samples: UInt16Array  # (n, width) counts, rows contiguous
    counts: UInt16Array  # (n,) valid samples of each row
    threshold: FloatArray  # (n,) counts
    limit: FloatArray  # (n,) counts; samples from here on are clipped
    # (n, lags) counts squared, of two samples 0, 1, ... apart; MAX_NOISE_LAG + 1 lags at most
    covariance: FloatArray
    # (n,) counts, of the level from which heights count; NaN: the mean of the samples without echo
    baseline_deviation: FloatArray

    def of_three_point(
        self, rows: IntArray, positions: FloatArray, sigmas: FloatArray
    ) -> Uncertainties:
        """Of echoes of the three-point fit.

        Parameters
        ----------
        rows : (m,) row of each echo, all echoes of these rows, in any order
        positions : (m,) samples
        sigmas : (m,) standard deviations, samples
        """
        order = _ascending(rows)
        columns = (_doubles(column[order]) for column in (positions, sigmas))
        return _in_place(
            order, _core.three_point_uncertainties(*self._arguments(rows[order]), *columns)
        )

    def of_decomposed(
        self,
        rows: IntArray,
        positions: FloatArray,
        heights: FloatArray,
        sigmas: FloatArray,
        position_sigmas: FloatArray,
        reaches: FloatArray,
    ) -> Uncertainties:
        """Of Gaussians that were fitted to the samples within `reaches` (m,) of their positions.

        Positions were fitted to samples above the threshold only, with Gaussians of the standard
        deviations `position_sigmas` (m,) in samples. Other parameters as for `of_three_point`;
        `heights` (m,) in counts above the baseline.
        """
        order = _ascending(rows)
        gaussians = (positions, heights, sigmas, position_sigmas, reaches)
        columns = (_doubles(column[order]) for column in gaussians)
        return _in_place(
            order, _core.gaussian_uncertainties(*self._arguments(rows[order]), *columns)
        )

    def of_deconvolved(
        self, rows: IntArray, positions: FloatArray, heights: FloatArray, scanner: Scanner
    ) -> Uncertainties:
        """Of deconvolved echoes with refined positions; parameters as for `of_decomposed`.

        The scanner has a sampling interval and a system wave.
        """
        order = _ascending(rows)
        found = _core.system_wave_uncertainties(
            *self._arguments(rows[order]),
            _doubles(positions[order]),
            _doubles(heights[order]),
            scanner.device(),
        )
        forward_messages()
        return _in_place(order, found)

    def _arguments(
        self, rows: IntArray
    ) -> tuple[UInt16Array, UInt16Array, FloatArray, FloatArray, FloatArray, FloatArray, IntArray]:
        return (
            self.samples,
            np.ascontiguousarray(self.counts),
            _doubles(self.threshold),
            _doubles(self.limit),
            _doubles(self.covariance),
            _doubles(self.baseline_deviation),
            rows,
        )


def _doubles(values: AnyArray) -> FloatArray:
    return np.ascontiguousarray(values, dtype=np.float64)


def _ascending(rows: IntArray) -> IntArray | slice:
    """The order of the rows; those of a driver are ascending and need not be copied."""
    if (rows[1:] >= rows[:-1]).all():
        return slice(None)
    return np.argsort(rows, kind="stable")


def _in_place(order: IntArray | slice, found: Uncertainties) -> Uncertainties:
    """The values of ordered rows at the places of the rows."""
    if isinstance(order, slice):
        return found
    position, height, fwhm = (np.empty_like(values) for values in found)
    for placed, values in zip((position, height, fwhm), found, strict=True):
        placed[order] = values
    return position, height, fwhm
