"""Where echoes lie in space, and which number each has within its shot."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import EchoTable, PulseGeometry, WaveformBlock, take_rows

_PICOSECONDS = 1e12
_NANOSECONDS = 1e9


def positions_in_space(
    geometry: PulseGeometry, rows: npt.NDArray[np.int64], time_ps: FloatArray
) -> FloatArray:
    """Where the samples of the given rows at the given times lie.

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
    placed: FloatArray = geometry.anchor[rows] + lead[:, np.newaxis] * geometry.direction[rows]
    return placed


def placed(
    block: WaveformBlock, rows: npt.NDArray[np.int64], peaks: Mapping[str, npt.NDArray[Any]]
) -> EchoTable:
    """The echoes of a block as a table, shot by shot along the flight of light.

    Parameters
    ----------
    block : the waveforms
    rows : (m,) row of the block in which each echo was found
    peaks : columns of length m, named as those of `Result.peaks`
    """
    interval = block.sampling_intervals[rows]
    xyz = positions_in_space(block.geometry, rows, peaks["idx"] * interval * _PICOSECONDS)
    order, number, count = _numbered_along_flight(block, rows, xyz, peaks["idx"] * interval)
    rows, xyz, interval = rows[order], xyz[order], interval[order]
    peaks = {name: column[order] for name, column in peaks.items()}
    return EchoTable(
        xyz=xyz,
        gps_time=block.attributes.gps_time[rows],
        echo_number=number,
        echo_count=count,
        amplitude_counts=peaks["amplitudeCounts"],
        amplitude_db=peaks["amplitude"],
        width_ns=peaks["std"] * interval * _NANOSECONDS,
        width_samples=peaks["std"],
        position=peaks["idx"],
        type=peaks["type"],
        quality=peaks["quality"],
        reflectance=peaks["reflectance"],
        time=peaks["time"],
        waveform_number=block.waveform_numbers[rows],
        channel_flag=block.channel_flags[rows],
        attributes=take_rows(block.attributes, rows),
    )


def _numbered_along_flight(
    block: WaveformBlock, rows: npt.NDArray[np.int64], xyz: FloatArray, time: FloatArray
) -> tuple[npt.NDArray[np.int64], npt.NDArray[np.int64], npt.NDArray[np.int64]]:
    """Order of the echoes by shot and distance; in that order each one's number, its shot's count.

    The packets of a shot may begin at different ranges, so echoes are compared by their place
    along the pulse; its direction vector points back to the scanner. Equal places fall back on
    the time.
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
