"""One scan in every format: the same blocks, and the same echoes."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.las_scenes import compressed
from ..support.row_scenes import as_container, as_npz, same

CHANNELS = {1: 1, 2: 0}
PER_BLOCK = 70


@pytest.fixture(scope="module")
def scans(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A simulated scan of two channels, as LAS and converted to every other format."""
    folder = tmp_path_factory.mktemp("scans")
    scan = simulate_scan(ScanSettings(shots=200, seed=3))
    # Point format 4, because lazrs cannot compress several scanner channels.
    las = write_scan(scan, folder / "scan.las", point_format=4).las
    options = {"channel_flags": CHANNELS}
    return {
        "LAS": las,
        "LAZ": compressed(las, folder / "packed.laz"),
        "container": as_container(las, folder / "scan.h5", waveforms_per_block=33, **options),
        "npz": as_npz(las, folder / "scan.npz", **options),
    }


def blocks_of(path: Path) -> list[WaveformBlock]:
    reader: WaveformReader
    with open_waveforms(path, waveforms_per_block=PER_BLOCK, channel_flags=CHANNELS) as reader:
        return list(reader.blocks())


def as_stored(block: WaveformBlock, kind: str) -> WaveformBlock:
    """A block of the LAS file as other formats have it: only LAS has discrete returns."""
    return block if kind in ("LAS", "LAZ") else replace(block, returns=None)


@pytest.mark.parametrize("kind", ["LAZ", "container", "npz"])
def test_all_formats_give_the_same_blocks(scans: dict[str, Path], kind: str) -> None:
    expected, found = blocks_of(scans["LAS"]), blocks_of(scans[kind])
    assert len(expected) == len(found) > 3
    assert {0, 1} == {flag for block in found for flag in block.channel_flags.tolist()}
    for one, other in zip(expected, found, strict=True):
        assert same(as_stored(one, kind), other)


@pytest.mark.parametrize("kind", ["LAS", "LAZ", "container", "npz"])
def test_no_format_splits_a_shot(scans: dict[str, Path], kind: str) -> None:
    shots = [set(block.shot_times.tolist()) for block in blocks_of(scans[kind])]
    assert sum(map(len, shots)) == len(set().union(*shots))
    numbers = np.concatenate([block.waveform_numbers for block in blocks_of(scans[kind])])
    assert np.array_equal(numbers, np.arange(len(numbers)))


@pytest.mark.parametrize("kind", ["LAS", "LAZ", "container", "npz"])
def test_ranges_of_all_formats_give_the_same_blocks(scans: dict[str, Path], kind: str) -> None:
    expected = blocks_of(scans["LAS"])
    with open_waveforms(
        scans[kind], waveforms_per_block=PER_BLOCK, channel_flags=CHANNELS
    ) as reader:
        assert reader.block_count() == len(expected)
        found = [next(reader.blocks(number, number + 1)) for number in range(len(expected))]
    assert all(
        same(as_stored(one, kind), other) for one, other in zip(expected, found, strict=True)
    )
