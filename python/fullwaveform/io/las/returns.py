"""Discrete returns of the pulses of a block, from the points of a LAS file."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from fullwaveform.core.las_points import PointRun, ReturnPoints, return_points
from fullwaveform.data.arrays import FloatArray, IntArray, RecordArray
from fullwaveform.data.blocks import PulseGeometry
from fullwaveform.data.returns import DiscreteReturns
from fullwaveform.io.las.points import PointFile

_PICOSECONDS = 1e12


def discrete_returns(
    runs: Sequence[PointRun],
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
    runs : all points of the waveforms' pulses
    file : of the points
    shots : (n,) shot time of each waveform; those of a shot are consecutive
    geometry : of the waveforms
    durations : (n,) s from the first to the last sample
    """
    points = return_points(runs, file.layout, file.scales, file.offsets)
    if points.ordered:
        return _returns(points, slice(None), points.owners, points.locations, runs, file)
    rows, times = points.owners, points.locations
    bare = np.flatnonzero(points.descriptors == 0)
    rows[bare], times[bare] = _placed(
        points.places[bare], rows[bare], shots, geometry, durations * _PICOSECONDS
    )
    chosen = np.flatnonzero(~points.withheld & np.isfinite(times))
    chosen = chosen[np.lexsort((times[chosen], rows[chosen]))]
    return _returns(points, chosen, rows, times, runs, file)


def _returns(
    points: ReturnPoints,
    chosen: slice | IntArray,
    rows: IntArray,
    times: FloatArray,
    runs: Sequence[PointRun],
    file: PointFile,
) -> DiscreteReturns:
    extra = list(file.header.point_format.extra_dimension_names)
    return DiscreteReturns(
        rows=rows[chosen],
        times=times[chosen],
        return_number=points.numbers[chosen],
        return_count=points.counts[chosen],
        intensity=points.intensities[chosen],
        classification=points.classes[chosen],
        extra=_extra_bytes(runs, extra)[points.points[chosen]] if extra else None,
    )


def _extra_bytes(runs: Sequence[PointRun], names: list[str]) -> RecordArray:
    return np.concatenate([run.points[names][run.pulses] for run in runs])


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
