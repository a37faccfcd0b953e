"""Discrete returns of the pulses of a block, from the points of a LAS file."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.core.las_points import return_points
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import PulseGeometry
from fullwaveform.data.returns import DiscreteReturns
from fullwaveform.io.las.points import PointFile, Points, joined

_PICOSECONDS = 1e12


@dataclass(frozen=True, slots=True)
class PulsePoints:
    """All points of the pulses of some waveforms, ascending by `owner`."""

    points: Points  # (r,)
    owner: IntArray  # (r,), first waveform of the pulse, or the one whose packet the point has

    def split(self, waveforms: int) -> tuple[PulsePoints, PulsePoints]:
        """The points of the first waveforms, and those of the others, whose numbers restart."""
        cut = int(np.searchsorted(self.owner, waveforms))
        rest = PulsePoints(self.points[cut:], self.owner[cut:] - waveforms)
        return PulsePoints(self.points[:cut], self.owner[:cut]), rest

    def followed_by(self, other: PulsePoints, waveforms: int) -> PulsePoints:
        """These points, of `waveforms` waveforms, and then the others."""
        return PulsePoints(
            joined([self.points, other.points]),
            np.concatenate([self.owner, other.owner + waveforms]),
        )


def discrete_returns(
    pulses: PulsePoints,
    file: PointFile,
    shots: FloatArray,
    geometry: PulseGeometry,
    durations: FloatArray,
) -> DiscreteReturns:
    """The returns among the points of the pulses of a block.

    Withheld points are skipped: they hold a waveform in which the scanner found no return. A point
    without a packet lies in the first waveform of its shot that covers its place, if any.

    Parameters
    ----------
    file : of the points
    shots : (n,) shot time of each waveform; those of a shot are consecutive
    geometry : of the waveforms
    durations : (n,) s from the first to the last sample
    """
    points = return_points(pulses.points, file.layout, file.scales, file.offsets)
    rows, times = pulses.owner, points.locations
    bare = np.flatnonzero(points.descriptors == 0)
    if len(bare) > 0:
        rows = rows.copy()
        rows[bare], times[bare] = _placed(
            points.places[bare], rows[bare], shots, geometry, durations * _PICOSECONDS
        )
    chosen = np.flatnonzero(~points.withheld & np.isfinite(times))
    chosen = chosen[_order(rows[chosen], times[chosen])]
    extra = list(file.header.point_format.extra_dimension_names)
    return DiscreteReturns(
        rows=rows[chosen],
        times=times[chosen],
        return_number=points.numbers[chosen],
        return_count=points.counts[chosen],
        intensity=points.intensities[chosen],
        classification=points.classes[chosen],
        extra=pulses.points[extra][chosen] if extra else None,
    )


def _order(rows: IntArray, times: FloatArray) -> slice | IntArray:
    """Sorts by row and then by time; only rows whose times are not in order are sorted."""
    if (rows[1:] < rows[:-1]).any():
        return np.lexsort((times, rows))
    earlier = (rows[1:] == rows[:-1]) & (times[1:] < times[:-1])
    if not earlier.any():
        return slice(None)
    is_mixed = np.zeros(rows[-1] + 1, dtype=np.bool_)
    is_mixed[rows[1:][earlier]] = True
    places = np.flatnonzero(is_mixed[rows])
    order = np.arange(len(rows))
    order[places] = places[np.lexsort((times[places], rows[places]))]
    return order


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
