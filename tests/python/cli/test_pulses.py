"""The command pulses: a row for each shot."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pyarrow as pa
import pyarrow.parquet
import pytest

from fullwaveform.analysis.pulse_table import PULSE_COLUMNS

from ..support.command_line import run
from ..support.hdf5_scenes import FIRST, STEP, GediScene, Shot, bump, lvis_scene, two_beams
from ..support.las_scenes import Point, Scene
from ..support.pulsewaves_scenes import Descriptor, Pulse, Sampling
from ..support.pulsewaves_scenes import Scene as PulseScene

FLAT = [230.0] * 30


def pulses_of(scan: Path, *options: str) -> dict[str, list[object]]:
    output = scan.with_name("pulses.parquet")
    result = run("pulses", scan, "-o", output, "--overwrite", *options)
    assert result.exit_code == 0, result.output
    table = pyarrow.parquet.read_table(output)
    columns: dict[str, list[object]] = table.to_pydict()
    return columns


def place(columns: dict[str, list[object]], name: str) -> np.ndarray:
    return np.column_stack([np.array(columns[f"{axis}_{name}"], float) for axis in "xyz"])


def test_gedi_shots_with_and_without_echoes(tmp_path: Path) -> None:
    # Of 5, 9, 12, 9, 5 counts above 240 the vertex is the middle; of 6 and 10, 9/8 above the third.
    sent = [240.0, 240.0, 240.0, 240.0, 245.0, 249.0, 252.0, 249.0, 245.0, 240.0]
    late = [240.0, 240.0, 240.0, 240.0, 240.0, 246.0, 252.0, 250.0, 240.0, 240.0]
    beams = {
        "BEAM0001": [Shot(bump(101), 1.0, 11, sent), Shot(FLAT, 2.0, 12, late)],
        "BEAM0110": [Shot(bump(50), 2.0, 2**63 + 5, [])],
    }
    scene = GediScene(beams, instrument=(-44.0, -13.0, 420_000.0))
    found = pulses_of(scene.write(tmp_path / "a.h5"))
    assert found["shot_number"] == [11, 12, 2**63 + 5]
    assert found["beam"] == ["BEAM0001", "BEAM0001", "BEAM0110"]
    assert found["gps_time"] == [198_800_019.0, 198_800_020.0, 198_800_020.0]
    assert found["waveform_number"] == [0, 1, 2]
    assert found["waveform_count"] == [1, 1, 1]
    assert found["channels"] == ["0", "0", "0"]
    assert found["sample_count"] == [101, 30, 50]
    assert (place(found, "origin") == [-44.0, -13.0, 420_000.0]).all()
    assert (place(found, "first") == FIRST).all()
    for row, samples in enumerate((101, 30, 50)):
        last = np.array(FIRST) + (samples - 1) * np.array(STEP)
        assert (np.abs(place(found, "last")[row] - last) < [1e-10, 1e-10, 1e-8]).all()
        assert (np.abs(place(found, "direction")[row] - STEP) < [1e-13, 1e-13, 1e-10]).all()
    assert found["outgoing_amplitude"][:2] == [12.0, 12.0]
    # Parabola through 6, 12, 10: 0.5 (6 - 10) / (6 - 24 + 10) = 0.25 after the sixth sample.
    assert found["outgoing_position"][:2] == [6.0, 6.25]
    assert np.isnan([found["outgoing_amplitude"][2], found["outgoing_position"][2]]).all()  # type: ignore[list-item]


def test_two_waveforms_of_a_shot_are_one_row(tmp_path: Path) -> None:
    """The second waveform of the shot begins 4 ns earlier and ends earlier."""
    path = Scene(
        [(1, 8, 4, 1000), (2, 8, 3, 1000)],
        [(1, [1, 9, 3, 2]), (2, [1, 9, 1]), (1, [1, 2, 3, 4])],
        [
            Point(0, 5.0, (10.0, 20.0, 30.0), 0.0, (0.0, 0.0, 0.00015)),
            Point(1, 5.0, (10.0, 20.0, 30.6), 0.0, (0.0, 0.0, 0.00015)),
            Point(2, 6.0, (11.0, 21.0, 31.0), 2000.0, (0.0, 0.0, 0.00015)),
        ],
    ).write(tmp_path / "a.las")
    found = pulses_of(path, "--channel", "2=high")
    assert found["waveform_number"] == [0, 2]
    assert found["waveform_count"] == [2, 1]
    assert found["channels"] == ["0 1", "1"]
    assert found["sample_count"] == [7, 4]
    np.testing.assert_allclose(place(found, "first")[:, 2], [30.6, 31.3], atol=1e-6)
    np.testing.assert_allclose(place(found, "last")[:, 2], [30.0 - 0.45, 31.3 - 0.45], atol=1e-6)
    np.testing.assert_allclose(place(found, "direction")[:, 2], [-0.15, -0.15], atol=1e-7)
    assert np.isnan(place(found, "origin")).all()
    assert np.isnan(found["outgoing_amplitude"]).all()  # type: ignore[call-overload]
    assert "beam" not in found


def test_outgoing_pulses_of_pulsewaves(tmp_path: Path) -> None:
    sent = [2, 2, 2, 4, 10, 4, 2, 2]
    descriptor = Descriptor(
        1, [Sampling(kind=1, count_bits=8), Sampling(kind=2, channel=1, count_bits=8)]
    )
    pulse = Pulse([[(0, sent)], [(100, [5, 50, 5])]], time=1)
    path = PulseScene([descriptor], [pulse]).write(tmp_path / "a.pls")
    found = pulses_of(path)
    assert found["outgoing_amplitude"] == [8.0]
    assert found["outgoing_position"] == [4.0]


@pytest.mark.parametrize(
    ("centre", "origin"),
    [
        # Along (3, 0, -4) of 5 m in 1,000 units of the anchor at (100, 200, 500).
        (0, [100.0, 200.0, 500.0]),
        (2000, [94.0, 200.0, 508.0]),
        (-500, [101.5, 200.0, 498.0]),
        (-1879048193, [np.nan] * 3),
    ],
)
def test_origin_of_pulsewaves_is_the_optical_centre(
    tmp_path: Path, centre: int, origin: list[float]
) -> None:
    pulse = Pulse(
        [[(0, [1, 2, 3, 4])]], anchor=(10_000, 20_000, 50_000), target=(10_300, 20_000, 49_600)
    )
    scene = PulseScene([Descriptor(1, [Sampling()], centre=centre)], [pulse])
    found = pulses_of(scene.write(tmp_path / "a.pls"))
    np.testing.assert_allclose(place(found, "origin")[0], origin, rtol=0.0, atol=1e-9)


def test_lvis_has_no_origin(tmp_path: Path) -> None:
    found = pulses_of(lvis_scene("1.04").write(tmp_path / "a.h5"))
    assert np.isnan(place(found, "origin")).all()
    assert len(found["gps_time"]) == 3


@pytest.mark.parametrize("size", ["1", "2", "1000"])
def test_bytes_do_not_depend_on_the_block_size(tmp_path: Path, size: str) -> None:
    path = two_beams().write(tmp_path / "a.h5")
    pulses_of(path)
    expected = path.with_name("pulses.parquet").read_bytes()
    pulses_of(path, "--block", size)
    assert path.with_name("pulses.parquet").read_bytes() == expected


def test_columns_have_units_and_descriptions(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "a.h5")
    pulses_of(path)
    schema = pa.parquet.read_schema(path.with_name("pulses.parquet"))
    assert schema.names == [*(column.name for column in PULSE_COLUMNS), "beam", "shot_number"]
    assert schema.field("outgoing_amplitude").metadata[b"unit"] == b"counts"


def test_existing_files_of_other_kinds_stay(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "a.h5")
    taken = tmp_path / "pulses.parquet"
    taken.write_bytes(b"something else")
    result = run("pulses", path, "-o", taken, "--overwrite")
    assert result.exit_code != 0
    assert taken.read_bytes() == b"something else"
    assert run("pulses", path, "-o", tmp_path / "pulses.csv").exit_code == 2
