"""What readers and extraction exchange: blocks of waveforms, and counts of what was read."""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass, field

import numpy as np

from fullwaveform.data.arrays import (
    AnyArray,
    Float32Array,
    FloatArray,
    IntArray,
    UInt8Array,
    UInt16Array,
    UInt64Array,
)
from fullwaveform.data.checks import as_counts
from fullwaveform.data.returns import DiscreteReturns


@dataclass(frozen=True, slots=True)
class ShotAttributes:
    """What an echo inherits from its shot, one entry per waveform (of one of its points)."""

    gps_time: FloatArray  # s, as LAS stores it: standard GPS times of other formats minus 1e9
    scan_angle: Float32Array  # degrees
    scan_direction_flag: UInt8Array  # 0 or 1
    edge_of_flight_line: UInt8Array  # 0 or 1
    user_data: UInt8Array
    point_source_id: UInt16Array


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
class OutgoingPulses:
    """The recorded outgoing pulse of each waveform, one row per waveform, equal within a shot."""

    # (n, width), counts; zero after the last valid sample of a row. Whole numbers of other types
    # are converted.
    samples: UInt16Array
    counts: UInt16Array  # (n,), valid samples of each row; 0 if no pulse was recorded
    sampling_intervals: FloatArray  # (n,), s per sample
    durations: FloatArray  # (n,), s from the reference time of the shot to the first sample

    def __len__(self) -> int:
        return len(self.counts)


#: Longest standard deviation of a smoothing, s; a millisecond would be the whole waveform.
MAX_SMOOTHING = 1e-6


@dataclass(frozen=True, slots=True)
class RecordedNoise:
    """Noise of each waveform as the file states it, one entry per waveform; NaN where it does not.

    It may be that of samples before they were smoothed, and so exceed that of the stored ones.
    """

    mean: FloatArray  # (n,), counts
    rms: FloatArray  # (n,), counts


@dataclass(frozen=True, slots=True)
class WaveformBlock:
    """Waveforms of whole shots, in the order of the file.

    A shot is never split between two blocks.
    """

    # (n, width), counts; zero after the last valid sample of a row. Whole numbers of other types
    # are converted.
    samples: UInt16Array
    counts: UInt16Array  # (n,), valid samples of each row
    shot_times: FloatArray  # (n,), s; exactly equal for the waveforms of one shot, never NaN
    sbl_times: FloatArray  # (n,), s; 0 where the file has none
    channel_flags: UInt8Array  # (n,), 1 for the low-power channel, 0 for the high-power channel
    sampling_intervals: FloatArray  # (n,), s per sample
    geometry: PulseGeometry
    attributes: ShotAttributes
    waveform_numbers: IntArray  # (n,), running number of the waveform in the file
    returns: DiscreteReturns | None = None  # None if the format has none
    outgoing: OutgoingPulses | None = None  # None unless `WaveformReader.with_outgoing` is set
    # (n,), number of the packet descriptor or channel that identifies the receiver in the format;
    # 0 where the format has none.
    descriptors: UInt8Array = field(default_factory=lambda: np.empty(0, np.uint8))
    # (n,), texts: name of the beam, equal within a block that a reader returns; None if the format
    # has no beams.
    beams: AnyArray | None = None
    shot_numbers: UInt64Array | None = None  # (n,), as in the file; None if the format has none
    #: (n, 3), coordinate units: where the pulses left; NaN or None where unknown.
    origins: FloatArray | None = None
    noise: RecordedNoise | None = None  # None if the format does not state it
    #: s, standard deviation of the Gaussian that smooths the samples before echoes are searched, if
    #: nothing else is chosen; 0: none.
    smoothing: float = 0.0

    def __post_init__(self) -> None:
        if len(self.descriptors) == 0:  # not given
            object.__setattr__(self, "descriptors", np.zeros(len(self), np.uint8))
        object.__setattr__(self, "samples", as_counts(self.samples, "samples"))

    def __len__(self) -> int:
        return len(self.counts)


def blocks_of(source: object) -> Iterator[WaveformBlock]:
    """The blocks of a block or an iterable of them; ValueError for anything else."""
    blocks = [source] if isinstance(source, WaveformBlock) else source
    if not isinstance(blocks, Iterable):
        raise ValueError(f"invalid source {source!r}; expected a path, a reader or blocks")
    for block in blocks:
        if not isinstance(block, WaveformBlock):
            raise ValueError(
                f"invalid block {block!r}; expected a WaveformBlock (extract files one by one)"
            )
        yield block


@dataclass(slots=True)
class ReadTally:
    """What a reader has read so far; complete when its blocks are exhausted."""

    points: int = 0
    points_without_waveform: int = 0
    points_sharing_waveform: int = 0  # points whose waveform belongs to an earlier point
    waveforms: int = 0
    rejected: Counter[str] = field(default_factory=Counter)  # reason -> waveforms
    notes: list[str] = field(default_factory=list)  # messages for the summary
    points_short: int = 0  # pulses with two segments where their descriptor declares three
    left_out: Counter[str] = field(
        default_factory=Counter
    )  # reason -> readable shots, not asked for

    def reject(self, reason: str, count: int, places: Iterable[str]) -> None:
        """Count skipped waveforms; `places` (lazily) says where in the file each is."""
        if count > 0:
            self.rejected[reason] += count

    def __add__(self, other: ReadTally) -> ReadTally:
        """The sum, as for two ranges of blocks; notes of both are listed once."""
        return ReadTally(
            self.points + other.points,
            self.points_without_waveform + other.points_without_waveform,
            self.points_sharing_waveform + other.points_sharing_waveform,
            self.waveforms + other.waveforms,
            self.rejected + other.rejected,
            list(dict.fromkeys(self.notes + other.notes)),
            self.points_short + other.points_short,
            self.left_out + other.left_out,
        )

    def copy(self) -> ReadTally:
        """The same counts, independent of this tally."""
        return self + ReadTally()

    def since(self, earlier: ReadTally) -> ReadTally:
        """The counts since `earlier`, a copy of this tally; with all notes."""
        return ReadTally(
            self.points - earlier.points,
            self.points_without_waveform - earlier.points_without_waveform,
            self.points_sharing_waveform - earlier.points_sharing_waveform,
            self.waveforms - earlier.waveforms,
            self.rejected - earlier.rejected,
            list(self.notes),
            self.points_short - earlier.points_short,
            self.left_out - earlier.left_out,
        )


class ReportingTally(ReadTally):
    """A tally that reports each skipped waveform when it is counted."""

    def __init__(self, report: Callable[[str], None], notes: list[str]) -> None:
        super().__init__(notes=notes)
        self._report = report

    def reject(self, reason: str, count: int, places: Iterable[str]) -> None:
        """Count skipped waveforms and report the place of each."""
        super().reject(reason, count, places)
        for place in places:
            self._report(f"{place}: {reason}")
