"""Strong echoes that stand alone: the pulses that a record's returns show."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform.core.driver import Driver, Mode, Threshold
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.system_wave.pulses import Pulses, baseline_of

#: No other echo within so many samples to either side.
CLEARANCE = 24.0
#: An echo of less than this share does not count as another one: pulses ring.
NEGLIGIBLE_SHARE = 0.1
#: Echoes are collected until there are so many.
ENOUGH = 20_000

NOT_ALONE = "another echo nearby"
WEAKER_HALF = "the weaker half"
OTHER_INTERVAL = "another sampling interval"

_BEFORE, _AFTER = 14, 22  # samples cut out about an echo
_LEAST_HEIGHT = 8.0  # counts above the baseline


@dataclass(frozen=True)
class Records:
    """Waveforms of one sampling interval.

    samples : (n, width) uint16, counts
    counts : (n,) valid samples of each row
    sampling_interval : s
    """

    samples: npt.NDArray[np.uint16]
    counts: npt.NDArray[np.uint16]
    sampling_interval: float

    def baseline(self) -> FloatArray:
        """Level between echoes of each row, counts."""
        return baseline_of(self.as_float())

    def as_float(self) -> FloatArray:
        """The samples, NaN behind the count of each row."""
        valid = np.arange(self.samples.shape[1]) < self.counts[:, np.newaxis]
        return np.where(valid, self.samples.astype(np.float64), np.nan)


@dataclass(frozen=True)
class StrongEchoes:
    """The strongest echo of each row that has one, all columns (m,).

    row : of the records
    position : samples
    height : counts above the row's baseline
    alone : whether no other echo stands nearby
    """

    row: IntArray
    position: FloatArray
    height: FloatArray
    alone: npt.NDArray[np.bool_]


def strongest_echoes(peaks: Mapping[str, npt.NDArray[Any]], baseline: FloatArray) -> StrongEchoes:
    """The strongest echo of each row, from a table of echoes (`row`, `idx`, `amplitudeCounts`)."""
    finite = np.isfinite(peaks["idx"]) & np.isfinite(peaks["amplitudeCounts"])
    row = peaks["row"][finite].astype(np.int64)
    position = peaks["idx"][finite].astype(np.float64)
    height = peaks["amplitudeCounts"][finite].astype(np.float64) - baseline[row]
    by_strength = np.lexsort((-height, row))
    rows, first = np.unique(row[by_strength], return_index=True)
    chosen = by_strength[first]
    of_row = np.searchsorted(rows, row)
    near = np.abs(position - position[chosen][of_row]) <= CLEARANCE
    disturbs = near & (height > NEGLIGIBLE_SHARE * height[chosen][of_row])
    disturbs[chosen] = False
    crowded = np.bincount(of_row[disturbs], minlength=len(rows)) > 0
    return StrongEchoes(rows, position[chosen], height[chosen], ~crowded)


def echoes_of(
    records: Records, scanner: Scanner, threshold: Threshold, mode: Mode, channel_flag: int = 1
) -> Mapping[str, Any]:
    """The table of echoes of a mode; `threshold` in counts or "estimate"."""
    driver = Driver(
        mode,
        scanner.at_interval(records.sampling_interval),
        longest_waveform=records.samples.shape[1],
    )
    flags = np.full(len(records.counts), channel_flag, dtype=np.uint8)
    return driver.apply(
        records.samples, records.counts, channel_flags=flags, threshold=threshold
    ).peaks


def isolated_echoes(
    parts: Iterable[Records], scanner: Scanner, threshold: Threshold, origin: str
) -> Pulses:
    """Pulses cut out about the strongest echoes of waveforms, one row each.

    Used are echoes that stand alone, rise 8 counts above the baseline, and belong to the stronger
    half of those. `threshold` in counts or "estimate".

    Raises ValueError when the records hold none.
    """
    rejected: Counter[str] = Counter()
    windows, heights, interval, found = [], [], None, 0
    for records in parts:
        interval = records.sampling_interval if interval is None else interval
        if records.sampling_interval != interval:
            rejected[OTHER_INTERVAL] += len(records.samples)
            continue
        echoes = strongest_echoes(
            echoes_of(records, scanner, threshold, Mode.THREE_POINT), records.baseline()
        )
        strong = echoes.height >= _LEAST_HEIGHT
        rejected[NOT_ALONE] += int(np.count_nonzero(strong & ~echoes.alone))
        use = strong & echoes.alone
        windows.append(_cut(records.as_float(), echoes.row[use], echoes.position[use]))
        heights.append(echoes.height[use])
        found += int(np.count_nonzero(use))
        if found >= ENOUGH:
            break
    if interval is None or found == 0:
        raise ValueError(f"{origin}: no echo stands alone {CLEARANCE:.0f} samples to either side")
    pulses = Pulses(np.concatenate(windows), interval, origin, +rejected)
    height = np.concatenate(heights)
    return pulses.without(height < np.median(height), WEAKER_HALF)


def _cut(values: FloatArray, row: IntArray, position: FloatArray) -> FloatArray:
    """Samples about each position, (m, 37); NaN outside the record."""
    column = np.rint(position).astype(np.int64)[:, np.newaxis] + np.arange(-_BEFORE, _AFTER + 1)
    inside = (column >= 0) & (column < values.shape[1])
    window = values[row[:, np.newaxis], np.where(inside, column, 0)]
    return np.where(inside, window, np.nan)
