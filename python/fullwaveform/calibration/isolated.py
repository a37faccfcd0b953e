"""Isolated strong echoes, whose samples show the pulse."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np

from fullwaveform.calibration.pulses import Pulses, baseline_of
from fullwaveform.core.driver import Driver, Mode, Threshold, Thresholds
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, BoolArray, FloatArray, IntArray, UInt16Array

#: Distance to other echoes, samples.
CLEARANCE = 24.0
#: Weaker echoes, as a share of the strong one, are ignored: pulses ring.
NEGLIGIBLE_SHARE = 0.1
#: Number of echoes to collect.
MAX_ECHOES = 20_000

NOT_ISOLATED = "another echo nearby"
WEAKER_HALF = "the weaker half"
OTHER_INTERVAL = "different sampling interval"


@dataclass(frozen=True)
class EchoWindow:
    """Samples around an echo, and what must not be near it."""

    before: int = 14  # samples before the echo
    after: int = 22  # samples after it
    clearance: float = CLEARANCE  # distance to other echoes, samples
    min_height: float = 8.0  # counts above the baseline


@dataclass(frozen=True)
class Waveforms:
    """Waveforms of one sampling interval.

    samples : (n, width) uint16, counts
    counts : (n,) valid samples of each row
    sampling_interval : s
    thresholds : measured, in counts; one for all or one (n,) for each
    """

    samples: UInt16Array
    counts: UInt16Array
    sampling_interval: float
    thresholds: Thresholds = "estimate"

    def baseline(self) -> FloatArray:
        """Baseline of each row, counts."""
        return baseline_of(self.as_float())

    def as_float(self) -> FloatArray:
        """The samples, NaN after the last one of each row."""
        valid = np.arange(self.samples.shape[1]) < self.counts[:, np.newaxis]
        return np.where(valid, self.samples.astype(np.float64), np.nan)


@dataclass(frozen=True)
class StrongEchoes:
    """The strongest echo of each row that has one, all columns (m,).

    row : index of the waveform
    position : samples
    height : counts above the row's baseline
    isolated : whether no other echo is near
    """

    row: IntArray
    position: FloatArray
    height: FloatArray
    isolated: BoolArray


def strongest_echoes(
    peaks: Mapping[str, AnyArray], baseline: FloatArray, clearance: float = CLEARANCE
) -> StrongEchoes:
    """The strongest finite echo of each row of `Result.peaks`.

    It is isolated if no other echo is within `clearance` samples.
    """
    finite = np.isfinite(peaks["idx"]) & np.isfinite(peaks["amplitudeCounts"])
    row = peaks["row"][finite].astype(np.int64)
    position = peaks["idx"][finite].astype(np.float64)
    height = peaks["amplitudeCounts"][finite].astype(np.float64) - baseline[row]
    by_strength = np.lexsort((-height, row))
    rows, first = np.unique(row[by_strength], return_index=True)
    chosen = by_strength[first]
    of_row = np.searchsorted(rows, row)
    near = np.abs(position - position[chosen][of_row]) <= clearance
    is_other = near & (height > NEGLIGIBLE_SHARE * height[chosen][of_row])
    is_other[chosen] = False
    crowded = np.bincount(of_row[is_other], minlength=len(rows)) > 0
    return StrongEchoes(rows, position[chosen], height[chosen], ~crowded)


def echoes_of(
    waveforms: Waveforms,
    scanner: Scanner,
    threshold: Threshold | None,
    mode: Mode,
    channel_flag: int = 1,
) -> Mapping[str, Any]:
    """`Result.peaks` of a mode; a threshold of None is the measured one of each waveform."""
    driver = Driver(
        mode,
        scanner.at_interval(waveforms.sampling_interval),
        longest_waveform=waveforms.samples.shape[1],
    )
    flags = np.full(len(waveforms.counts), channel_flag, dtype=np.uint8)
    return driver.apply(
        waveforms.samples,
        waveforms.counts,
        channel_flags=flags,
        threshold=waveforms.thresholds if threshold is None else threshold,
    ).peaks


def isolated_echoes(
    parts: Iterable[Waveforms], scanner: Scanner, threshold: Threshold | None, origin: str
) -> Pulses:
    """Samples around the strongest echoes of waveforms, one row per echo.

    Uses isolated echoes of at least 8 counts above the baseline, and of these the stronger half.

    Raises ValueError if there are none.
    """
    rejected: Counter[str] = Counter()
    windows, heights, interval, found = [], [], None, 0
    for waveforms in parts:
        interval = waveforms.sampling_interval if interval is None else interval
        if waveforms.sampling_interval != interval:
            rejected[OTHER_INTERVAL] += len(waveforms.samples)
            continue
        window, height, crowded = echo_windows(waveforms, scanner, threshold)
        rejected[NOT_ISOLATED] += crowded
        windows.append(window)
        heights.append(height)
        found += len(height)
        if found >= MAX_ECHOES:
            break
    if interval is None or found == 0:
        raise ValueError(f"{origin}: no echo without others within {CLEARANCE:.0f} samples")
    pulses = Pulses(np.concatenate(windows), interval, origin, +rejected)
    height = np.concatenate(heights)
    return pulses.without(height < np.median(height), WEAKER_HALF)


def echo_windows(
    waveforms: Waveforms,
    scanner: Scanner,
    threshold: Threshold | None = None,
    window: EchoWindow = EchoWindow(),
) -> tuple[FloatArray, FloatArray, int]:
    """Samples around the strongest echo of each waveform, if it is isolated.

    Returns
    -------
    windows (m, before + 1 + after), NaN outside of the waveform; heights (m,) of the echoes above
    the baseline, counts; number of strong echoes that are not isolated
    """
    echoes = strongest_echoes(
        echoes_of(waveforms, scanner, threshold, Mode.THREE_POINT),
        waveforms.baseline(),
        window.clearance,
    )
    strong = echoes.height >= window.min_height
    use = strong & echoes.isolated
    windows = _cut(waveforms.as_float(), echoes.row[use], echoes.position[use], window)
    return windows, echoes.height[use], int(np.count_nonzero(strong & ~echoes.isolated))


def _cut(values: FloatArray, row: IntArray, position: FloatArray, window: EchoWindow) -> FloatArray:
    """Samples around each position, one row each; NaN outside the waveform."""
    offsets = np.arange(-window.before, window.after + 1)
    column = np.rint(position).astype(np.int64)[:, np.newaxis] + offsets
    inside = (column >= 0) & (column < values.shape[1])
    samples = values[row[:, np.newaxis], np.where(inside, column, 0)]
    return np.where(inside, samples, np.nan)
