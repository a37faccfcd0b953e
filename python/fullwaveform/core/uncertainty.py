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
    """Waveforms in which echoes were found, and the noise of their samples.

    Limit, covariance and baseline deviation are those of kinds of noise, of which each waveform has
    one, in counts of the input.
    """

    samples: UInt16Array  # (n, width) counts, rows contiguous
    counts: UInt16Array  # (n,) valid samples of each row
    threshold: FloatArray  # (n,) counts of the samples
    noise: IntArray  # (n,) index of the kind of noise
    limit: FloatArray  # (k,) counts; samples from here on are clipped
    # (k, lags) counts squared, of two samples 0, 1, ... apart; MAX_NOISE_LAG + 1 lags at most
    covariance: FloatArray
    # (k,) counts, of the level from which heights count; NaN: the mean of the samples without echo
    baseline_deviation: FloatArray
    removed: IntArray  # (n,) counts of the input by which the samples of each row are lower
    scale: IntArray  # (n,) factor of the rest

    def compiled(self) -> _core.FittedRows:
        """The arrays as the compiled module takes them."""
        return _core.FittedRows(
            self.samples,
            np.ascontiguousarray(self.counts),
            _doubles(self.threshold),
            self.noise,
            _doubles(self.limit),
            _doubles(self.covariance),
            _doubles(self.baseline_deviation),
            self.removed,
            self.scale,
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
        deviations `position_sigmas` (m,).

        Parameters
        ----------
        rows : (m,) row of each echo, all echoes of these rows, in any order
        positions, sigmas, position_sigmas, reaches : (m,) samples
        heights : (m,) counts above the baseline
        """
        order = _ascending(rows)
        gaussians = (positions, heights, sigmas, position_sigmas, reaches)
        columns = (_doubles(column[order]) for column in gaussians)
        return _in_place(
            order, _core.gaussian_uncertainties(self.compiled(), rows[order], *columns)
        )

    def of_deconvolved(
        self, rows: IntArray, positions: FloatArray, heights: FloatArray, scanner: Scanner
    ) -> Uncertainties:
        """Of deconvolved echoes with refined positions; parameters as for `of_decomposed`.

        The scanner has a sampling interval and a system wave.
        """
        order = _ascending(rows)
        found = _core.system_wave_uncertainties(
            self.compiled(),
            rows[order],
            _doubles(positions[order]),
            _doubles(heights[order]),
            scanner.device(),
        )
        forward_messages()
        return _in_place(order, found)


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
