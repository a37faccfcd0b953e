"""Beams and shot numbers in files of echoes of every format, and in containers."""

from __future__ import annotations

import csv
import json
from pathlib import Path

import h5py
import laspy
import numpy as np
import pyarrow as pa
import pyarrow.parquet
import pytest

import fullwaveform as fw
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.opening import open_waveforms

from ...support.command_line import run
from ...support.hdf5_scenes import GediScene, Shot, bump, two_beams
from ...support.las_scenes import four_shots

#: Two beams of two shots each; the second one of the first beam has no echo.
BEAMS = ["BEAM0101", "BEAM0101", "BEAM1011", "BEAM1011"]
NUMBERS = [19640513500108370, 2**64 - 1, 19641100500108373, 7]


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    flat = [230.0] * 40
    first = [Shot(bump(), 1.0, NUMBERS[0]), Shot(flat, 2.0, NUMBERS[1])]
    second = [Shot(bump(), 2.0, NUMBERS[2]), Shot(bump(), 3.0, NUMBERS[3])]
    scene = GediScene({"BEAM0101": first, "BEAM1011": second})
    return scene.write(tmp_path / "scan.h5")


def extracted(scan: Path, name: str, *options: str) -> Path:
    path = scan.with_name(name)
    result = run("extract", scan, "-o", path, "--threshold", "250", *options)
    assert result.exit_code == 0, result.output
    return path


@pytest.mark.parametrize("ending", ["las", "laz"])
def test_points_have_numbers_of_beams(scan: Path, ending: str) -> None:
    points = laspy.read(extracted(scan, f"echoes.{ending}"))
    assert points["beam"].tolist() == [0b0101, 0b1011, 0b1011]
    assert points["beam"].dtype == np.uint8
    assert points["shot_number"].tolist() == [NUMBERS[0], *NUMBERS[2:]]
    assert points["shot_number"].dtype == np.uint64
    # 20 of 39 samples below the first: STEP times 20.
    np.testing.assert_allclose(points.z, [850.0 - 20 * 0.15] * 3, atol=0.002)
    np.testing.assert_allclose(points.x, [-44.125 + 20e-7] * 3, atol=1.5e-7)


def test_points_with_waveforms_have_them_too(scan: Path) -> None:
    points = laspy.read(extracted(scan, "echoes.las", "--with-waveforms"))
    assert points["beam"].tolist() == [0b0101, 0b1011, 0b1011]


def test_parquet(scan: Path) -> None:
    table = pyarrow.parquet.read_table(extracted(scan, "echoes.parquet", "--keep-empty"))
    assert table["beam"].to_pylist() == BEAMS
    assert table["shot_number"].to_pylist() == NUMBERS
    assert table["echo_number"].to_pylist() == [1, 0, 1, 1]
    assert table.schema.field("beam").type == pa.string()
    assert table.schema.field("shot_number").type == pa.uint64()
    assert table.column_names[-3:] == ["beam", "shot_number", "geometry"]


def test_csv(scan: Path) -> None:
    path = extracted(scan, "echoes.csv", "--keep-empty")
    with path.open(newline="", encoding="ascii") as stream:
        rows = list(csv.DictReader(stream))
    assert [row["beam"] for row in rows] == BEAMS
    assert [int(row["shot_number"]) for row in rows] == NUMBERS
    described = json.loads(path.with_name("echoes.csv-metadata.json").read_text(encoding="utf-8"))
    kinds = {one["name"]: one["datatype"] for one in described["tableSchema"]["columns"]}
    assert kinds["beam"] == "string"
    assert kinds["shot_number"] == "integer"


def test_hdf5(scan: Path) -> None:
    with h5py.File(extracted(scan, "echoes.h5", "--keep-empty")) as file:
        assert file["beam"].asstr()[:].tolist() == BEAMS
        assert file["shot_number"][:].tolist() == NUMBERS
        assert file["beam"].dtype.kind == "S"


def test_container_keeps_both(scan: Path) -> None:
    container = scan.with_name("container.h5")
    assert run("convert", scan, container).exit_code == 0
    direct = pyarrow.parquet.read_table(extracted(scan, "direct.parquet"))
    again = scan.with_name("again.parquet")
    assert run("extract", container, "-o", again, "--threshold", "250").exit_code == 0
    assert pyarrow.parquet.read_table(again)["beam"].equals(direct["beam"])
    assert pyarrow.parquet.read_table(again)["z"].equals(direct["z"])


def test_container_keeps_recorded_noise_and_smoothing(tmp_path: Path) -> None:
    shots = [Shot(bump(), number=n, noise=(204.5 + n, 3.0 + n)) for n in range(3)]
    source = GediScene({"BEAM0001": shots[:2], "BEAM0010": shots[2:]}).write(tmp_path / "a.h5")
    container = tmp_path / "b.h5"
    assert run("convert", source, container).exit_code == 0
    with open_waveforms(container) as reader:
        blocks = list(reader.blocks())
    noise = [block.noise for block in blocks]
    assert [one.mean.tolist() for one in noise if one] == [[204.5, 205.5], [206.5]]
    assert [one.rms.tolist() for one in noise if one] == [[3.0, 4.0], [5.0]]
    assert [block.smoothing for block in blocks] == [6.5e-9, 6.5e-9]
    with h5py.File(container, "r+") as file:
        file["waveforms/StandardCartesianChart3D/Waveforms"].attrs["Smoothing"] = -1.0
    with pytest.raises(WaveformFileError, match=r"Smoothing of .* is -1.0; must be 0 to 1e-06 s"):
        open_waveforms(container)


def test_metrics_of_a_container_use_the_recorded_noise(tmp_path: Path) -> None:
    shots = [Shot(bump(), number=n, noise=(230.0, 1.5)) for n in range(3)]
    source = GediScene({"BEAM0001": shots}).write(tmp_path / "a.h5")
    container = tmp_path / "b.h5"
    assert run("convert", source, container).exit_code == 0
    direct, again = (fw.metrics(path).columns for path in (source, container))
    assert again["noise_rms"].tolist() == direct["noise_rms"].tolist() == [1.5] * 3
    assert not (again["flags"] & 8).any()


def test_other_inputs_have_neither(scan: Path) -> None:

    las = four_shots().write(scan.with_name("scan.las"))
    echoes = scan.with_name("las.csv")
    assert run("extract", las, "-o", echoes, "--allow-empty", "--threshold", "5").exit_code == 0
    names = echoes.read_text(encoding="ascii").splitlines()[0].split(",")
    assert not {"beam", "shot_number"} & set(names)


def test_plot_of_a_shot_whose_samples_are_refused_says_so(tmp_path: Path) -> None:
    shots = [Shot(bump(), number=1), Shot([*bump()[:10], float("nan")], number=2)]
    path = GediScene({"BEAM0001": shots}).write(tmp_path / "scan.h5")
    picture = tmp_path / "a.png"
    assert run("plot", path, "--waveform", "0", "-o", picture).exit_code == 0
    result = run("plot", path, "--waveform", "1", "-o", tmp_path / "b.png")
    assert result.exit_code == 1
    assert "waveform 1 has unreadable samples" in result.stderr
    assert not (tmp_path / "b.png").exists()


def test_plot_has_the_name_of_the_beam(tmp_path: Path) -> None:
    path, picture = two_beams().write(tmp_path / "scan.h5"), tmp_path / "a.svg"
    assert run("plot", path, "--waveform", "3", "-o", picture).exit_code == 0
    drawn = picture.read_text(encoding="utf-8")
    assert "waveform 3, BEAM1011, GPS time" in drawn
    assert "channel" not in drawn


def test_info_lists_beams_and_what_is_left_out(tmp_path: Path) -> None:
    scene = two_beams()
    scene.beams["BEAM0101"][1].degrade = 2
    path = scene.write(tmp_path / "scan.h5")
    shown = run("info", path).stdout
    assert "GEDI L1B (HDF5)" in shown
    assert "3 shots" in shown
    assert "1: degraded pointing or orbit" in shown
    contents = json.loads(run("info", path, "--json").stdout)
    assert contents["beams"] == [
        {"beam": "BEAM0101", "shots": 3},
        {"beam": "BEAM1011", "shots": 2},
    ]
    assert contents["left_out"] == {"degraded pointing or orbit": 1}
    kept = json.loads(run("info", path, "--json", "--keep-degraded").stdout)
    assert (contents["waveforms"], kept["waveforms"]) == (4, 5)


@pytest.mark.parametrize("option", [["--crs", "EPSG:32723"], ["--crs", "EPSG:4979"]])
def test_reference_systems_are_refused_for_other_formats(scan: Path, option: list[str]) -> None:
    container = scan.with_name("container.h5")
    assert run("convert", scan, container).exit_code == 0
    result = run("extract", container, "-o", scan.with_name("out.csv"), *option)
    assert result.exit_code == 1
    assert "--crs (crs) is only for GEDI and LVIS files" in result.stderr
