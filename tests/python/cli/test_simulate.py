"""``fullwaveform simulate``: files, and invalid calls."""

from __future__ import annotations

from pathlib import Path

import laspy
import pytest

from fullwaveform.simulation import read_truth

from ..support.command_line import assert_error, assert_usage, names, run


def test_simulate_writes_scan_and_truth(tmp_path: Path) -> None:
    result = run("simulate", tmp_path / "s.las", "--shots", 50, "--samples", 120, "--seed", 5)
    assert result.exit_code == 0
    truth = read_truth(tmp_path / "s_truth.csv")
    assert result.stdout.startswith(f"50 shots, {len(truth)} echoes: ")
    assert names(tmp_path) == ["s.las", "s.wdp", "s_truth.csv"]
    assert (tmp_path / "s.wdp").stat().st_size == 60 + 50 * 2 * 120 * 2
    for point_format, version in (("4", "1.3"), ("9", "1.4")):
        call = ["simulate", tmp_path / "s.las", "--point-format", point_format, "--shots", 50]
        assert run(*call, "--overwrite").exit_code == 0
        assert str(laspy.read(tmp_path / "s.las").header.version) == version


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (["s.las", "--shots", "0"], "invalid shots 0; it must be at least 1"),
        (["s.las", "--noise-rms", "-1"], "invalid noise_rms -1.0; it must be 0 or more"),
        (["s.las", "--noise", "-1"], "invalid noise_rms -1.0; it must be 0 or more"),  # former name
        (["s.las", "--samples", "10"], "invalid samples 10; it must be enough for the lead-in"),
        (["s.las", "--seed", "-1"], "invalid seed -1"),
        (["s.las", "--point-format", "6"], "6 must be 4 or 9"),
        (["s.laz"], "must end in .las"),
        ([], "Missing argument"),
    ],
)
def test_invalid_options(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, call: list[str], message: str
) -> None:
    monkeypatch.chdir(tmp_path)
    assert_usage(run("simulate", *call), message)
    assert names(tmp_path) == []


def test_missing_folder(tmp_path: Path) -> None:
    result = run("simulate", tmp_path / "no" / "s.las", "--shots", "10")
    assert_error(result, f"s.las: the folder {tmp_path / 'no'} does not exist")
