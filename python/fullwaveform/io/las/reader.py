"""Waveforms of LAS 1.3 to 1.5 files, block by block."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from functools import partial

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import BoolArray, FloatArray
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import PendingBlock, last_cut
from fullwaveform.io.las.points import (
    Points,
    Survey,
    has_place,
    open_las,
    pulse_geometry,
    shot_attributes,
    survey,
    whole_shots,
)
from fullwaveform.io.las.waveform_packets import (
    DescriptorTable,
    SeenPackets,
    WaveformDescriptor,
    check_usable,
    open_packets,
    read_descriptors,
)

OUTSIDE = "packet outside the waveform data"
WRONG_SIZE = "packet size differs from that of its descriptor"
OVERLAPPING = "packet overlaps another one"
NO_TIME = "GPS time is not a finite number"
NO_PLACE = "direction or return location is not finite"

_FIRST_SHOT_KEY = -(2.0**52)  # from here on 2**52 whole numbers are doubles
_BLOCK_SAMPLES = 1 << 26  # samples of a block, padding included: 128 MiB


@dataclass(frozen=True, slots=True)
class _Pass:
    """What one pass over the file works with."""

    met: ReadTally
    found: Survey
    table: DescriptorTable
    seen: SeenPackets
    waveforms_per_block: int


class LasWaveformReader(WaveformReader):
    """Reads the waveforms of a LAS file of point format 4, 5, 9 or 10.

    Parameters
    ----------
    path
        The LAS file. Packets may lie in it or in the file of the same name ending ``.wdp``.
    waveforms_per_block, channel_flags
        As in `WaveformReader`, flags by waveform descriptor.

    Points that are not in order of GPS time are visited in that order; a waveform that several
    points share belongs to the first of them. Raises as `WaveformReader`; in a pass also if a
    descriptor that points name is missing or cannot be read.
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
        self._begin_anew(notes)

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._reader.close()
        self._packets.close()

    @property
    def header(self) -> laspy.LasHeader:
        """Its header; the extended records in it are without the waveform packets."""
        return self._reader.header

    @property
    def descriptors(self) -> dict[int, WaveformDescriptor]:
        """The waveform descriptors of the file by index, the unused ones too."""
        return self._descriptors

    @property
    def point_count(self) -> int:
        """Points of the file."""
        return int(self.header.point_count)

    @property
    def channel_numbers(self) -> frozenset[int]:
        """Indices of its waveform descriptors."""
        return frozenset(self._descriptors)

    def _pending_blocks(self, met: ReadTally) -> Iterator[PendingBlock]:
        run = self._prepare(met)
        limit = run.waveforms_per_block
        pending = np.empty(0, dtype=self.header.point_format.dtype())
        for points in whole_shots(self._reader, self._path, run.found, limit):
            pending = np.concatenate([pending, self._choose(points, run)])
            while len(pending) >= limit:
                end = limit if run.found.without_times else last_cut(pending["gps_time"], limit)
                yield self._to_gather(pending[:end], run)
                pending = pending[end:]
        if len(pending) > 0:
            yield self._to_gather(pending, run)

    def _to_gather(self, rows: Points, run: _Pass) -> PendingBlock:
        return PendingBlock(len(rows), partial(self._block, rows, run))

    def _prepare(self, met: ReadTally) -> _Pass:
        found = survey(self._reader, self._path)
        for index in found.descriptors:
            if index not in self._descriptors:
                raise WaveformFileError(
                    f"{self._path}: points name waveform descriptor {index}; the file has "
                    f"{sorted(self._descriptors) or 'none'}"
                )
            check_usable(self._descriptors[index], self._path)
        table = DescriptorTable(self._descriptors[index] for index in found.descriptors)
        if found.without_times:
            met.notes.append(
                "All points have the same GPS time; each waveform counts as a shot of its own."
            )
        if not found.ascending:
            met.notes.append(
                "The points are not in order of GPS time; they were visited in that order."
            )
        widest = max(int(table.sample_counts.max()), 1)
        limit = max(1, min(self._waveforms_per_block, _BLOCK_SAMPLES // widest))
        seen = SeenPackets(self._packets.size, table.smallest_packet)
        return _Pass(met, found, table, seen, limit)

    def _choose(self, points: Points, run: _Pass) -> Points:
        """Choose the points that bring a new and usable waveform, with everything else counted."""
        tally = run.met
        tally.points += len(points)
        with_packet = points[points["wavepacket_index"] > 0]
        tally.points_without_waveform += len(points) - len(with_packet)
        _, first = np.unique(with_packet["wavepacket_offset"], return_index=True)
        tally.points_sharing_waveform += len(with_packet) - len(first)
        left = with_packet[np.sort(first)]
        sizes = run.table.packet_sizes[left["wavepacket_index"]]
        inside = self._packets.holds(left["wavepacket_offset"], sizes)
        left = _keep(inside, left, OUTSIDE, tally)
        left = self._unseen(left, run)
        sizes = run.table.packet_sizes[left["wavepacket_index"]]
        left = _keep(left["wavepacket_size"] == sizes, left, WRONG_SIZE, tally)
        left = _keep(np.isfinite(left["gps_time"]), left, NO_TIME, tally)
        return _keep(has_place(left), left, NO_PLACE, tally)

    def _unseen(self, points: Points, run: _Pass) -> Points:
        cells = run.seen.cells(points["wavepacket_offset"].astype(np.int64))
        _, first = np.unique(cells, return_index=True)
        alone = np.zeros(len(cells), dtype=bool)
        alone[first] = True
        left, cells = _keep(alone, points, OVERLAPPING, run.met), cells[alone]
        new = ~run.seen.test_and_set(cells)
        run.met.points_sharing_waveform += len(new) - int(np.count_nonzero(new))
        unseen: Points = left[new]
        return unseen

    def _block(self, rows: Points, run: _Pass, numbers: npt.NDArray[np.int64]) -> WaveformBlock:
        header, index = self.header, rows["wavepacket_index"]
        record = laspy.ScaleAwarePointRecord(
            rows, header.point_format, header.scales, header.offsets
        )
        samples, counts = self._packets.gather(
            rows["wavepacket_offset"].astype(np.int64), index, run.table
        )
        times: FloatArray = rows["gps_time"].astype(np.float64)
        if run.found.without_times:
            times = numbers.astype(np.float64) + _FIRST_SHOT_KEY
        return WaveformBlock(
            samples=samples,
            counts=counts,
            shot_times=times,
            sbl_times=np.zeros(len(rows)),
            channel_flags=self._flags[index],
            sampling_intervals=run.table.intervals[index],
            geometry=pulse_geometry(record),
            attributes=shot_attributes(record),
            waveform_numbers=numbers,
        )


def _keep(good: BoolArray, points: Points, reason: str, met: ReadTally) -> Points:
    rejected: Points = points[~good]
    met.reject(reason, len(rejected), (_place(point) for point in rejected))
    kept: Points = points[good]
    return kept


def _place(point: np.void) -> str:
    """Where a packet stands; the number of a point would say less, as points share packets."""
    offset, index = int(point["wavepacket_offset"]), int(point["wavepacket_index"])
    return f"descriptor {index}, byte {offset}, GPS time {float(point['gps_time'])!r} s"
