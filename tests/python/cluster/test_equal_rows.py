"""The concatenated parts of several workers equal the output of extract."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import laspy
import numpy as np
import pyarrow as pa
import pytest

from fullwaveform.cluster import part_paths
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording

from ..support.command_line import names, run, words
from ..support.echo_tables import assert_same_rows
from ..support.hdf5_scenes import GediScene, LvisScene, Shot, bump
from ..support.row_scenes import as_container
from .scenes import (
    compressed_scan,
    las_scan,
    manifest_of,
    parts_table,
    pulsewaves_scan,
    single_run,
    table_lines,
)


def container_scan(path: Path) -> Path:
    return as_container(las_scan(path.with_name("original.las"), shots=120), path)


def gedi_scan(path: Path) -> Path:
    """Three beams; every tenth shot of the second is degraded."""
    beams = {
        name: [
            Shot(
                bump(60, 20.0 + n % 17), 0.1 * n, 1000 * beam + n, degrade=beam == 1 and n % 10 == 0
            )
            for n in range(60)
        ]
        for beam, name in enumerate(("BEAM0000", "BEAM0011", "BEAM1000"))
    }
    return GediScene(beams).write(path)


def lvis_scan(path: Path) -> Path:
    samples = np.rint([bump(80, 20.0 + n % 31) for n in range(180)])
    return LvisScene(samples, [0.01 * n for n in range(180)]).write(path)


def on_cluster(address: str, *call: str | Path) -> str:
    result = run("cluster", *call, "--scheduler", address)
    assert result.exit_code == 0, result.output
    return result.stdout


@pytest.mark.parametrize("blocks", [1, 4, 1000])
@pytest.mark.parametrize(
    ("make", "name", "channel"),
    [
        (las_scan, "scan.las", "2=high"),
        (pulsewaves_scan, "scan.pls", "1=high"),
        (compressed_scan, "scan.plz", "1=high"),
        (container_scan, "scan.h5", "2=high"),
        (gedi_scan, "scan.h5", "high"),
        (lvis_scan, "scan.h5", "high"),
    ],
)
def test_parts_of_any_format_and_size_equal_the_single_run(
    address: str,
    tmp_path: Path,
    make: Callable[[Path], Path],
    name: str,
    channel: str,
    blocks: int,
) -> None:
    source, folder = make(tmp_path / name), tmp_path / "parts"
    options = ["--threshold", "20", "--block", "40", "--channel", channel]
    expected = single_run(source, tmp_path / "single.parquet", *options)
    shown = on_cluster(address, source, "-o", folder, *options, "--blocks-per-part", str(blocks))
    assert_same_rows(parts_table(folder), expected)
    manifest = manifest_of(folder)
    (file,) = manifest["inputs"]
    assert file["blocks"] > 4
    assert len(manifest["parts"]) == -(-file["blocks"] // blocks)
    starts = [part["first"] for part in manifest["parts"]][1:] if "pl" in name else []
    assert [start["block"] for start in file["starts"]] == starts
    assert sum(part["outcome"]["rows"] for part in manifest["parts"]) == expected.num_rows
    assert names(folder) == sorted(["manifest.json", *(p["file"] for p in manifest["parts"])])
    single = run("extract", source, "-o", tmp_path / "again.parquet", *options)
    assert table_lines(shown) == table_lines(single.stdout)
    assert len(table_lines(shown)) > 5


def test_pulse_fit_measures_its_model_once_for_all_parts(address: str, tmp_path: Path) -> None:
    source, folder = las_scan(tmp_path / "scan.las", shots=600), tmp_path / "parts"
    options = ["--mode", "pulse-fit", "--block", "150", "--channel", "2=high", "--keep-empty"]
    options += ["--false-alarms", "2", "--max-width", "15"]
    expected = single_run(source, tmp_path / "single.parquet", *options)
    shown = on_cluster(address, source, "-o", folder, *options, "--blocks-per-part", "2")
    assert_same_rows(parts_table(folder), expected)
    manifest = manifest_of(folder)
    assert len(manifest["parts"]) > 2
    models = manifest["inputs"][0]["calibration"]["pulse_models"]
    assert [model["descriptor"] for model in models] == [2, 1]
    settings = manifest["settings"]
    chosen = [settings[name] for name in ("mode", "pulse", "false_alarms", "max_width")]
    assert chosen == [4, "auto", 2.0, 15e-9]
    assert "isolated echoes of the file" in words(shown)
    resumed = run(
        "cluster", source, "-o", folder, *options[:-4], "--scheduler", address, "--resume"
    )
    assert resumed.exit_code == 1
    assert "settings.false_alarms was 2.0, is 1.0" in words(resumed.stderr)


def test_several_inputs_keep_their_order(address: str, tmp_path: Path) -> None:
    sources = [
        las_scan(tmp_path / "b.las", shots=150, seed=1),
        pulsewaves_scan(tmp_path / "a.pls", pulses=60),
        las_scan(tmp_path / "c.las", shots=30, seed=2),
    ]
    options = ["--block", "50", "--keep-empty", "--mode", "decomposition"]
    expected = [single_run(s, s.with_suffix(".parquet"), *options) for s in sources]
    shown = on_cluster(
        address, *sources, "-o", tmp_path / "parts", *options, "--blocks-per-part", "2"
    )
    assert_same_rows(parts_table(tmp_path / "parts"), pa.concat_tables(expected))
    assert "3 files" in shown
    rows = sum(table.num_rows for table in expected)
    echoes = sum(np.count_nonzero(table["echo_number"]) for table in expected)
    assert rows > echoes > 0
    assert f"| {echoes:,} |" in " ".join(table_lines(shown))
    assert [part["input"] for part in manifest_of(tmp_path / "parts")["parts"]] == (
        [0, 0, 0, 1, 1, 2]
    )


def test_las_and_csv_parts_equal_the_single_run(address: str, tmp_path: Path) -> None:
    source = las_scan(tmp_path / "scan.las")
    options = ["--block", "60", "--threshold", "20"]
    for ending in ("las", "csv"):
        single, folder = tmp_path / f"single.{ending}", tmp_path / ending
        assert run("extract", source, "-o", single, *options).exit_code == 0
        options_of_parts = ["--blocks-per-part", "3", "--format", ending]
        on_cluster(address, source, "-o", folder, *options, *options_of_parts)
        paths = part_paths(folder)
        assert len(paths) == 4
        if ending == "las":
            points = np.concatenate([laspy.read(path).points.array for path in paths])
            assert points.tobytes() == laspy.read(single).points.array.tobytes()
        else:
            head, *lines = single.read_text(encoding="ascii").splitlines()
            parts = [path.read_text(encoding="ascii").splitlines() for path in paths]
            assert {part[0] for part in parts} == {head}
            assert [line for part in parts for line in part[1:]] == lines


def test_statistics_of_suspicious_blocks_are_in_order(address: str, tmp_path: Path) -> None:
    """At a threshold above nearly all signals every block is suspicious."""
    source, folder = las_scan(tmp_path / "scan.las"), tmp_path / "parts"
    options = ["--threshold", "3000", "--block", "45"]
    single = run("extract", source, "-o", tmp_path / "echoes.csv", *options)
    assert single.exit_code == 0
    shown = on_cluster(address, source, "-o", folder, *options, "--blocks-per-part", "2")
    expected = (tmp_path / "scan_Warning.txt").read_bytes()
    assert expected.count(b"NumberOfWaves: ") > 4
    assert (folder / "scan_Warning.txt").read_bytes() == expected
    assert table_lines(shown) == table_lines(single.stdout)
    assert f"statistics appended to {folder / 'scan_Warning.txt'}" in words(shown)


def test_echoes_that_las_cannot_represent_are_counted_once(address: str, tmp_path: Path) -> None:
    """With a scale of 1 nm 32 bits reach 2 m, and echoes are metres from the anchors."""
    source = las_scan(tmp_path / "scan.las")
    content = bytearray(source.read_bytes())
    content[131:155] = np.full(3, 1e-9).tobytes()  # the scales in the header of a LAS file
    source.write_bytes(content)
    options = ["--threshold", "20", "--block", "40"]
    single = run("extract", source, "-o", tmp_path / "single.las", *options)
    shown = on_cluster(address, source, "-o", tmp_path / "p", *options, "--format", "las",
                       "--blocks-per-part", "2")  # fmt: skip
    note = [
        line
        for line in single.stdout.splitlines()
        if "echoes skipped: coordinates" in " ".join(line.split())
    ]
    assert len(note) == 1
    assert note == [
        line
        for line in shown.splitlines()
        if "echoes skipped: coordinates" in " ".join(line.split())
    ]
    assert table_lines(shown) == table_lines(single.stdout)


def test_waveforms_of_parts_are_those_of_the_single_run(address: str, tmp_path: Path) -> None:
    source = las_scan(tmp_path / "scan.las")
    options = ["--block", "60", "--threshold", "20", "--with-waveforms"]
    assert run("extract", source, "-o", tmp_path / "single.las", *options).exit_code == 0
    on_cluster(
        address,
        source,
        "-o",
        tmp_path / "parts",
        *options,
        "--blocks-per-part",
        "3",
        "--format",
        "las",
    )
    paths = part_paths(tmp_path / "parts")
    assert len(paths) == 4
    single = _samples(tmp_path / "single.las")
    assert [samples for path in paths for samples in _samples(path)] == single
    assert len(single) > 100


def _samples(path: Path) -> list[bytes]:
    """The samples of the waveforms of a file, in its order."""
    with open_waveforms(path) as reader:
        return [
            row[:count].tobytes()
            for block in reader.blocks()
            for row, count in zip(block.samples, block.counts, strict=True)
        ]


def test_phase_of_outgoing_pulses_is_decided_once_for_all_parts(
    address: str, tmp_path: Path
) -> None:
    source, folder = tmp_path / "scan.pls", tmp_path / "parts"
    write_recording(simulate_scan(ScanSettings(shots=500)), source)
    options = ["--threshold", "20", "--block", "40", "--channel", "2=high"]
    expected = single_run(source, tmp_path / "single.parquet", *options)
    off = single_run(source, tmp_path / "off.parquet", *options, "--outgoing-phase", "off")
    assert expected["z"] != off["z"]
    shown = on_cluster(address, source, "-o", folder, *options, "--blocks-per-part", "3")
    assert_same_rows(parts_table(folder), expected)
    assert "scan.pls: outgoing phase taken off" in words(shown)
    (file,) = manifest_of(folder)["inputs"]
    assert file["calibration"]["outgoing_phase"]["form"] == "phase"
