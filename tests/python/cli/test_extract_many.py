"""Several files in one call of extract."""

from __future__ import annotations

import json
from pathlib import Path

import laspy
import pytest

from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import assert_error, assert_usage, names, run

OPTIONS = ("--format", "las", "--threshold", "20")


@pytest.fixture
def scans(tmp_path: Path) -> list[Path]:
    """Two scans of different content and a file that is none."""
    paths = [tmp_path / f"{name}.las" for name in ("one", "two", "bad")]
    for seed, path in enumerate(paths[:2]):
        write_scan(simulate_scan(ScanSettings(shots=60, seed=seed)), path)
    paths[2].write_bytes(b"no scan")
    return paths


@pytest.mark.parametrize("jobs", ["1", "3"])
def test_outputs_equal_those_of_single_runs(scans: list[Path], tmp_path: Path, jobs: str) -> None:
    done = run("extract", *scans[:2], "-o", tmp_path / "out", *OPTIONS, "--jobs", jobs)
    assert done.exit_code == 0, done.output
    assert sorted(line.split(":")[0] for line in done.stdout.splitlines()) == ["one.las", "two.las"]
    assert names(tmp_path / "out") == ["one.las", "two.las"]
    for scan in scans[:2]:
        alone = tmp_path / f"alone_{scan.name}"
        assert run("extract", scan, "-o", alone, *OPTIONS[2:]).exit_code == 0
        found = laspy.read(tmp_path / "out" / scan.name)
        assert found.points.array.tobytes() == laspy.read(alone).points.array.tobytes()


def test_bad_files_are_reported_at_the_end_and_the_others_done(
    scans: list[Path], tmp_path: Path
) -> None:
    call = ["extract", scans[2], tmp_path / "none.las", *scans[:2], "-o", tmp_path / "out"]
    done = run(*call, *OPTIONS, "--jobs", "2")
    assert done.exit_code == 1
    assert names(tmp_path / "out") == ["one.las", "two.las"]
    bad, missing, count = sorted(done.stderr.splitlines(), key=lambda line: "could not" in line)
    assert {"is not a waveform file" in bad, "is not a waveform file" in missing} == {True, False}
    assert f"{tmp_path / 'none.las'}: No such file or directory" in done.stderr
    assert count == "fullwaveform: 2 of 4 files could not be extracted"
    skipping = run(*call, *OPTIONS, "--skip-bad-files", "--overwrite")
    assert skipping.exit_code == 0
    assert "is not a waveform file" in skipping.stderr
    alone = run("extract", scans[2], "-o", tmp_path / "out", *OPTIONS, "--skip-bad-files")
    assert alone.exit_code == 1  # nothing could be extracted


def test_file_without_echoes_is_bad(scans: list[Path], tmp_path: Path) -> None:
    call = ["extract", *scans[:2], "-o", tmp_path / "out", "--format", "csv"]
    done = run(*call, "--threshold", "60000")
    assert done.exit_code == 1
    assert "no echoes in 120 waveforms (120 x signal not above the threshold)" in done.stderr
    assert names(tmp_path / "out") == ["one_Warning.txt", "two_Warning.txt"]
    assert run(*call, "--threshold", "60000", "--allow-empty").exit_code == 0


def test_equal_stems_are_refused_before_anything_is_read(tmp_path: Path) -> None:
    (tmp_path / "a").mkdir()
    call = ["extract", tmp_path / "x.las", tmp_path / "a" / "X.pls", "-o", tmp_path / "out"]
    assert_usage(run(*call), "would have the same name; extract them into different folders")
    call = ["extract", tmp_path / "x.las", tmp_path / "a" / ".." / "x.las", "-o", tmp_path / "out"]
    assert_usage(run(*call), "is given twice")
    assert not (tmp_path / "out").exists()


def test_existing_outputs_are_refused_before_anything_is_read(
    scans: list[Path], tmp_path: Path
) -> None:
    (tmp_path / "out").mkdir()
    (tmp_path / "out" / "two.las").write_bytes(scans[1].read_bytes())  # not of this program's kind
    for options in ((), ("--overwrite",)):
        done = run("extract", *scans[:2], "-o", tmp_path / "out", *OPTIONS, *options)
        assert_usage(done, "two.las exists and is not a LAS file of echoes")
    assert names(tmp_path / "out") == ["two.las"]
    for options in ((), ("--overwrite",)):
        done = run("extract", *scans[:2], "-o", tmp_path, *OPTIONS, *options)
        assert_usage(done, "one.las is the input file")


def test_invalid_calls(scans: list[Path], tmp_path: Path) -> None:
    one, two, _ = scans
    assert_usage(run("extract", one, two, "-o", tmp_path / "e.las"), "must be a folder; the format")
    assert_usage(
        run("extract", one, two, "-o", tmp_path / "out", "--format", "shp"), "'shp' must be one of"
    )
    assert_usage(
        run("extract", one, two, "-o", tmp_path / "out", "--json"), "does not apply to output in"
    )
    keep = ("--keep-empty", *OPTIONS)
    assert_usage(run("extract", one, two, "-o", tmp_path / "out", *keep), "cannot hold waveforms")


def test_full_disk_ends_the_run(
    scans: list[Path], tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    def fill(*_: object) -> None:
        raise OSError(28, "No space left on device")

    monkeypatch.setattr("fullwaveform.io.echo_writers.las._fill_standard_fields", fill)
    done = run("extract", *scans[:2], "-o", tmp_path / "out", *OPTIONS)
    assert_error(done, "No space left on device")
    assert names(tmp_path / "out") == []


def test_summary_as_json(scans: list[Path], tmp_path: Path) -> None:
    done = run("extract", scans[0], "-o", tmp_path / "e.csv", "--threshold", "20", "--json")
    summary = json.loads(done.stdout)
    assert (summary["input"], summary["waveforms"]) == ("one.las", 120)
    assert summary["written"] == len((tmp_path / "e.csv").read_text().splitlines()) - 1
    assert summary["output"] == str(tmp_path / "e.csv")
