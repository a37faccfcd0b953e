"""``--outgoing-phase``: decision, forced and refused correction, in every place that reports it."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pyarrow.parquet as pq
import pytest

import fullwaveform as fw
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording, write_scan

from ..support.command_line import assert_error, assert_usage, run, words


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("phase")
    scan = simulate_scan(ScanSettings(shots=600))
    write_recording(scan, folder / "scan.pls")
    (folder / "las").mkdir()
    write_scan(scan, folder / "las" / "scan.las")
    return folder


def places(folder: Path, name: str, *options: str) -> np.ndarray:
    result = run("extract", folder / "scan.pls", "-o", folder / name, "--threshold", "30", *options)
    assert result.exit_code == 0, result.output
    table = pq.read_table(folder / name)
    return np.column_stack([table[axis].to_numpy() for axis in "xyz"])


def test_summary_and_result(folder: Path) -> None:
    output = folder / "auto.parquet"
    result = run("extract", folder / "scan.pls", "-o", output, "--threshold", "30")
    text = words(result.stdout)
    assert "outgoing phase taken off" in text
    assert "cm with" in text
    metadata = json.loads(pq.read_metadata(output).metadata[b"fullwaveform"])
    assert metadata["outgoing_phase"] == "phase"
    off = places(folder, "off.parquet", "--outgoing-phase", "off")
    auto = pq.read_table(output)
    moved = np.linalg.norm(np.column_stack([auto[axis].to_numpy() for axis in "xyz"]) - off, axis=1)
    # At most half a sample of 15 cm; uniform.
    assert moved.max() < 0.076
    assert np.median(moved) == pytest.approx(0.0375, abs=0.005)
    assert np.array_equal(places(folder, "on.parquet", "--outgoing-phase", "on"),
                          np.column_stack([auto[axis].to_numpy() for axis in "xyz"]))  # fmt: skip


def test_same_places_for_any_block_and_number_of_workers(folder: Path) -> None:
    expected = places(folder, "one.parquet")
    for name, options in (("two", ("--workers", "2")), ("small", ("--block", "77"))):
        assert np.array_equal(places(folder, f"{name}.parquet", *options), expected)


def test_info(folder: Path) -> None:
    text = words(run("info", folder / "scan.pls").stdout)
    assert "outgoing phase taken off (ranges scatter by" in text
    phase = json.loads(run("info", folder / "scan.pls", "--json").stdout)["outgoing_phase"]
    assert phase["taken_off"] == "phase"
    assert phase["pairs"] >= 200
    assert phase["scatter_with"] < 0.01
    assert phase["scatter_without"] > 0.04
    las = json.loads(run("info", folder / "las" / "scan.las", "--json").stdout)
    assert las["outgoing_phase"] is None


def test_files_without_outgoing_pulses(folder: Path) -> None:
    las, output = folder / "las" / "scan.las", folder / "echoes.csv"
    result = run("extract", las, "-o", output, "--outgoing-phase", "on")
    assert_error(result, "has no outgoing pulses", "--outgoing-phase auto")
    assert not output.exists()
    assert "outgoing phase" not in words(run("extract", las, "-o", output).stdout)
    with pytest.raises(ValueError, match="has no outgoing pulses"):
        fw.extract(las, outgoing_phase="on")


def test_invalid_choices(folder: Path) -> None:
    result = run("extract", folder / "scan.pls", "-o", "a.csv", "--outgoing-phase", "yes")
    assert_usage(result, "'yes' must be 'auto', 'on' or 'off'")
    with pytest.raises(ValueError, match="invalid outgoing_phase 'yes'; expected 'auto'"):
        fw.extract(folder / "scan.pls", outgoing_phase="yes")  # type: ignore[arg-type]
    with fw.open(folder / "scan.pls") as reader:
        blocks = list(reader.blocks())
    with pytest.raises(ValueError, match="needs a path or a reader; blocks are not measured"):
        fw.extract(blocks, outgoing_phase="on")
