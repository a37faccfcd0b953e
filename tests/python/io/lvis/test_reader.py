"""LVIS L1B files of all data structures."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import h5py
import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.lvis.reader import LvisReader
from fullwaveform.io.opening import open_waveforms

from ...support.hdf5_scenes import LVIS_STRUCTURES, changed, five_shots, lvis_scene


@pytest.mark.parametrize("structure", LVIS_STRUCTURES)
def test_data_structures(tmp_path: Path, structure: str) -> None:
    last, width, interval = LVIS_STRUCTURES[structure]
    scene = lvis_scene(structure)
    with open_waveforms(scene.write(tmp_path / "a.h5")) as reader:
        assert isinstance(reader, LvisReader)
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.samples.shape == (3, last + 1)
    assert np.array_equal(block.samples, scene.samples)
    assert set(block.sampling_intervals.tolist()) == {interval * 1e-9}
    assert block.channel_flags.tolist() == [0, 0, 0]
    assert block.beams is None
    assert block.shot_numbers is not None
    assert block.shot_numbers.tolist() == [1, 2, 3]
    assert block.attributes.gps_time.tolist() == list(scene.times)
    assert block.attributes.scan_angle.tolist() == [3.5, 3.5, 3.5]
    assert block.outgoing is not None
    assert block.outgoing.samples.tolist() == [list(range(width))] * 3
    assert block.outgoing.counts.tolist() == [width] * 3
    # Highest and lowest sample, by the number of samples between them.
    below = -block.geometry.direction[0, 2] * interval * 1000.0 * last
    assert below == pytest.approx(-0.1498 * interval * last, rel=1e-6)
    # 310.5 degrees East.
    assert block.geometry.anchor[0].tolist() == [-49.5, 69.25, 1500.0]


@pytest.mark.parametrize("interval", [1.0, 2.0])
def test_interval_is_that_of_the_slant_distance(tmp_path: Path, interval: float) -> None:
    """Two samples are half as far from each other along the parallel as in height."""
    metres = 0.5 * 0.1498 * interval
    slant = metres / (111_195.0 * np.cos(np.deg2rad(69.25)))
    path = five_shots(interval_ns=interval, slant=slant).write(tmp_path / "a.h5")
    with open_waveforms(path) as reader:
        (block,) = reader.blocks()
    assert block.sampling_intervals[0] == interval * 1e-9


@pytest.mark.parametrize("interval", [0.5, 1.4, 4.0])
def test_other_intervals_are_refused(tmp_path: Path, interval: float) -> None:
    path = five_shots(interval_ns=interval).write(tmp_path / "a.h5")
    with pytest.raises(WaveformFileError, match="ns per sample apart; must be 1 or 2 ns"):
        open_waveforms(path)


@pytest.mark.parametrize("size", [1, 2, 100])
def test_blocks_of_any_size_have_the_same_shots(tmp_path: Path, size: int) -> None:
    path = five_shots(numbers=[7, 7, 8, 9, 9]).write(tmp_path / "a.h5")
    with open_waveforms(path, waveforms_per_block=size) as reader:
        blocks = list(reader.blocks())
        assert reader.shot_columns == ("shot_number",)
    assert [len(block) for block in blocks] == [size] * (5 // size) + [5 % size] * (5 % size > 0)
    samples = np.concatenate([block.samples for block in blocks])
    assert samples.tolist() == np.arange(150).reshape(5, 30).tolist()
    shots = np.concatenate([block.shot_times for block in blocks])
    assert len(np.unique(shots)) == 5


def test_times_of_the_day_are_noted(tmp_path: Path) -> None:
    with open_waveforms(five_shots().write(tmp_path / "a.h5")) as reader:
        list(reader.blocks())
        assert any("UTC seconds of the day" in note for note in reader.tally.notes)
        assert reader.header is not None
        assert reader.header.global_encoding.gps_time_type.name == "WEEK_TIME"
        assert reader.header.parse_crs().to_epsg() == 4979


def test_lowest_sample_must_be_named_once(tmp_path: Path) -> None:
    path = five_shots().write(tmp_path / "a.h5")
    with pytest.raises(WaveformFileError, match="LON29, LON30; expected one"):
        open_waveforms(changed(path, lambda file: file.create_dataset("LON30", (5,), "f8")))


def test_width_must_be_that_of_the_names(tmp_path: Path) -> None:
    path = five_shots().write(tmp_path / "a.h5")

    def change(file: h5py.File) -> None:
        for axis in ("LON", "LAT", "Z"):
            file.move(f"{axis}29", f"{axis}28")

    with pytest.raises(WaveformFileError, match="of 30 samples; expected 29"):
        open_waveforms(changed(path, change))


def test_shot_without_outgoing_pulse_has_none(tmp_path: Path) -> None:
    scene = replace(five_shots(), outgoing=np.zeros((5, 0), np.uint16))
    with open_waveforms(scene.write(tmp_path / "a.h5")) as reader:
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is not None
    assert block.outgoing.counts.tolist() == [0] * 5
