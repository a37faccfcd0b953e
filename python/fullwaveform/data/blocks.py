"""What readers, extraction and writers exchange: blocks of waveforms, tables of echoes."""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray


@dataclass(frozen=True, slots=True)
class ShotAttributes:
    """What an echo inherits from its shot, one entry per waveform (of one of its points)."""

    gps_time: FloatArray  # s, as LAS stores it: standard GPS times of other formats minus 1e9
    scan_angle: npt.NDArray[np.float32]  # degrees
    scan_direction_flag: npt.NDArray[np.uint8]  # 0 or 1
    edge_of_flight_line: npt.NDArray[np.uint8]  # 0 or 1
    user_data: npt.NDArray[np.uint8]
    point_source_id: npt.NDArray[np.uint16]


@dataclass(frozen=True, slots=True)
class PulseGeometry:
    """Where a waveform lies in space, one entry per waveform.

    The sample at time t, in picoseconds after the first sample, lies at
    ``anchor + (location - t) * direction``.
    """

    anchor: FloatArray  # (n, 3), coordinate units of the file: a discrete return of the pulse
    location: FloatArray  # (n,), ps after the first sample at which the anchor was measured
    direction: FloatArray  # (n, 3), coordinate units per ps; points against the flight of light


@dataclass(frozen=True, slots=True)
class WaveformBlock:
    """Waveforms of whole shots, in the order of the file.

    A shot is never split between two blocks.
    """

    samples: npt.NDArray[np.uint16]  # (n, width), counts; rows are zero behind their own count
    counts: npt.NDArray[np.uint16]  # (n,), valid samples of each row
    shot_times: FloatArray  # (n,), s; equal exactly for the waveforms of one shot, never NaN
    sbl_times: FloatArray  # (n,), s; 0 where the file has none
    channel_flags: npt.NDArray[np.uint8]  # (n,), 1 for the low-power channel, 0 for the other
    sampling_intervals: FloatArray  # (n,), s per sample
    geometry: PulseGeometry
    attributes: ShotAttributes
    waveform_numbers: npt.NDArray[np.int64]  # (n,), running number of the waveform in the file

    def __len__(self) -> int:
        return len(self.counts)


@dataclass(slots=True)
class ReadTally:
    """What a reader met so far; complete when its blocks are exhausted."""

    points: int = 0
    points_without_waveform: int = 0
    points_sharing_waveform: int = 0  # points whose packet another point had brought already
    waveforms: int = 0
    rejected: Counter[str] = field(default_factory=Counter)  # reason as a phrase -> waveforms
    notes: list[str] = field(default_factory=list)  # one sentence each, for the summary

    def reject(self, reason: str, count: int, places: Iterable[str]) -> None:
        """Count waveforms that are left out; `places` would say where in the file each stands."""
        if count > 0:
            self.rejected[reason] += count

    def __add__(self, other: ReadTally) -> ReadTally:
        """Both together, as of two ranges of blocks; notes of both stand once."""
        return ReadTally(
            self.points + other.points,
            self.points_without_waveform + other.points_without_waveform,
            self.points_sharing_waveform + other.points_sharing_waveform,
            self.waveforms + other.waveforms,
            self.rejected + other.rejected,
            list(dict.fromkeys(self.notes + other.notes)),
        )

    def copy(self) -> ReadTally:
        """The same counts, which do not change with this tally."""
        return self + ReadTally()

    def since(self, earlier: ReadTally) -> ReadTally:
        """What was met since `earlier`, a copy of this tally; the notes are all kept."""
        return ReadTally(
            self.points - earlier.points,
            self.points_without_waveform - earlier.points_without_waveform,
            self.points_sharing_waveform - earlier.points_sharing_waveform,
            self.waveforms - earlier.waveforms,
            self.rejected - earlier.rejected,
            list(self.notes),
        )


class ReportingTally(ReadTally):
    """A tally that tells of each waveform that is left out, when it is met."""

    def __init__(self, each: Callable[[str], None], notes: list[str]) -> None:
        super().__init__(notes=notes)
        self._each = each

    def reject(self, reason: str, count: int, places: Iterable[str]) -> None:
        """Count waveforms that are left out, with a sentence for each of their places."""
        super().reject(reason, count, places)
        for place in places:
            self._each(f"{place}: {reason}")
