"""Where echoes lie in space, and the number of each within its shot."""

from __future__ import annotations

from collections.abc import Mapping

import numpy as np

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import PulseGeometry, WaveformBlock
from fullwaveform.data.echo_columns import EchoTable, FoundEchoes

_PICOSECONDS = 1e12


def positions_in_space(geometry: PulseGeometry, rows: IntArray, time_ps: FloatArray) -> FloatArray:
    """Coordinates of samples.

    Parameters
    ----------
    geometry : of the block
    rows : (m,) rows of the block
    time_ps : (m,) picoseconds after the first sample of each row

    Returns
    -------
    (m, 3) coordinates in the units of the file
    """
    lead = geometry.location[rows] - time_ps
    xyz: FloatArray = geometry.anchor[rows] + lead[:, np.newaxis] * geometry.direction[rows]
    return xyz


def to_echo_table(
    block: WaveformBlock,
    rows: IntArray,
    peaks: Mapping[str, AnyArray],
    phase: FloatArray,
    scanner: Scanner,
) -> EchoTable:
    """The echoes of a block as a table, shot by shot along the flight of light.

    Parameters
    ----------
    block : the waveforms
    rows : (m,) row of the block in which each echo was found
    peaks : columns of length m, as in `FoundEchoes`
    phase : (n,) samples by which the outgoing pulse of each waveform left later than its times say;
        echoes are placed, and their times counted, from the pulse
    scanner : its amplitude unit and group velocity
    """
    late = phase[rows] * block.sampling_intervals[rows]
    time = peaks["idx"] * block.sampling_intervals[rows] - late
    peaks = {**peaks, "time": peaks["time"] - late}
    xyz = positions_in_space(block.geometry, rows, time * _PICOSECONDS)
    order, number, count = _numbered_along_flight(block, rows, xyz, time)
    if (np.diff(order) != 1).any():
        rows, xyz = rows[order], xyz[order]
        peaks = {name: column[order] for name, column in peaks.items()}
    return EchoTable.of(
        FoundEchoes(
            block,
            rows,
            peaks,
            xyz,
            number,
            count,
            amplitude_unit=scanner.amplitude_unit,
            range_per_second=scanner.range_per_second,
        )
    )


def _numbered_along_flight(
    block: WaveformBlock, rows: IntArray, xyz: FloatArray, time: FloatArray
) -> tuple[IntArray, IntArray, IntArray]:
    """Order of the echoes by shot and distance; in that order each one's number, its shot's count.

    The waveforms of a shot may begin at different ranges, so echoes are compared by their distance
    along the pulse, whose direction vector points back to the scanner; then by their time.
    """
    shots, first_row, shot_of_row = np.unique(
        block.shot_times, return_index=True, return_inverse=True
    )
    shot = shot_of_row[rows]
    direction = block.geometry.direction[rows]
    length = np.linalg.norm(direction, axis=1, keepdims=True)
    unit = np.divide(direction, length, out=np.zeros_like(direction), where=length > 0)
    offset = xyz - block.geometry.anchor[first_row[shot]]
    distance = -np.einsum("ij,ij->i", offset, unit)
    order = np.lexsort((time, distance, shot))
    per_shot = np.bincount(shot, minlength=len(shots))
    first_echo = np.concatenate(([0], np.cumsum(per_shot)[:-1])) if len(shots) else per_shot
    number = np.arange(len(order)) - first_echo[shot[order]] + 1
    return order, number, per_shot[shot[order]]
