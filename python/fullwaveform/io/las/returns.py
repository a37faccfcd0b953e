"""Discrete returns of the pulses of a block, from the points of a LAS file."""

from __future__ import annotations

from dataclasses import dataclass

import laspy
import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray, RecordArray
from fullwaveform.data.blocks import PulseGeometry
from fullwaveform.data.returns import DiscreteReturns
from fullwaveform.io.las.points import Points, coordinates

_PICOSECONDS = 1e12


@dataclass(frozen=True, slots=True)
class PulsePoints:
    """All points of the pulses of some waveforms, ascending by `owner`."""

    points: Points  # (r,)
    owner: IntArray  # (r,), first waveform of the pulse, or the one whose packet the point has

    @classmethod
    def of(cls, kept: Points, points: Points, *, without_times: bool) -> PulsePoints:
        """The points of the pulses of `kept`, one point per waveform, among whole shots.

        Points of a packet belong to its waveform if they also have its GPS time; without times, if
        they follow each other in the file. Points without a packet belong to the pulse with their
        GPS time.
        """
        owner = np.full(len(points), -1, dtype=np.int64)
        pulse = _runs(points) if without_times else points["gps_time"]
        packet = np.flatnonzero(points["wavepacket_index"] > 0)
        offset = points["wavepacket_offset"][packet]
        _, first, group = np.unique(offset, return_index=True, return_inverse=True)
        same = pulse[packet] == pulse[packet][first][group]
        owner[packet[same]] = _found_in(kept["wavepacket_offset"], offset[same])
        if not without_times:
            bare = np.flatnonzero(points["wavepacket_index"] == 0)
            owner[bare] = _found_in(kept["gps_time"], points["gps_time"][bare])
        order = np.argsort(owner, kind="stable")
        order = order[owner[order] >= 0]
        return cls(points[order], owner[order])

    def split(self, waveforms: int) -> tuple[PulsePoints, PulsePoints]:
        """The points of the first waveforms, and those of the others, whose numbers restart."""
        cut = int(np.searchsorted(self.owner, waveforms))
        rest = PulsePoints(self.points[cut:], self.owner[cut:] - waveforms)
        return PulsePoints(self.points[:cut], self.owner[:cut]), rest

    def followed_by(self, other: PulsePoints, waveforms: int) -> PulsePoints:
        """These points, of `waveforms` waveforms, and then the others."""
        return PulsePoints(
            np.concatenate([self.points, other.points]),
            np.concatenate([self.owner, other.owner + waveforms]),
        )


def _runs(points: Points) -> IntArray:
    """Number of the run of consecutive points with equal packet of each point."""
    offset = points["wavepacket_offset"]
    changes = np.concatenate([[False], offset[1:] != offset[:-1]])
    return np.cumsum(changes)


def _found_in(values: RecordArray, wanted: RecordArray) -> IntArray:
    """Index of the first equal value for each wanted one, -1 without one."""
    if len(values) == 0:
        return np.full(len(wanted), -1, dtype=np.int64)
    order = np.argsort(values, kind="stable")
    at = np.minimum(np.searchsorted(values, wanted, sorter=order), len(values) - 1)
    index: IntArray = order[at]
    return np.where(values[index] == wanted, index, -1)


def discrete_returns(
    pulses: PulsePoints,
    header: laspy.LasHeader,
    shots: FloatArray,
    geometry: PulseGeometry,
    durations: FloatArray,
) -> DiscreteReturns:
    """The returns among the points of the pulses of a block.

    Withheld points are skipped: they hold a waveform in which the scanner found no return. A point
    without a packet lies in the first waveform of its shot that covers its place, if any.

    Parameters
    ----------
    header : of the file
    shots : (n,) shot time of each waveform; those of a shot are consecutive
    geometry : of the waveforms
    durations : (n,) s from the first to the last sample
    """
    record = laspy.ScaleAwarePointRecord(
        pulses.points, header.point_format, header.scales, header.offsets
    )
    rows, times = pulses.owner.copy(), _stored_times(record)
    bare = np.flatnonzero(np.asarray(record["wavepacket_index"]) == 0)
    rows[bare], times[bare] = _placed(
        coordinates(record)[bare], rows[bare], shots, geometry, durations * _PICOSECONDS
    )
    listed = ~np.asarray(record["withheld"]).astype(bool) & np.isfinite(times)
    chosen = np.flatnonzero(listed)
    chosen = chosen[np.lexsort((times[chosen], rows[chosen]))]
    names = list(header.point_format.extra_dimension_names)
    return DiscreteReturns(
        rows=rows[chosen],
        times=times[chosen],
        return_number=np.asarray(record["return_number"])[chosen].astype(np.uint8),
        return_count=np.asarray(record["number_of_returns"])[chosen].astype(np.uint8),
        intensity=np.asarray(record["intensity"])[chosen],
        classification=np.asarray(record["classification"])[chosen].astype(np.uint8),
        extra=pulses.points[names][chosen] if names else None,
    )


def _stored_times(record: laspy.ScaleAwarePointRecord) -> FloatArray:
    return np.asarray(record["return_point_wave_location"]).astype(np.float64)


def _placed(
    xyz: FloatArray,
    rows: IntArray,
    shots: FloatArray,
    geometry: PulseGeometry,
    durations: FloatArray,
) -> tuple[IntArray, FloatArray]:
    """Row and time, ps, of points of shots that begin at the given rows; NaN outside of all."""
    found, times = rows.copy(), np.full(len(rows), np.nan)
    last = np.searchsorted(shots, shots[rows], side="right") - 1
    for step in range(int((last - rows).max(initial=-1)) + 1):
        row = np.minimum(rows + step, last)
        time = _projected(xyz, row, geometry)
        inside = np.isnan(times) & (time >= 0) & (time <= durations[row])
        found[inside], times[inside] = row[inside], time[inside]
    return found, times


def _projected(xyz: FloatArray, rows: IntArray, geometry: PulseGeometry) -> FloatArray:
    """Time of the nearest place on the pulse, ps; NaN for pulses without a direction."""
    direction = geometry.direction[rows]
    squared = np.einsum("ij,ij->i", direction, direction)
    along = np.einsum("ij,ij->i", xyz - geometry.anchor[rows], direction)
    lead = np.divide(along, squared, out=np.full(len(rows), np.nan), where=squared > 0)
    return np.asarray(geometry.location[rows] - lead)
