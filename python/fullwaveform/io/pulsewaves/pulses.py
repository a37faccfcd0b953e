"""Pulses of PulseWaves files: fields, times and geometry."""

from __future__ import annotations

from abc import ABC, abstractmethod
from collections.abc import Iterator
from dataclasses import dataclass, replace
from functools import cached_property
from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray, RecordArray, UInt8Array
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.limits import SURVEY_CHUNK, numbered_shots
from fullwaveform.io.pulsewaves.header import PulseWavesHeader

TARGET_UNITS = 1000.0  # sampling units from the anchor to the target

_FIELDS: dict[str, tuple[str, int]] = {  # type, byte of the pulse
    "time": ("<i8", 0),
    "offset": ("<i8", 8),
    "anchor": ("<3i4", 16),
    "target": ("<3i4", 28),
    "first_returning": ("<i2", 40),
    "last_returning": ("<i2", 42),
    "descriptor": ("u1", 44),
    "flags": ("u1", 45),
    "intensity": ("u1", 46),
    "classification": ("u1", 47),
}

#: Bytes of a pulse that say where its samples are.
OFFSET_BYTES = slice(8, 16)

_UNKNOWN_END = np.iinfo(np.int64).max

Pulses = RecordArray  # structured, fields as above


class PulseSource(ABC):
    """The pulses of a file as records; must be closed."""

    count: int  # pulses in the file
    missing: int  # pulses that the header declares but the truncated file does not hold
    end: int  # byte of the file after the pulses and what belongs to them
    has_appended: bool = True  # whether appended records can follow
    notes: tuple[str, ...] = ()  # messages for the summary

    @abstractmethod
    def close(self) -> None:
        """Close the file; may be called twice."""

    @abstractmethod
    def records(self, numbers: IntArray) -> UInt8Array:
        """Records (n, bytes of a pulse) of the pulses with the running numbers (n,)."""

    def damaged(self, numbers: IntArray) -> BoolArray:
        """Which of the pulses (n,) cannot be read; their records are zero."""
        return np.zeros(len(numbers), dtype=bool)

    def files(self) -> list[tuple[int, int]]:
        """First pulse of each file and that after its last one."""
        return [(0, self.count)]

    def gaps(self) -> list[tuple[int, int]]:
        """Number from which on pulses are missing, and how many, for each truncated file."""
        return [(self.count, self.missing)] if self.missing else []

    def forget(self) -> None:  # noqa: B027
        """Drop what is kept in memory of the content."""


class PlainPulses(PulseSource):
    """Uncompressed pulses.

    Raises
    ------
    WaveformFileError
        If the file does not hold all pulses.
    """

    missing = 0

    def __init__(self, header: PulseWavesHeader, path: Path) -> None:
        self.count = header.pulse_count
        self._size = header.pulse_size
        self.end = header.pulses_start + self.count * self._size
        size = path.stat().st_size
        if self.end > size:
            found = (size - header.pulses_start) // self._size
            raise WaveformFileError(
                f"{path}: truncated: header declares {self.count} pulses, found {found}"
            )
        self._bytes = FileBytes(path, header.pulses_start)

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()

    def records(self, numbers: IntArray) -> UInt8Array:
        """See `PulseSource`."""
        return self._bytes.rows(numbers * self._size, self._size)


class PulseData:
    """The pulses of a file; must be closed."""

    def __init__(self, header: PulseWavesHeader, source: PulseSource) -> None:
        self.header = header
        self._layout = np.dtype(
            {
                "names": list(_FIELDS),
                "formats": [kind for kind, _ in _FIELDS.values()],
                "offsets": [position for _, position in _FIELDS.values()],
                "itemsize": header.pulse_size,
            }
        )
        self.source = source
        if len(self) > 0 and not any(header.time_range):  # not set
            ends = self.take(np.array([0, len(self) - 1]))["time"]
            self.header = replace(header, time_range=(int(ends.min()), int(ends.max())))
        if self.header.has_wrong_time_offset:
            source.notes = (
                *source.notes,
                f"The stored times are standard GPS times; the offset {header.time_offset:g} s of "
                "the header was not added.",
            )
            self.header = replace(self.header, time_offset=0.0)

    def close(self) -> None:
        """Close the file; may be called twice."""
        self.source.close()

    def __len__(self) -> int:
        return self.source.count

    def __getitem__(self, rows: slice) -> Pulses:
        return self.take(np.arange(*rows.indices(len(self))))

    def take(self, numbers: IntArray) -> Pulses:
        """The pulses of the given running numbers, in their order."""
        pulses: Pulses = self.source.records(numbers).view(self._layout)[:, 0]
        return pulses

    def next_offsets(self, numbers: IntArray, rows: Pulses) -> IntArray:
        """First byte of the samples of the next pulse, for the pulses `rows` with these numbers.

        The largest integer after the last pulse, and where the next pulse's samples do not come
        later in the file.
        """
        last = len(self) - 1
        following = np.full(len(rows), _UNKNOWN_END)
        following[:-1] = rows["offset"][1:]
        elsewhere = np.flatnonzero(np.append(np.diff(numbers) != 1, numbers[-1:] < last))
        following[elsewhere] = self.take(np.minimum(numbers[elsewhere] + 1, last))["offset"]
        last_of_files = [stop - 1 for _, stop in self.source.files()]
        following[np.isin(numbers, last_of_files)] = _UNKNOWN_END
        ends: IntArray = np.where(following > rows["offset"], following, _UNKNOWN_END)
        return ends

    def next_larger_offsets(self, numbers: IntArray, rows: Pulses) -> IntArray:
        """The smallest offset beyond that of each of the pulses `rows` with these numbers (n,).

        The largest integer where no pulse of the same file has one. Takes eight bytes per pulse of
        a file whose offsets do not increase.
        """
        ends = self.next_offsets(numbers, rows)
        for (first, stop), offsets in zip(
            self.source.files(), self._unordered_offsets, strict=True
        ):
            if offsets is not None:
                inside = np.flatnonzero((numbers >= first) & (numbers < stop))
                places = np.searchsorted(offsets, rows["offset"][inside], side="right")
                ends[inside] = offsets[places]
        return ends

    @cached_property
    def _unordered_offsets(self) -> list[IntArray | None]:
        """Offsets of each file in ascending order, `_UNKNOWN_END` last; None if they increase."""
        found: list[IntArray | None] = []
        for first, stop in self.source.files():
            rising, last = True, np.iinfo(np.int64).min
            for chunk in self.chunks(SURVEY_CHUNK, first, stop):
                offsets = np.append(last, chunk["offset"])
                rising = rising and bool((offsets[1:] > offsets[:-1]).all())
                last = offsets[-1]
            found.append(None if rising else self._sorted_offsets(first, stop))
        return found

    def _sorted_offsets(self, first: int, stop: int) -> IntArray:
        chunks = [chunk["offset"] for chunk in self.chunks(SURVEY_CHUNK, first, stop)]
        offsets = np.concatenate([*chunks, [_UNKNOWN_END]])
        offsets.sort()
        return offsets

    def chunks(self, size: int, first: int = 0, stop: int | None = None) -> Iterator[Pulses]:
        """Yield the readable pulses `first` to `stop` in their order, `size` at a time."""
        end = len(self) if stop is None else stop
        for start in range(first, end, size):
            numbers = np.arange(start, min(start + size, end))
            pulses = self.take(numbers)
            damaged = self.source.damaged(numbers)
            yield pulses[~damaged] if damaged.any() else pulses

    def times(self, pulses: Pulses) -> FloatArray:
        """Time of each pulse, s; standard GPS times are adjusted as in LAS, minus 1e9."""
        # Subtracted from the offset, because the spacing of doubles at 1e9 s is 0.1 us.
        offset = self.header.time_offset - self.header.time_adjustment
        with np.errstate(over="ignore"):  # an extreme scale gives infinite times, never NaN
            times: FloatArray = pulses["time"] * np.float64(self.header.time_scale)
            times += offset
        return times


@dataclass(frozen=True, slots=True)
class PulseSurvey:
    """What is known of the pulses before the first block."""

    times_differ: bool  # no two pulses have the same time
    descriptors: tuple[int, ...]  # that pulses refer to


def survey(pulses: PulseData) -> PulseSurvey:
    """Read all pulses once, chunk by chunk."""
    used = np.zeros(256, dtype=bool)
    rising, last_time = True, -np.inf
    for chunk in pulses.chunks(SURVEY_CHUNK):
        used[chunk["descriptor"]] = True
        times = pulses.times(chunk)
        if len(times) > 0:
            rising = rising and bool(times[0] > last_time and (times[1:] > times[:-1]).all())
            last_time = times[-1]
    differ = rising or _all_differ(pulses)
    return PulseSurvey(differ, tuple(int(index) for index in np.flatnonzero(used)))


def survey_of(rows: Pulses, pulses: PulseData) -> PulseSurvey:
    """The survey of a few pulses, as if the file had no others."""
    times = np.sort(pulses.times(rows))
    differ = bool((times[1:] > times[:-1]).all())
    return PulseSurvey(differ, tuple(int(index) for index in np.unique(rows["descriptor"])))


def shot_times(
    rows: Pulses, numbers: IntArray, pulses: PulseData, surveyed: PulseSurvey
) -> FloatArray:
    """Shot times of the pulses: their times, or their running numbers if times repeat."""
    return pulses.times(rows) if surveyed.times_differ else numbered_shots(numbers)


def segment_geometry(
    rows: Pulses, durations: FloatArray, units_ns: FloatArray, header: PulseWavesHeader
) -> PulseGeometry:
    """Geometry of segments.

    Parameters
    ----------
    rows
        (n,), the pulse of each segment.
    durations
        (n,), from the pulse's anchor to the segment's first sample, sampling units.
    units_ns
        (n,), sampling unit, ns.
    header
        Of their file.

    Returns
    -------
    Geometry whose anchors are the positions of the first samples, all at location 0.
    """
    # Extreme scales can overflow; writers skip coordinates that are not finite.
    with np.errstate(over="ignore", invalid="ignore"):
        anchors, step = _rays(rows, header)
        first_samples = anchors + durations[:, np.newaxis] * step
        direction = -step / (1000.0 * units_ns)[:, np.newaxis]
    return PulseGeometry(anchor=first_samples, location=np.zeros(len(rows)), direction=direction)


def optical_centres(
    rows: Pulses, centres_to_anchors: FloatArray, header: PulseWavesHeader
) -> FloatArray:
    """Where the pulses (n,) left: (n, 3), at this time (n,) in sampling units before the anchor."""
    with np.errstate(over="ignore", invalid="ignore"):
        anchors, step = _rays(rows, header)
        centres: FloatArray = anchors - centres_to_anchors[:, np.newaxis] * step
    return centres


def _rays(rows: Pulses, header: PulseWavesHeader) -> tuple[FloatArray, FloatArray]:
    """Anchors (n, 3) of pulses, and the way of light per sampling unit (n, 3)."""
    scales = np.array(header.scales)
    # Subtracted as integers, so that large offsets cost no precision.
    step = (rows["target"].astype(np.int64) - rows["anchor"]) * scales / TARGET_UNITS
    return rows["anchor"] * scales + np.array(header.offsets), step


def shot_attributes(rows: Pulses, pulses: PulseData) -> ShotAttributes:
    """What echoes inherit from pulses: time and source; pulses have no other attributes."""
    source = pulses.header.source_id
    return ShotAttributes(
        gps_time=pulses.times(rows),
        scan_angle=np.zeros(len(rows), dtype=np.float32),
        scan_direction_flag=np.zeros(len(rows), dtype=np.uint8),
        edge_of_flight_line=np.zeros(len(rows), dtype=np.uint8),
        user_data=np.zeros(len(rows), dtype=np.uint8),
        point_source_id=np.full(len(rows), source if source <= 0xFFFF else 0, dtype=np.uint16),
    )


def _all_differ(pulses: PulseData) -> bool:
    # Eight bytes per pulse, only for files whose times do not increase.
    times = np.concatenate([pulses.times(chunk) for chunk in pulses.chunks(SURVEY_CHUNK)])
    times.sort()
    return bool((times[1:] > times[:-1]).all())
