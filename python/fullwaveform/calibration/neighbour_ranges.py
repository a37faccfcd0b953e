"""Ranges of consecutive shots with a single echo, and how they scatter."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, fields

import numpy as np
import numpy.typing as npt

from fullwaveform.core.constants import SPEED_OF_LIGHT_IN_AIR
from fullwaveform.core.driver import Driver, Mode
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock

Receiver = tuple[int, int]  # channel flag and descriptor

_DEVIATIONS_PER_MEDIAN = 1.4826  # of a normal distribution
_NOISE_OF_SECOND_DIFFERENCE = np.sqrt(6.0)  # 1 + 4 + 1 variances


@dataclass(frozen=True)
class NeighbourRanges:
    """Single echoes of shots in runs of consecutive shots; all columns (m,)."""

    run: IntArray  # number of the shot; consecutive in a run, with a gap between two runs
    echo: FloatArray  # s, after the reference time of the shot
    time: FloatArray  # s, of the outgoing pulse, after the reference time of the shot
    interval: FloatArray  # s, sampling interval

    def __len__(self) -> int:
        return len(self.run)

    @classmethod
    def join(cls, parts: Sequence[NeighbourRanges]) -> NeighbourRanges:
        """The shots of several runs, none of which continues another."""
        shots, start = [], 0
        for part in parts:
            shots.append(part.run + start)
            start += int(part.run.max(initial=0)) + 2
        names = [field.name for field in fields(cls)][1:]
        columns = {
            name: np.concatenate([getattr(part, name) for part in parts] or [np.empty(0)])
            for name in names
        }
        return cls(np.concatenate(shots or [np.empty(0, np.int64)]), **columns)

    @property
    def pairs(self) -> int:
        """Number of second differences: three consecutive shots, two pairs of neighbours."""
        return int(np.count_nonzero(self._is_middle()))

    def scatter(self, correction: FloatArray) -> float:
        """Robust standard deviation of the ranges in m, after a correction (m,) in samples.

        From second differences along the scan, in which slopes cancel.
        """
        ranges = (self.echo - correction * self.interval) * SPEED_OF_LIGHT_IN_AIR / 2.0
        second = (ranges[:-2] - 2.0 * ranges[1:-1] + ranges[2:])[self._is_middle()]
        deviation = _DEVIATIONS_PER_MEDIAN * float(np.median(np.abs(second)))
        return deviation / float(_NOISE_OF_SECOND_DIFFERENCE)

    def _is_middle(self) -> np.ndarray[tuple[int], np.dtype[np.bool_]]:
        step = np.diff(self.run) == 1
        return np.asarray(step[:-1] & step[1:])


def single_echo_ranges(
    block: WaveformBlock, time: FloatArray, threshold: npt.NDArray[np.integer]
) -> dict[Receiver, NeighbourRanges]:
    """The single echoes of a run of consecutive shots, by the three-point fit.

    A single echo is the only one of its receiver in the shot. Receivers are kept apart, because
    their ranges may differ.

    Parameters
    ----------
    block : the run
    time : (n,) s, of the outgoing pulse of each waveform; NaN if unknown
    threshold : (n,) counts
    """
    row, position = _echoes(block, threshold)
    shots, shot = np.unique(block.shot_times, return_inverse=True)
    receivers = np.column_stack([block.channel_flags, block.descriptors])
    found = {}
    for flag, descriptor in np.unique(receivers[row], axis=0).tolist():
        of_receiver = (receivers[row] == (flag, descriptor)).all(axis=1)
        rows = row[of_receiver]
        is_single = np.bincount(shot[rows], minlength=len(shots))[shot[rows]] == 1
        is_single &= np.isfinite(position[of_receiver]) & np.isfinite(time[rows])
        rows, places = rows[is_single], position[of_receiver][is_single]
        order = np.argsort(shot[rows])
        rows, places = rows[order], places[order]
        interval = block.sampling_intervals[rows]
        found[flag, descriptor] = NeighbourRanges(
            shot[rows], block.sbl_times[rows] + places * interval, time[rows], interval
        )
    return found


def _echoes(
    block: WaveformBlock, threshold: npt.NDArray[np.integer]
) -> tuple[IntArray, FloatArray]:
    """Row of the block and position in samples of every echo; channels are not merged."""
    rows, positions = [np.empty(0, np.int64)], [np.empty(0)]
    for interval in np.unique(block.sampling_intervals):
        chosen = np.flatnonzero(block.sampling_intervals == interval)
        driver = Driver(Mode.THREE_POINT, Scanner.default().at_interval(float(interval)))
        peaks = driver.apply(
            block.samples[chosen], block.counts[chosen], threshold=threshold[chosen]
        ).peaks
        rows.append(chosen[peaks["row"]])
        positions.append(peaks["idx"].astype(np.float64))
    return np.concatenate(rows), np.concatenate(positions)
