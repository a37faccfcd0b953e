"""Sums per voxel of samples and of pulses."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray
from fullwaveform.volumes.grid import VoxelGrid, crossings
from fullwaveform.volumes.paths import crossed_voxels
from fullwaveform.volumes.records import Records

_CROSSINGS_AT_ONCE = 1 << 20


@dataclass(frozen=True, slots=True)
class SampleSums:
    """Sums of samples, one entry per voxel."""

    keys: IntArray  # ascending
    total: IntArray  # 1 / 256 count
    largest: IntArray  # 1 / 256 count
    samples: IntArray


def sum_samples(records: Records, heights: IntArray, grid: VoxelGrid) -> SampleSums:
    """The sums of heights (n, count) of records that all have `count` samples."""
    count = heights.shape[1]
    number = np.arange(count, dtype=np.float64)[:, np.newaxis]
    places = records.first[:, np.newaxis] + number * records.step[:, np.newaxis]
    numbers = np.floor(places / grid.size).astype(np.int64).reshape(-1, 3)
    keys, total = grid.keys(numbers), heights.reshape(-1)
    sums = SampleSums(keys, total, total, np.ones(len(keys), np.int64))
    # Neighbouring samples are often in the same voxel; without them there is less to sort.
    sums = _joined_runs(sums)
    order = np.argsort(sums.keys, kind="stable")
    return _joined_runs(
        SampleSums(sums.keys[order], sums.total[order], sums.largest[order], sums.samples[order])
    )


def _joined_runs(sums: SampleSums) -> SampleSums:
    """One entry for each run of equal keys."""
    starts = np.flatnonzero(np.diff(sums.keys, prepend=-1))
    return SampleSums(
        sums.keys[starts],
        np.add.reduceat(sums.total, starts),
        np.maximum.reduceat(sums.largest, starts),
        np.add.reduceat(sums.samples, starts),
    )


def count_pulses(records: Records, grid: VoxelGrid) -> Iterator[tuple[IntArray, IntArray]]:
    """Yield keys of the voxels that the pulses cross, and how many pulses cross each.

    In parts, so that memory is bounded; the counts of all parts add up. A pulse that several
    waveforms record counts once per voxel.
    """
    sizes = crossings(records.places(0) / grid.size, records.ends() / grid.size)
    for part in records.parts(sizes.astype(np.int64), _CROSSINGS_AT_ONCE):
        yield _count_pulses(part, grid)


def _count_pulses(records: Records, grid: VoxelGrid) -> tuple[IntArray, IntArray]:
    begins, ends = records.places(0) / grid.size, records.ends() / grid.size
    different = ~_repeated(records.shots, begins, ends)
    shots = records.shots[different]
    line, numbers = crossed_voxels(begins[different], ends[different])
    keys, which = np.unique(grid.keys(numbers), return_inverse=True)
    if len(np.unique(shots)) < len(shots):
        pairs = np.unique(shots[line].astype(np.int64) * len(keys) + which)
        which = pairs % len(keys)
    return keys, np.bincount(which, minlength=len(keys))


def _repeated(shots: IntArray, begins: FloatArray, ends: FloatArray) -> BoolArray:
    """Whether a record has the shot and the line of the record before it (n,)."""
    line = np.column_stack([shots, begins, ends])
    same = np.zeros(len(shots), np.bool_)
    same[1:] = (line[1:] == line[:-1]).all(axis=1)
    return same
