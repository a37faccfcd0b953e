"""Waveforms of LAS 1.3 to 1.5 files, block by block."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass

import laspy
import numpy as np

from fullwaveform.core.las_points import (
    PacketFault,
    PacketSelector,
    PointRun,
    Survey,
    survey_of,
    waveform_points,
)
from fullwaveform.data.arrays import FloatArray, IntArray
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
from fullwaveform.io.las.points import PointFile, Points, whole_shots
from fullwaveform.io.las.returns import discrete_returns
from fullwaveform.io.las.waiting_points import WaitingPoints, runs_between
from fullwaveform.io.las.waveform_packets import RECORD_HEADER_SIZE, open_packets
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
    selector: PacketSelector
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
        self._points = PointFile(self._path)
        try:
            self._descriptors = read_descriptors(self.header, self._path)
            starts = self._points.record_starts
            self._packets, notes = open_packets(self.header, self._path, starts)
        except BaseException:
            self._points.close()
            raise
        self._set_notes(notes)
        self._surveyed: Survey | None = None  # of all points, when they were read once

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._points.close()
        self._packets.close()

    @property
    def header(self) -> laspy.LasHeader:
        """Header of the file; its extended records do not include the waveform packets."""
        return self._points.header

    @property
    def descriptors(self) -> dict[int, WaveformDescriptor]:
        """All waveform descriptors of the file by index."""
        return self._descriptors

    @property
    def point_count(self) -> int:
        """Points of the file."""
        return self._points.count

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
        waiting = WaitingPoints()
        for points in whole_shots(self._points, run.surveyed, limit):
            waiting.add(self._select(points, run))
            while len(waiting) >= limit:
                end = limit if without_times else last_cut(waiting.times(), limit)
                yield self._pending(waiting.take(end), run)
        if len(waiting) > 0:
            yield self._pending(waiting.take(len(waiting)), run)

    def _survey(self) -> Survey:
        if self._surveyed is None:
            self._surveyed = self._points.survey()
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
        found = self._points.read(points.start, points.stop)
        run = self._prepare(survey_of([found], self._points.layout), ReadTally())
        selected = self._select(found, run)
        count = len(selected.waveforms)
        numbers = points.start + np.arange(count, dtype=np.int64)
        return self._block([selected], run, numbers) if count > 0 else None

    def _pending(self, runs: list[PointRun], run: _Iteration) -> PendingBlock:
        def read(part: slice, numbers: IntArray) -> WaveformBlock:
            return self._block(runs_between(runs, part.start, part.stop), run, numbers)

        def shots() -> tuple[FloatArray, FloatArray]:
            times = np.concatenate([one.times for one in runs])
            alone = np.arange(len(times), dtype=np.float64)
            return alone if run.surveyed.without_times else times, times

        return PendingBlock(sum(len(one.waveforms) for one in runs), read, shots)

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
        selector = PacketSelector(
            self._points.layout,
            data_bytes=self._packets.size,
            header_bytes=RECORD_HEADER_SIZE,
            packet_bytes=table.packet_sizes,
            sample_counts=table.sample_counts,
            max_samples=self.max_samples,
            without_times=surveyed.without_times,
        )
        return _Iteration(tally, surveyed, table, selector, limit)

    def _select(self, points: Points, run: _Iteration) -> PointRun:
        """The points of new and readable waveforms and of their pulses.

        All others are counted.
        """
        tally, found = run.tally, run.selector.select(points)
        tally.points += len(points)
        tally.points_without_waveform += found.without_packet
        tally.points_sharing_waveform += found.sharing
        for fault, reason in self._reasons.items() if len(found.faults) > 0 else ():
            faulty = found.faulty[found.faults == fault]
            tally.reject(reason, len(faulty), (_place(point) for point in faulty))
        return found.run

    @property
    def _reasons(self) -> dict[PacketFault, str]:
        """Reasons of rejection in the order of the checks."""
        return {
            PacketFault.OUTSIDE: OUTSIDE,
            PacketFault.OVERLAPPING: OVERLAPPING,
            PacketFault.WRONG_SIZE: WRONG_SIZE,
            PacketFault.TOO_LONG: too_long(self.max_samples),
            PacketFault.NO_TIME: NO_TIME,
            PacketFault.NOT_GEOREFERENCED: NOT_GEOREFERENCED,
        }

    def _block(self, runs: Sequence[PointRun], run: _Iteration, numbers: IntArray) -> WaveformBlock:
        file = self._points
        points = waveform_points(runs, file.layout, file.scales, file.offsets)
        index, times = points.descriptors, points.attributes.gps_time
        samples, counts = self._packets.read(points.packet_offsets, index, run.table)
        if run.surveyed.without_times:
            times = numbered_shots(numbers)
        intervals = run.table.intervals[index]
        durations = (counts - 1.0) * intervals
        return WaveformBlock(
            samples=samples,
            counts=counts,
            shot_times=times,
            sbl_times=np.zeros(len(counts)),
            channel_flags=self._flags[index],
            sampling_intervals=intervals,
            geometry=points.geometry,
            attributes=points.attributes,
            waveform_numbers=numbers,
            returns=discrete_returns(runs, file, times, points.geometry, durations),
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


def _place(point: np.void) -> str:
    """Place of a packet; not the number of a point, because points share packets."""
    offset, index = int(point["wavepacket_offset"]), int(point["wavepacket_index"])
    return f"descriptor {index}, byte {offset}, GPS time {float(point['gps_time'])!r} s"
