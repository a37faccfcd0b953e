"""Blocks through several workers: the same bytes, in order, errors in order, workers bounded."""

from __future__ import annotations

import threading
from collections.abc import Iterator
from pathlib import Path

import numpy as np
import pytest

from fullwaveform import Mode, Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor
from fullwaveform.extraction.pipeline import extracted_blocks, write_echoes
from fullwaveform.io.echo_writers.csv import CsvEchoWriter
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.child_processes import TIMEOUT_S
from ..support.command_line import names, run

SETTINGS = ExtractionSettings(scanner=Scanner.default(), threshold=20)


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("scan")
    return write_scan(simulate_scan(ScanSettings(shots=600)), folder / "scan.las").las


@pytest.mark.parametrize("ending", [".las", ".csv"])
def test_output_does_not_depend_on_the_number_of_workers(
    scan: Path, tmp_path: Path, ending: str
) -> None:
    written = set()
    for workers in (1, 2, 5):
        output = tmp_path / f"{workers}{ending}"
        call = ["extract", scan, "-o", output, "--threshold", "20", "--block", "50", "-q"]
        result = run(*call, "--mode", "1", "--workers", str(workers))
        assert result.exit_code == 0, result.output
        written.add(output.read_bytes())
    assert len(written) == 1
    assert len(written.pop()) > 20_000


def test_summary_does_not_depend_on_the_number_of_workers(scan: Path, tmp_path: Path) -> None:
    def summary(workers: int) -> list[str]:
        call = [
            "extract",
            scan,
            "-o",
            tmp_path / "echoes.csv",
            "--overwrite",
            "--threshold",
            "20",
            "--block",
            "50",
        ]
        lines = run(*call, "--workers", str(workers)).stdout.splitlines()
        return [line for line in lines if "time" not in line]

    assert summary(1) == summary(3)


def waiting_blocks(scan: Path, taken: list[int]) -> Iterator[WaveformBlock]:
    """The scan in blocks of about 20 waveforms, noted as they are taken."""
    with open_waveforms(scan, waveforms_per_block=20) as reader:
        for block in reader.blocks():
            taken.append(len(block))
            yield block


@pytest.mark.parametrize("workers", [1, 2, 4])
def test_blocks_in_memory_are_bounded(scan: Path, workers: int) -> None:
    taken: list[int] = []
    for done, _ in enumerate(extracted_blocks(waiting_blocks(scan, taken), SETTINGS, workers)):
        assert len(taken) <= done + workers + 1
    assert len(taken) > 20


def test_every_worker_has_its_own_driver(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """Two blocks are extracted at the same time, by two extractors."""
    both = threading.Barrier(2, timeout=TIMEOUT_S)
    seen = set()
    extract = Extractor.extract

    def meeting(self: Extractor, block: WaveformBlock) -> object:
        if len(seen) < 2:
            seen.add(id(self))
            both.wait()
        return extract(self, block)

    monkeypatch.setattr(Extractor, "extract", meeting)
    for _ in extracted_blocks(waiting_blocks(scan, []), SETTINGS, 2):
        pass
    assert len(seen) == 2


@pytest.mark.parametrize("workers", [1, 3])
def test_first_error_ends_the_run(scan: Path, tmp_path: Path, workers: int) -> None:
    """Blocks 3 and 5 cannot be extracted: the error is that of block 3, and no file is left."""
    wave = {"a_real": [1.0], "a_imag": [0.0], "b_real": [-1e9], "b_imag": [0.0]}
    plain = Scanner.default(1e-9)
    scanner = Scanner({**plain.attributes, **wave}, plain.after_pulse, deconvolution_offset=1.0)
    settings = ExtractionSettings(scanner, Mode.DECONVOLUTION, threshold=20)

    def blocks() -> Iterator[WaveformBlock]:
        for number, block in enumerate(waiting_blocks(scan, [])):
            if number in (3, 5):
                block.sampling_intervals[:] = number * 1e-9
            yield block

    output = tmp_path / "echoes.csv"
    with (
        pytest.raises(ValueError, match="but the waveforms have 3 ns"),
        CsvEchoWriter(output) as writer,
    ):
        write_echoes(extracted_blocks(blocks(), settings, workers), writer)
    assert names(tmp_path) == []


def test_each_waveform_without_echoes_is_reported(scan: Path, tmp_path: Path) -> None:
    call = ["extract", scan, "-o", tmp_path / "echoes.csv", "--threshold", "20", "--workers", "2"]
    short, long = run(*call), run(*call, "--block", "37", "--verbose", "--overwrite")
    assert "waveform " not in short.stderr
    reported = [line for line in long.stderr.splitlines() if line.startswith("waveform ")]
    numbers = np.array([int(line.split()[1].rstrip(":")) for line in reported])
    assert (np.diff(numbers) > 0).all()
    weak = sum(line.endswith(": signal not above the threshold") for line in reported)
    assert weak > 0
    (row,) = [line for line in short.stdout.splitlines() if "signal not above" in line]
    assert f" {weak} " in row


def test_statistics_that_cannot_be_written_are_ignored(tmp_path: Path) -> None:
    """A folder has the name of the statistics file."""
    weak = write_scan(simulate_scan(ScanSettings(shots=50)), tmp_path / "scan.las").las
    call = ["extract", weak, "-o", tmp_path / "echoes.csv", "--threshold", "60000"]
    assert run(*call, "--allow-empty").exit_code == 0
    first = (tmp_path / "scan_Warning.txt").read_text(encoding="ascii")
    assert first.startswith("NumberOfWaves: ")
    assert run(*call, "--allow-empty", "--overwrite").exit_code == 0
    assert (tmp_path / "scan_Warning.txt").read_text(encoding="ascii") == 2 * first
    (tmp_path / "scan_Warning.txt").unlink()
    (tmp_path / "scan_Warning.txt").mkdir()
    assert run(*call, "--allow-empty", "--overwrite").exit_code == 0


def test_fewer_than_one_worker_is_refused(scan: Path) -> None:
    with pytest.raises(ValueError, match="invalid workers 0; expected an integer of at least 1"):
        extracted_blocks(iter(()), SETTINGS, 0)
