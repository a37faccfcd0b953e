"""Echoes written as comma-separated values, to a file that appears when it is complete."""

from __future__ import annotations

import csv
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.atomic import atomic_path
from fullwaveform.io.echo_writers.csv import CsvEchoWriter

from ...support.echo_tables import echo_table

HEADER = (
    "x,y,z,gps_time,echo_number,echo_count,amplitude,amplitude_db,amplitude_library_db,sigma_ns,"
    "fwhm_ns,position,position_library,sigma_position_ns,sigma_amplitude,sigma_width_ns,"
    "sigma_range,significance,fit_flags,reduced_chi_square,echo_type,quality,reflectance,time,waveform_number,"
    "channel_flag,descriptor,classification,original_return_number\n"
)


def test_csv_text_of_two_echoes(tmp_path: Path) -> None:
    table = echo_table(
        [2],
        xyz=np.array([[433978.209, 0.1, -1e-9], [1.0, 2.0, 3.0]]),
        gps_time=np.full(2, 383661.97316074),
        amplitude=np.array([0.1, 200.0], np.float32),
        reflectance=np.array([np.nan, -2.5], np.float32),
        time=np.array([1.25e-07, 2.0]),
    )
    with CsvEchoWriter(tmp_path / "e.csv") as writer:
        writer.write(table)
        assert writer.count == 2
    assert (tmp_path / "e.csv").read_text() == HEADER + (
        "433978.209,0.1,-1e-9,383661.97316074,1,2,0.1,12.5,13.5,1.75,4.125,0.25,0.5,"
        "0.0625,1.5,0.125,0.0078125,12.5,5,1.25,3,4,nan,1.25e-7,0,1,2,5,3\n"
        "1,2,3,383661.97316074,2,2,200,12.5,13.5,1.75,4.125,1.25,1.5,0.0625,1.5,0.125,"
        "0.0078125,12.5,5,1.25,3,4,-2.5,2,1,1,2,5,3\n"
    )


def test_numbers_round_trip_bit_by_bit(tmp_path: Path) -> None:
    random = np.random.default_rng(3)
    xyz = random.normal(size=(500, 3)) * 10.0 ** random.integers(-12, 12, size=(500, 3))
    db = (random.normal(size=500) * 40).astype(np.float32)
    with CsvEchoWriter(tmp_path / "e.csv") as writer:
        writer.write(echo_table([1] * 300, xyz=xyz[:300], amplitude_db=db[:300]))
        writer.write(echo_table([1] * 200, xyz=xyz[300:], amplitude_db=db[300:]))
    with (tmp_path / "e.csv").open(newline="") as stream:
        rows = list(csv.DictReader(stream))
    assert [[float(row[axis]) for axis in "xyz"] for row in rows] == xyz.tolist()
    assert [np.float32(row["amplitude_db"]) for row in rows] == db.tolist()
    assert [int(row["waveform_number"]) for row in rows] == [*range(300), *range(200)]


def test_header_line_without_echoes(tmp_path: Path) -> None:
    with CsvEchoWriter(tmp_path / "e.csv"):
        pass
    assert (tmp_path / "e.csv").read_text() == HEADER
    with CsvEchoWriter(tmp_path / "f.csv") as writer:
        writer.write(echo_table([]))
    assert (tmp_path / "f.csv").read_text() == HEADER


def write_and_stop(writer: CsvEchoWriter) -> None:
    writer.write(echo_table([3]))
    raise KeyboardInterrupt


def test_failed_run_leaves_no_file(tmp_path: Path) -> None:
    writer = CsvEchoWriter(tmp_path / "e.csv")
    with pytest.raises(KeyboardInterrupt), writer:
        write_and_stop(writer)
    assert list(tmp_path.iterdir()) == []
    with pytest.raises(ValueError, match="not open"):
        writer.write(echo_table([1]))


def test_file_appears_when_it_is_complete(tmp_path: Path) -> None:
    path = tmp_path / "result.bin"
    with atomic_path(path) as temporary:
        assert temporary.parent == tmp_path
        temporary.write_bytes(b"whole")
        assert not path.exists()
    assert path.read_bytes() == b"whole"
    assert list(tmp_path.iterdir()) == [path]
    plain = tmp_path / "plain"
    plain.touch()
    assert path.stat().st_mode == plain.stat().st_mode


def test_unwritable_paths_are_refused(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError, match="nowhere does not exist"):
        atomic_path(tmp_path / "nowhere" / "a").__enter__()
    with pytest.raises(IsADirectoryError, match="it is a folder"):
        atomic_path(tmp_path).__enter__()
    (tmp_path / "file").touch()
    with pytest.raises(NotADirectoryError, match=r"cannot write .*Not a directory"):
        atomic_path(tmp_path / "file" / "a").__enter__()
