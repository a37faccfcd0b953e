"""Waveforms of LAS 1.3 to 1.5 files, block by block."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from dataclasses import dataclass

import laspy
import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import PendingBlock, last_cut
from fullwaveform.io.las.descriptors import (
    DescriptorTable,
    WaveformDescriptor,
    check_supported,
    read_descriptors,
)
from fullwaveform.io.las.points import (
    Points,
    Survey,
    is_georeferenced,
    open_las,
    points_in_range,
    pulse_geometry,
    shot_attributes,
    survey,
    survey_of,
    whole_shots,
)
from fullwaveform.io.las.returns import PulsePoints, discrete_returns
from fullwaveform.io.las.waveform_packets import SeenPackets, open_packets
from fullwaveform.io.limits import BLOCK_SAMPLES, NO_TIME, OUTSIDE, numbered_shots, too_long

WRONG_SIZE = "packet size differs from descriptor"
OVERLAPPING = "packet overlaps another packet"
NOT_GEOREFERENCED = "direction or return location not finite"


@dataclass(frozen=True, slots=True)
class _Iteration:
    """State of one iteration over the points."""

    tally: ReadTally
    surveyed: Survey
    table: DescriptorTable
    seen: SeenPackets
    waveforms_per_block: int


class LasWaveformReader(WaveformReader):
    """Reads the waveforms of a LAS file of point format 4, 5, 9 or 10.

    Parameters
    ----------
    path
        The LAS file. Packets may be in it or in the file of the same name ending ``.wdp``.
    waveforms_per_block, channel_flags
        As in `WaveformReader`; flags by waveform descriptor.

    Points are visited in order of GPS time; a waveform that several points share belongs to the
    first of them. Raises as `WaveformReader`, and while reading if a descriptor that points refer
    to is missing or not supported.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        waveforms_per_block: int = 20_000,
        channel_flags: Mapping[int, int] | int = 1,
    ) -> None:
        super().__init__(path, waveforms_per_block, channel_flags)
        self._reader, starts = open_las(self._path)
        try:
            self._descriptors = read_descriptors(self.header, self._path)
            self._packets, notes = open_packets(self.header, self._path, starts)
        except BaseException:
            self._reader.close()
            raise
        self._set_notes(notes)
        self._surveyed: Survey | None = None  # of all points, when they were read once

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._reader.close()
        self._packets.close()

    @property
    def header(self) -> laspy.LasHeader:
        """Header of the file; its extended records do not include the waveform packets."""
        return self._reader.header

    @property
    def descriptors(self) -> dict[int, WaveformDescriptor]:
        """All waveform descriptors of the file by index."""
        return self._descriptors

    @property
    def point_count(self) -> int:
        """Points of the file."""
        return int(self.header.point_count)

    @property
    def channel_numbers(self) -> frozenset[int]:
        """Indices of the waveform descriptors."""
        return frozenset(self._descriptors)

    @property
    def channel_numbers_in_use(self) -> frozenset[int]:
        """Indices of the waveform descriptors to which points refer."""
        return frozenset(self._survey().descriptors)

    def _pending_blocks(self, tally: ReadTally) -> Iterator[PendingBlock]:
        run = self._prepare(self._survey(), tally)
        tally.notes += _notes_on(run.surveyed) + self._notes_on_channels(run.surveyed)
        limit = run.waveforms_per_block
        without_times = run.surveyed.without_times
        pending = np.empty(0, dtype=self.header.point_format.dtype())
        pulses = PulsePoints(pending, np.empty(0, dtype=np.int64))
        for points in whole_shots(self._reader, self._path, run.surveyed, limit):
            kept = self._readable(points, run)
            of_kept = PulsePoints.of(kept, points, without_times=without_times)
            pulses = pulses.followed_by(of_kept, len(pending))
            pending = np.concatenate([pending, kept])
            while len(pending) >= limit:
                end = limit if without_times else last_cut(pending["gps_time"], limit)
                of_block, pulses = pulses.split(end)
                yield self._pending(pending[:end], of_block, run)
                pending = pending[end:]
        if len(pending) > 0:
            yield self._pending(pending, pulses, run)

    def _survey(self) -> Survey:
        if self._surveyed is None:
            self._surveyed = survey(self._reader, self._path)
        return self._surveyed

    def _notes_on_channels(self, surveyed: Survey) -> list[str]:
        """A note if two descriptors may be the channels of a receiver but have the same flag."""
        notes = []
        for pair in sorted(surveyed.same_shots):
            low, high = sorted(pair, key=lambda index: self._descriptors[index].gain)
            gains = self._descriptors[low].gain, self._descriptors[high].gain
            if gains[0] < gains[1] and self._flags[low] == self._flags[high]:
                notes.append(
                    f"Descriptors {pair[0]} and {pair[1]} hold waveforms of the same shots, with "
                    f"{gains[0]:g} V per count in {low} and {gains[1]:g} in {high}; if they are "
                    f"the low-power and the high-power channel, give --channel {high}=high."
                )
        return notes

    def _window(self, points: slice) -> WaveformBlock | None:
        found = points_in_range(self._reader, self._path, points.start, points.stop)
        run = self._prepare(survey_of([found]), ReadTally())
        kept = self._readable(found, run)
        pulses = PulsePoints.of(kept, found, without_times=run.surveyed.without_times)
        numbers = points.start + np.arange(len(kept), dtype=np.int64)
        return self._block(kept, pulses, run, numbers) if len(kept) > 0 else None

    def _pending(self, points: Points, pulses: PulsePoints, run: _Iteration) -> PendingBlock:
        def read(part: slice, numbers: IntArray) -> WaveformBlock:
            _, following = pulses.split(part.start)
            of_part, _ = following.split(part.stop - part.start)
            return self._block(points[part], of_part, run, numbers)

        def shots() -> tuple[FloatArray, FloatArray]:
            times: FloatArray = points["gps_time"].astype(np.float64)
            alone = np.arange(len(points), dtype=np.float64)
            return alone if run.surveyed.without_times else times, times

        return PendingBlock(len(points), read, shots)

    def _prepare(self, surveyed: Survey, tally: ReadTally) -> _Iteration:
        for index in surveyed.descriptors:
            if index not in self._descriptors:
                raise WaveformFileError(
                    f"{self._path}: missing waveform descriptor {index}; the file has "
                    f"{', '.join(map(str, sorted(self._descriptors))) or 'none'}"
                )
            check_supported(self._descriptors[index], self._path)
        table = DescriptorTable(self._descriptors[index] for index in surveyed.descriptors)
        widest = max(min(int(table.sample_counts.max()), self.max_samples), 1)
        limit = max(1, min(self._waveforms_per_block, BLOCK_SAMPLES // widest))
        seen = SeenPackets(self._packets.size, table.min_packet_size)
        return _Iteration(tally, surveyed, table, seen, limit)

    def _readable(self, points: Points, run: _Iteration) -> Points:
        """The points with a new and readable waveform; all others are counted."""
        tally = run.tally
        tally.points += len(points)
        with_packet = points[points["wavepacket_index"] > 0]
        tally.points_without_waveform += len(points) - len(with_packet)
        _, first = np.unique(with_packet["wavepacket_offset"], return_index=True)
        tally.points_sharing_waveform += len(with_packet) - len(first)
        left = with_packet[np.sort(first)]
        sizes = run.table.packet_sizes[left["wavepacket_index"]]
        inside = self._packets.contains(left["wavepacket_offset"], sizes)
        left = _keep(inside, left, OUTSIDE, tally)
        left = self._unseen(left, run)
        sizes = run.table.packet_sizes[left["wavepacket_index"]]
        left = _keep(left["wavepacket_size"] == sizes, left, WRONG_SIZE, tally)
        counts = run.table.sample_counts[left["wavepacket_index"]]
        left = _keep(counts <= self.max_samples, left, too_long(self.max_samples), tally)
        left = _keep(np.isfinite(left["gps_time"]), left, NO_TIME, tally)
        return _keep(is_georeferenced(left), left, NOT_GEOREFERENCED, tally)

    def _unseen(self, points: Points, run: _Iteration) -> Points:
        cells = run.seen.cells(points["wavepacket_offset"].astype(np.int64))
        _, first = np.unique(cells, return_index=True)
        alone = np.zeros(len(cells), dtype=bool)
        alone[first] = True
        left, cells = _keep(alone, points, OVERLAPPING, run.tally), cells[alone]
        new = ~run.seen.test_and_set(cells)
        run.tally.points_sharing_waveform += len(new) - int(np.count_nonzero(new))
        unseen: Points = left[new]
        return unseen

    def _block(
        self, points: Points, pulses: PulsePoints, run: _Iteration, numbers: IntArray
    ) -> WaveformBlock:
        header, index = self.header, points["wavepacket_index"]
        record = laspy.ScaleAwarePointRecord(
            points, header.point_format, header.scales, header.offsets
        )
        samples, counts = self._packets.read(
            points["wavepacket_offset"].astype(np.int64), index, run.table
        )
        times: FloatArray = points["gps_time"].astype(np.float64)
        if run.surveyed.without_times:
            times = numbered_shots(numbers)
        intervals, geometry = run.table.intervals[index], pulse_geometry(record)
        durations = (counts - 1.0) * intervals
        return WaveformBlock(
            samples=samples,
            counts=counts,
            shot_times=times,
            sbl_times=np.zeros(len(points)),
            channel_flags=self._flags[index],
            sampling_intervals=intervals,
            geometry=geometry,
            attributes=shot_attributes(record),
            waveform_numbers=numbers,
            returns=discrete_returns(pulses, header, times, geometry, durations),
            descriptors=index,
        )


def _notes_on(surveyed: Survey) -> list[str]:
    notes = []
    if surveyed.without_times:
        notes.append(
            "All points have the same GPS time; each waveform is treated as a separate shot."
        )
    if not surveyed.ascending:
        notes.append("The points are not in order of GPS time; they are read in that order.")
    return notes


def _keep(good: BoolArray, points: Points, reason: str, tally: ReadTally) -> Points:
    if good.all():
        return points
    rejected: Points = points[~good]
    tally.reject(reason, len(rejected), (_place(point) for point in rejected))
    kept: Points = points[good]
    return kept


def _place(point: np.void) -> str:
    """Place of a packet; not the number of a point, because points share packets."""
    offset, index = int(point["wavepacket_offset"]), int(point["wavepacket_index"])
    return f"descriptor {index}, byte {offset}, GPS time {float(point['gps_time'])!r} s"
