"""Names of receivers that the readers of all formats take from their files."""

from __future__ import annotations

from pathlib import Path

import h5py
import numpy as np
import pytest

from fullwaveform.io.container.layout import REPRESENTATION
from fullwaveform.io.opening import open_waveforms

from ..support.command_line import run, words
from ..support.hdf5_scenes import GediScene, Shot, bump, changed, five_shots, two_beams
from ..support.las_scenes import four_shots
from ..support.pulsewaves_scenes import two_channels


def names_in(path: Path) -> dict[int, str]:
    with open_waveforms(path) as reader:
        return reader.receiver_names


def test_gedi_has_beams(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "scan.h5")
    assert names_in(path) == {0b0101: "BEAM0101", 0b1011: "BEAM1011"}


def test_lvis_has_one_instrument(tmp_path: Path) -> None:
    assert names_in(five_shots().write(tmp_path / "scan.h5")) == {0: "LVIS"}


def test_pulsewaves_has_channels(tmp_path: Path) -> None:
    path = two_channels().write(tmp_path / "scan.pls")
    assert names_in(path) == {0: "channel 0", 1: "channel 1"}


@pytest.mark.parametrize(
    ("arrays", "expected"),
    [
        ({}, {}),
        ({"channel": [3, 1, 3]}, {1: "channel 1", 3: "channel 3"}),
        ({"channel_flags": [1, 0, 1]}, {}),
    ],
)
def test_numpy_archive_may_have_channels(
    tmp_path: Path, arrays: dict[str, list[int]], expected: dict[int, str]
) -> None:
    path = tmp_path / "scan.npz"
    samples = np.full((3, 8), 10, np.uint16)
    np.savez(path, samples=samples, sampling_interval=1e-9, **arrays)  # type: ignore[arg-type]
    assert names_in(path) == expected


def test_las_has_descriptors(tmp_path: Path) -> None:
    assert names_in(four_shots().write(tmp_path / "scan.las")) == {}


def converted_beams(folder: Path) -> Path:
    path = folder / "container.h5"
    assert run("convert", two_beams().write(folder / "scan.h5"), path).exit_code == 0
    return path


def test_container_keeps_the_beams(tmp_path: Path) -> None:
    assert names_in(converted_beams(tmp_path)) == {0b0101: "BEAM0101", 0b1011: "BEAM1011"}


def test_number_of_several_beams_has_no_name(tmp_path: Path) -> None:
    def number_beams_alike(file: h5py.File) -> None:
        file[f"{REPRESENTATION}/Descriptor"][...] = 0

    path = changed(converted_beams(tmp_path), number_beams_alike)
    assert names_in(path) == {}


@pytest.mark.parametrize(
    ("command", "value"),
    [
        (["info"], "counts in extract ({}: baseline {}"),
        (["extract", "-o", "echoes.csv"], "counts {}: baseline {}"),
        (["extract", "-o", "echoes.csv", "--mode", "pulse-fit"], "ns {}: 120 outgoing pulses"),
        (["pulse-model", "-o", "pulse.toml"], "ns {}: 120 outgoing pulses"),
    ],
)
def test_people_read_the_names_of_beams(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, command: list[str], value: str
) -> None:
    """Sixty shots of each of two beams, whose baselines are 230 and 280 counts."""
    monkeypatch.chdir(tmp_path)
    shots = {
        name: [
            Shot(
                np.add(bump(80), level).tolist(),
                number=number,
                outgoing=bump(60, 20.0 + number / 60),
            )
            for number in range(60)
        ]
        for name, level in (("BEAM0101", 0.0), ("BEAM1011", 50.0))
    }
    path = GediScene(shots).write(tmp_path / "scan.h5")
    result = run(command[0], path, *command[1:])
    assert result.exit_code == 0, result.output
    for name, baseline in (("BEAM0101", 230), ("BEAM1011", 280)):
        assert value.format(name, baseline) in words(result.stdout)
    assert "descriptor" not in result.stdout
