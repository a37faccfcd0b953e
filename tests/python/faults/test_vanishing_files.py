"""Inputs that are truncated and folders that are removed during a run."""

from __future__ import annotations

import functools
import os
import shutil
from collections.abc import Callable
from pathlib import Path
from typing import Any

import h5py
import laspy
import numpy as np
import pytest

from fullwaveform.extraction.extractor import Extractor
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.echo_writers.csv_metadata import metadata_path
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import assert_error, names, run
from ..support.pulsewaves_scenes import Descriptor, Pulse, Sampling, Scene

EXTRACT_BY_BLOCKS = ("--threshold", "20", "--block", "50", "--workers", "1")


def after_the_first_block(
    monkeypatch: pytest.MonkeyPatch, step: type, name: str, happens: Callable[[], object]
) -> None:
    """Call a function after the method has processed its first block."""
    method, left = getattr(step, name), [happens]

    def processing(self: Any, block: Any) -> Any:
        result = method(self, block)
        if left:
            left.pop()()
        return result

    monkeypatch.setattr(step, name, processing)


@pytest.fixture
def own_scan(scan: Path, tmp_path: Path) -> Path:
    """A copy of the scan in its own folder."""
    (folder := tmp_path / "in").mkdir()
    for ending in (".las", ".wdp"):
        shutil.copy(scan.with_suffix(ending), folder)
    return folder / scan.name


def pulsewaves(folder: Path) -> Path:
    """3000 pulses with a returning waveform of 40 samples each."""
    echo = np.rint(10 + 200 * np.exp(-0.5 * ((np.arange(40) - 15) / 2.0) ** 2)).astype(int).tolist()
    pulses = [Pulse([[(0, echo)]], time=number) for number in range(3000)]
    return Scene([Descriptor(1, [Sampling(samples=40)])], pulses).write(folder / "scan.pls")


def container(folder: Path) -> Path:
    """8,000 waveforms in several chunks."""
    long = write_scan(simulate_scan(ScanSettings(shots=4000)), folder / "long.las").las
    assert run("convert", long, folder / "scan.h5", "--quiet").exit_code == 0
    return folder / "scan.h5"


def compressed(folder: Path) -> Path:
    """70,000 points: more than the 50,000 that are compressed, and read, at a time."""
    settings = ScanSettings(shots=30_000, samples=40, lead_in=8)
    plain = write_scan(simulate_scan(settings), folder / "many.las", point_format=4).las
    laspy.read(plain).write(folder / "many.laz", do_compress=True)
    return folder / "many.laz"


@pytest.mark.parametrize("cut", ["scan.wdp", "scan.wvs", "scan.h5"])
def test_samples_truncated_during_the_run(
    own_scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, cut: str
) -> None:
    # HDF5 would keep a file of this size in memory when the thresholds are measured.
    uncached = functools.partial(h5py.File, rdcc_nbytes=0)
    monkeypatch.setattr("fullwaveform.io.container.reader.h5py.File", uncached)
    shortened = own_scan.with_name(cut)
    source = {
        "scan.wdp": lambda: own_scan,
        "scan.wvs": lambda: pulsewaves(own_scan.parent),
        "scan.h5": lambda: container(own_scan.parent),
    }[cut]()
    half = shortened.stat().st_size // 2
    after_the_first_block(monkeypatch, Extractor, "extract", lambda: os.truncate(shortened, half))
    (folder := tmp_path / "out").mkdir()
    result = run("extract", source, "-o", folder / "echoes.csv", *EXTRACT_BY_BLOCKS)
    assert_error(result, str(shortened))
    assert names(folder) == []


@pytest.mark.parametrize(("ending", "left"), [(".las", 3 / 4), (".laz", 1 / 2), (".pls", 3 / 4)])
def test_points_truncated_during_the_run(
    own_scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, ending: str, left: float
) -> None:
    source = {
        ".las": lambda: own_scan,
        ".laz": lambda: compressed(own_scan.parent),
        ".pls": lambda: pulsewaves(own_scan.parent),
    }[ending]()
    size = int(source.stat().st_size * left)
    after_the_first_block(monkeypatch, Extractor, "extract", lambda: os.truncate(source, size))
    (folder := tmp_path / "out").mkdir()
    result = run("extract", source, "-o", folder / "echoes.csv", *EXTRACT_BY_BLOCKS)
    assert_error(result, str(source))
    assert names(folder) == []


@pytest.mark.parametrize("ending", ECHO_ENDINGS)
def test_echo_folder_removed_during_the_run(
    own_scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, ending: str
) -> None:
    (folder := tmp_path / "out").mkdir()
    output = folder / f"echoes{ending}"
    after_the_first_block(monkeypatch, Extractor, "extract", lambda: shutil.rmtree(folder))
    result = run("extract", own_scan, "-o", output, *EXTRACT_BY_BLOCKS)
    first = metadata_path(output) if ending == ".csv" else output  # to be completed
    assert_error(result, f"cannot write {first}: No such file or directory")
    assert not folder.exists()


def test_container_folder_removed_during_the_run(
    own_scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    (folder := tmp_path / "out").mkdir()
    output = folder / "scan.h5"
    after_the_first_block(monkeypatch, ScanContainerWriter, "write", lambda: shutil.rmtree(folder))
    result = run("convert", own_scan, output, "--block", "50")
    assert_error(result, f"cannot write {output}: No such file or directory")
    assert not folder.exists()
