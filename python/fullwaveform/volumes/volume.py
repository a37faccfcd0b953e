"""Volumes of whole files: two passes over the waveforms, the second one tile by tile."""

from __future__ import annotations

import os
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np

from fullwaveform import __version__
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.reference_system import reference_system
from fullwaveform.volumes.files import volume_file
from fullwaveform.volumes.grid import TILE, Extent, VoxelGrid, checked_size
from fullwaveform.volumes.kernels import count_pulses, sum_samples
from fullwaveform.volumes.quantities import STEPS_PER_COUNT
from fullwaveform.volumes.records import heights, records_of
from fullwaveform.volumes.tiles import TileStore

Blocks = Callable[[WaveformReader], AbstractContextManager[Iterator[WaveformBlock]]]
CHANNELS = {"low": 1, "high": 0}


@dataclass(slots=True)
class VolumeSummary:
    """What a volume was made of."""

    shape: tuple[int, int, int]  # layers, rows, columns
    size: float  # coordinate units
    waveforms: int = 0
    pulses: int = 0
    samples: int = 0
    total: float = 0.0  # counts, sum of all samples above the baseline
    left_out: Counter[str] = field(default_factory=Counter)  # reason -> waveforms


@dataclass(frozen=True, slots=True)
class VolumeSettings:
    """Settings of a volume; ValueError if they are invalid."""

    size: float  # edge of a voxel, coordinate units
    channel: str | None = None  # "low" or "high"; None for the waveforms of both

    def __post_init__(self) -> None:
        checked_size(self.size)
        if self.channel is not None and self.channel not in CHANNELS:
            raise ValueError(f"invalid channel {self.channel!r}; expected 'low' or 'high'")

    @property
    def channel_flag(self) -> int | None:
        """Flag of the waveforms to use; None for all."""
        return None if self.channel is None else CHANNELS[self.channel]


@contextmanager
def _blocks(reader: WaveformReader) -> Iterator[Iterator[WaveformBlock]]:
    yield reader.blocks()


def write_volume(
    reader: WaveformReader,
    path: str | os.PathLike[str],
    settings: VolumeSettings,
    *,
    quantity: str | None = None,
    overwrite: bool = False,
    blocks: Blocks = _blocks,
) -> VolumeSummary:
    """Sum the samples of a file above their baselines, and count its pulses, per voxel.

    The waveforms are read twice: for the extent of the volume, and for the sums. These are sums of
    integers, so that they do not depend on the division into blocks.

    Parameters
    ----------
    reader
        The open file.
    path
        The volume: a folder ``.zarr`` with all quantities, or a GeoTIFF ``.tif`` with one.
    settings
        Size of the voxels, and which waveforms to use.
    quantity
        Of a GeoTIFF: one of `QUANTITIES`; default "sum".
    overwrite
        Whether an existing volume of the same kind is replaced.
    blocks
        Yields the blocks of the reader in a ``with`` statement; called once per pass.

    Raises
    ------
    ValueError
        If no waveform has a place in space, the coordinates are degrees, the voxels are too many,
        or a package for the format is not installed.
    WaveformFileError
        As `WaveformReader.blocks`.
    OSError
        If the volume cannot be written, FileExistsError if it exists and is not replaced.
    """
    output = volume_file(Path(path), quantity)
    system = _projected_system(reader)
    with output.open(overwrite) as temporary:
        grid = _grid(reader, settings, blocks)
        summary = VolumeSummary(grid.shape, settings.size)
        with TileStore(output.path.absolute().parent) as store:
            with blocks(reader) as found:
                for block in found:
                    _add(block, grid, settings, store, summary)
            values = (
                (grid.window(tile), _inside(voxels, grid, tile)) for tile, voxels in store.tiles()
            )
            metadata = _metadata(reader, settings, summary, system)
            output.write(temporary, grid, values, metadata, system)
    return summary


def _projected_system(reader: WaveformReader) -> Any | None:
    """The reference system of the file, if known; ValueError if its coordinates are degrees."""
    system = reference_system(reader.header)
    if system is not None and system.is_geographic:
        raise ValueError(
            f"{reader.path} has coordinates in degrees, which cannot be divided into cubes; "
            + (
                "give a projected reference system with --crs EPSG:N (crs)"
                if reader.is_geographic
                else "transform the file to a projected reference system first"
            )
        )
    return system


def _grid(reader: WaveformReader, settings: VolumeSettings, blocks: Blocks) -> VoxelGrid:
    extent, left_out, used = Extent(), Counter[str](), 0
    report, reader.on_unreadable = reader.on_unreadable, None  # the second pass reports
    try:
        with blocks(reader) as found:
            for block in found:
                records, reasons = records_of(block, settings.channel_flag)
                left_out += reasons
                used += len(records)
                with np.errstate(over="ignore"):  # infinite numbers are refused below
                    begins, ends = records.places(0), records.ends()
                    extent.include(begins / settings.size, ends / settings.size)
    finally:
        reader.on_unreadable = report
    if used == 0:
        reasons_text = ", ".join(f"{count} x {reason}" for reason, count in left_out.items())
        raise ValueError(f"{reader.path}: no waveform for a volume ({reasons_text or 'empty'})")
    return extent.grid(settings.size)


def _add(
    block: WaveformBlock,
    grid: VoxelGrid,
    settings: VolumeSettings,
    store: TileStore,
    summary: VolumeSummary,
) -> None:
    """Add the waveforms of a block to the tiles and to the summary."""
    records, left_out = records_of(block, settings.channel_flag)
    for part, values in heights(block, records):
        store.add_samples(sum_samples(part, values, grid))
        summary.samples += values.size
        summary.total += int(values.sum()) / STEPS_PER_COUNT  # exact: both are whole steps
    for keys, counts in count_pulses(records, grid):
        store.add_pulses(keys, counts)
    summary.waveforms += len(records)
    summary.pulses += len(np.unique(records.shots))
    summary.left_out += left_out


def _inside(voxels: Any, grid: VoxelGrid, tile: int) -> Any:
    """The voxels of a tile that are inside the volume: layers, rows, columns."""
    layers, rows, columns = (part.stop - part.start for part in grid.window(tile))
    return voxels.reshape(TILE)[:layers, :rows, :columns]


def _metadata(
    reader: WaveformReader, settings: VolumeSettings, summary: VolumeSummary, system: Any | None
) -> dict[str, Any]:
    unit = "unknown" if system is None else system.axis_info[0].unit_name
    return {
        "input": ", ".join(path.name for path in reader.paths),
        "version": __version__,
        "voxel_size": settings.size,
        "voxel_size_unit": unit,
        "channel": settings.channel or "all",
        "baseline": "of each waveform, measured on its samples; heights below it are negative",
        "waveforms": summary.waveforms,
        "total_pulses": summary.pulses,
        "total_samples": summary.samples,
        "total_counts": summary.total,
    }
