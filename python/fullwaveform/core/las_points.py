"""Points of LAS files with waveform packets: which waveforms they refer to, and their fields."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass

import numpy as np

from fullwaveform import _core
from fullwaveform._core import PacketFault as PacketFault
from fullwaveform.data.arrays import (
    BoolArray,
    FloatArray,
    IntArray,
    RecordArray,
    UInt8Array,
    UInt16Array,
)
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes


@dataclass(frozen=True, slots=True)
class PointLayout:
    """How points are stored; ValueError by the functions below for formats without waveforms."""

    format: int  # 4, 5, 9 or 10
    size: int  # bytes of a point, extra bytes included


@dataclass(frozen=True, slots=True)
class Survey:
    """What is known of the points before the first block."""

    ascending: bool  # GPS times never decrease and none is NaN
    without_times: bool  # all points have the same GPS time but several packets
    descriptors: tuple[int, ...]  # that points refer to, without 0
    same_shots: frozenset[tuple[int, int]]  # pairs of descriptors with packets of the same shot


def survey_of(chunks: Iterable[RecordArray], layout: PointLayout) -> Survey:
    """The survey of chunks of points in the order of the file."""
    found = _core.PointSurvey(layout.format, layout.size)
    for points in chunks:
        found.add(_bytes_of(points))
    without_times = found.without_times
    return Survey(
        ascending=found.ascending,
        without_times=without_times,
        descriptors=tuple(found.descriptors),
        same_shots=frozenset(() if without_times else found.pairs_of_shots),
    )


@dataclass(frozen=True, slots=True)
class PointRun:
    """Points of whole shots: those that stand for waveforms, and all of the pulses of these."""

    points: RecordArray  # (n,)
    waveforms: IntArray  # (k,), index of the first point of each new and readable waveform
    times: FloatArray  # (k,), GPS times of these, s
    pulses: IntArray  # (r,), indices of the points of their pulses, ascending by owner
    owners: IntArray  # (r,), of these: first waveform of the pulse, or the one of the packet

    def split(self, waveforms: int) -> tuple[PointRun, PointRun]:
        """The points of the first waveforms, and those of the others, whose numbers restart."""
        cut = int(np.searchsorted(self.owners, waveforms))
        first = PointRun(
            self.points,
            self.waveforms[:waveforms],
            self.times[:waveforms],
            self.pulses[:cut],
            self.owners[:cut],
        )
        rest = PointRun(
            self.points,
            self.waveforms[waveforms:],
            self.times[waveforms:],
            self.pulses[cut:],
            self.owners[cut:] - waveforms,
        )
        return first, rest

    def without_others(self) -> PointRun:
        """The same with a copy of only those points that belong to pulses."""
        used = np.unique(self.pulses)
        return PointRun(
            self.points[used],
            np.searchsorted(used, self.waveforms),
            self.times,
            np.searchsorted(used, self.pulses),
            self.owners,
        )


@dataclass(frozen=True, slots=True)
class Selection:
    """What a run of points refers to."""

    run: PointRun
    faulty: RecordArray  # (f,) points with an unreadable waveform
    faults: UInt8Array  # (f,) `PacketFault` of each
    without_packet: int  # points
    sharing: int  # points whose waveform belongs to an earlier point


class PacketSelector:
    """Selects the waveforms of consecutive runs of points, each waveform once.

    Points of a packet belong to its waveform if they also have its GPS time; without times, if
    they follow each other in the file. Points without a packet belong to the pulse with their GPS
    time.

    Parameters
    ----------
    layout
        Of the points.
    data_bytes, header_bytes
        Of the packet data, with its header, and of this header.
    packet_bytes, sample_counts
        (256,) by descriptor.
    max_samples
        Of a readable waveform.
    without_times
        Whether all points have the same GPS time, which identifies no shot.
    """

    def __init__(
        self,
        layout: PointLayout,
        *,
        data_bytes: int,
        header_bytes: int,
        packet_bytes: IntArray,
        sample_counts: IntArray,
        max_samples: int,
        without_times: bool,
    ) -> None:
        self._selector = _core.PacketSelector(
            layout.format,
            layout.size,
            data_bytes,
            header_bytes,
            packet_bytes,
            sample_counts,
            max_samples,
            without_times,
        )

    def select(self, points: RecordArray) -> Selection:
        """Select among the points (n,) of whole shots."""
        found = self._selector.select(_bytes_of(points))
        run = PointRun(points, found["waveforms"], found["times"], found["pulses"], found["owners"])
        return Selection(
            run=run,
            faulty=points[found["faulty"]],
            faults=found["faults"],
            without_packet=found["without_packet"],
            sharing=found["sharing"],
        )


@dataclass(frozen=True, slots=True)
class WaveformPoints:
    """Fields of the points of waveforms, one entry per waveform."""

    geometry: PulseGeometry
    attributes: ShotAttributes
    packet_offsets: IntArray  # (n,) bytes from the start of the packet data
    descriptors: UInt8Array  # (n,)


def waveform_points(
    runs: Sequence[PointRun], layout: PointLayout, scales: FloatArray, offsets: FloatArray
) -> WaveformPoints:
    """Fields of the waveforms' points; scales and offsets (3,) of coordinates are the file's."""
    chosen = [(_bytes_of(run.points), run.waveforms) for run in runs]
    found = _core.las_waveform_columns(chosen, layout.format, layout.size, scales, offsets)
    return WaveformPoints(
        geometry=PulseGeometry(
            anchor=found["anchors"].reshape(-1, 3),
            location=found["locations"],
            direction=found["directions"].reshape(-1, 3),
        ),
        attributes=ShotAttributes(
            gps_time=found["times"],
            scan_angle=found["scan_angles"],
            scan_direction_flag=found["scan_directions"],
            edge_of_flight_line=found["edges"],
            user_data=found["user_data"],
            point_source_id=found["sources"],
        ),
        packet_offsets=found["packet_offsets"],
        descriptors=found["descriptors"],
    )


@dataclass(frozen=True, slots=True)
class ReturnPoints:
    """Fields of the points of pulses as discrete returns, one entry per point."""

    #: Whether withheld points and those without a finite location are left out, and the others
    #: ascend by owner and then by location. Otherwise, all are as they were given, because some
    #: have no packet.
    ordered: bool
    points: IntArray  # (r,), index among the points that were given
    owners: IntArray  # (r,), waveform in which the return lies
    places: FloatArray  # (r, 3), coordinate units of the file
    locations: FloatArray  # (r,), ps after the first sample
    descriptors: UInt8Array  # (r,), 0 without a packet
    withheld: BoolArray  # (r,)
    numbers: UInt8Array  # (r,), return number
    counts: UInt8Array  # (r,), returns of the pulse
    intensities: UInt16Array  # (r,)
    classes: UInt8Array  # (r,)


def return_points(
    runs: Sequence[PointRun], layout: PointLayout, scales: FloatArray, offsets: FloatArray
) -> ReturnPoints:
    """Fields of the pulses' points, as `waveform_points`; owners count over all runs."""
    first, owners = 0, []
    for run in runs:
        owners.append(run.owners + first)
        first += len(run.waveforms)
    chosen = [(_bytes_of(run.points), run.pulses) for run in runs]
    found = _core.las_return_columns(
        chosen, np.concatenate(owners), layout.format, layout.size, scales, offsets
    )
    found["places"] = found["places"].reshape(-1, 3)
    return ReturnPoints(**found)


def _bytes_of(points: RecordArray) -> UInt8Array:
    return np.ascontiguousarray(points).view(np.uint8)
