"""The commands of the page on open archives, on example files."""

from __future__ import annotations

import shlex
import shutil
import struct
import zipfile
from pathlib import Path

import laspy
import pyarrow.parquet
import pytest

import fullwaveform as fw

from ..support.command_line import run
from ..support.hdf5_scenes import lvis_scene
from ..support.las_scenes import data_folder
from .test_documents import commands_of, run_example

CALLS = commands_of("docs/archives.md")
GEDI = data_folder() / "gedi"
NEON = data_folder() / "pulsewaves_compressed" / "topo_1ns.plz"
LAS = data_folder() / "las" / "topo_2ns.las"
LINE = data_folder() / "pulsewaves" / "topo_1ns.pls"  # the same pulses, plain
PULSES_START, PULSE_COUNT, PULSE_SIZE = 176, 184, 200  # bytes of the header


def split_line(line: Path, pulses: int, first: Path, second: Path) -> None:
    """Divide a plain file without appended records after so many pulses."""
    content = line.read_bytes()
    start, total = struct.unpack_from("<qq", content, PULSES_START)
    cut = start + pulses * struct.unpack_from("<I", content, PULSE_SIZE)[0]
    parts = ((first, pulses, content[start:cut]), (second, total - pulses, content[cut:]))
    for path, count, records in parts:
        header = bytearray(content[:start])
        struct.pack_into("<q", header, PULSE_COUNT, count)
        path.write_bytes(header + records)
        shutil.copy(line.with_suffix(".wvs"), path.with_suffix(".wvs"))


def run_calls(product: str) -> None:
    calls = [shlex.split(line)[1:] for line in CALLS if product in line]
    assert {call[0] for call in calls} >= {"info", "extract", "metrics", "plot"}
    for call in calls:
        result = run(*call)
        assert result.exit_code == 0, result.output
        if "-o" in call:
            assert Path(call[call.index("-o") + 1]).stat().st_size > 0


@pytest.mark.skipif(not NEON.exists(), reason=f"no {NEON}")
def test_commands_for_neon(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    called = {word for line in CALLS for word in line.split() if word.startswith("NEON_")}
    first, second, name = sorted(called, key=lambda word: (word.endswith(".plz"), word))
    for suffix in (".plz", ".wvz"):
        shutil.copy(NEON.with_suffix(suffix), (tmp_path / name).with_suffix(suffix))
    split_line(LINE, 10_000, tmp_path / first, tmp_path / second)
    run_calls("NEON_")
    assert pyarrow.parquet.read_metadata(tmp_path / "neon-pulses.parquet").num_rows == 16_486
    assert pyarrow.parquet.read_metadata(tmp_path / "neon-metrics.parquet").num_rows == 16_487
    # One return at least of each of the 16,487 waveforms of a flat area.
    echoes = laspy.read(tmp_path / "neon.laz")
    assert len(echoes) > 16_487
    joined = laspy.read(tmp_path / "line.laz")
    assert joined.points.array.tobytes() == echoes.points.array.tobytes()


@pytest.mark.skipif(not GEDI.exists(), reason="no folder gedi in the folder of real data")
def test_commands_for_gedi(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    (archive,) = GEDI.glob("GEDI01_B_*.zip")
    with zipfile.ZipFile(archive) as file:
        file.extractall(tmp_path)
    run_calls("GEDI01_B")
    echoes = pyarrow.parquet.read_table(tmp_path / "gedi.parquet")
    assert len(set(echoes["shot_number"].to_pylist())) == 300
    assert len(set(echoes["beam"].to_pylist())) == 7
    metrics = pyarrow.parquet.read_table(tmp_path / "metrics.parquet")
    assert set(metrics["shot_number"].to_pylist()) == set(echoes["shot_number"].to_pylist())
    shown = run("info", *tmp_path.glob("GEDI*.h5")).stdout
    for text in ("GEDI L1B", "beam BEAM0101", "73 shots", "bounding box", "EPSG:4979"):
        assert text in shown


def test_commands_for_lvis(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    (name,) = {word for line in CALLS for word in line.split() if word.startswith("LVIS1B")}
    lvis_scene("2.0.4 classic", rows=5).write(tmp_path / name)
    run_calls("LVIS1B")
    echoes = pyarrow.parquet.read_table(tmp_path / "lvis.parquet")
    assert echoes["shot_number"].to_pylist() == [1, 2, 3, 4, 5]
    assert [round(z, 2) for z in echoes["z"].to_pylist()] == [
        round(1500.0 - 0.1498 * (100 + row), 2) for row in range(5)
    ]
    assert "beam" not in echoes.column_names
    metrics = pyarrow.parquet.read_table(tmp_path / "lvis-metrics.parquet")
    assert metrics["shot_number"].to_pylist() == [1, 2, 3, 4, 5]


@pytest.mark.skipif(not LAS.exists(), reason=f"no {LAS}")
def test_commands_for_las(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    for suffix in (".las", ".wdp"):
        shutil.copy(LAS.with_suffix(suffix), (tmp_path / "flight").with_suffix(suffix))
    run_calls("flight.las")
    # 2,250 discrete returns of 1,778 shots; some more in the waveforms.
    echoes = laspy.read(tmp_path / "echoes.laz")
    assert len(echoes) > 2_250
    metrics = pyarrow.parquet.read_table(tmp_path / "flight-metrics.parquet")
    assert metrics.num_rows == 1_778
    # Each ground lies in the box of the discrete returns, up to the width of an echo.
    header = laspy.read(tmp_path / "flight.las").header
    ground = metrics["ground_z"].to_numpy()
    assert ((ground > header.mins[2] - 1.0) & (ground < header.maxs[2])).all()
    pulses = pyarrow.parquet.read_table(tmp_path / "flight-pulses.parquet")
    assert pulses.num_rows == 1_778


def test_notebook_of_an_archive(tmp_path: Path) -> None:
    source = lvis_scene("2.0.4 classic", rows=5).write(tmp_path / "lvis.h5")
    printed = run_example("archive_notebook.py", source, tmp_path)
    echoes = pyarrow.parquet.read_table(tmp_path / "echoes.parquet")
    assert f"Extraction({len(echoes)} echoes of " in printed
    assert "rh_98" in printed
    lines = (tmp_path / "metrics.csv").read_text(encoding="utf-8").splitlines()
    with fw.open(source) as reader:
        assert len(lines) - 1 == sum(len(block) for block in reader.blocks())
    for picture in ("tallest.png", "profile.png"):
        assert (tmp_path / picture).read_bytes().startswith(b"\x89PNG")
