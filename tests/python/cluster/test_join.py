"""Parts that are joined to one file, which has the bytes of the file of a single run."""

from __future__ import annotations

import re
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.echo_writers.joining import join_echo_files

from ..support.command_line import assert_error, names, run, succeeded
from ..support.hdf5_scenes import GediScene, Shot, bump
from .scenes import las_scan, manifest_of


def gedi_scan(path: Path) -> Path:
    shots = [Shot(bump(60, 20.0 + n % 17), 0.1 * n, n) for n in range(90)]
    return GediScene({"BEAM0000": shots[:40], "BEAM0011": shots[40:]}).write(path)


def scan_without_header(path: Path) -> Path:
    """The first part has no echoes; the others have echoes several kilometres away."""
    rng = np.random.default_rng(4)
    time = np.arange(60)
    heights = rng.uniform(100.0, 200.0, 100)[:, None]
    heights[:45] = 0.0
    pulses = heights * np.exp(-0.5 * ((time - rng.uniform(10, 50, 100)[:, None]) / 2.0) ** 2)
    number = np.arange(100.0)[:, None]
    np.savez(
        path,
        samples=np.rint(pulses).astype(np.uint16),
        sampling_interval=1e-9,
        anchor=number * [117.0, 53.0, 0.3] + [4e5, 5e6, 100.0],
        location=np.full(100, 3e4),
        direction=np.tile([1e-5, 2e-5, 1.5e-4], (100, 1)),
        gps_time=number[:, 0],
    )
    return path


@pytest.mark.parametrize(
    ("make", "name", "ending"),
    [
        *((las_scan, "a.las", ending) for ending in ("csv", "txt", "h5", "las", "laz", "parquet")),
        *((gedi_scan, "a.h5", ending) for ending in ("csv", "h5", "las", "parquet")),
        *((scan_without_header, "a.npz", ending) for ending in ("h5", "las")),
    ],
)
def test_joined_file_has_the_bytes_of_a_single_one(
    tmp_path: Path, make: Callable[[Path], Path], name: str, ending: str
) -> None:
    source = make(tmp_path / name)
    options = ("--threshold", "20", "--block", "20", "--format", ending)
    succeeded("plan", source, "-o", tmp_path / "job", *options, "--blocks-per-part", "2")
    succeeded("run", tmp_path / "job", "--units", "0-1", "-q")
    count = len(manifest_of(tmp_path / "job")["parts"])
    assert count > 2
    succeeded("run", tmp_path / "job", "--units", f"2-{count - 1}", "-q")
    succeeded("join", tmp_path / "job", "-o", tmp_path / f"joined.{ending}", "-q")
    (tmp_path / "single").mkdir()
    succeeded("extract", source, "-o", tmp_path / "single", *options, "-q")
    joined, single = tmp_path / f"joined.{ending}", tmp_path / "single" / f"a.{ending}"
    assert single.stat().st_size > 1000
    assert joined.read_bytes() == single.read_bytes()


def scan_of_many_lengths(path: Path) -> Path:
    """240 waveforms of 215 lengths, of one and two bytes per sample."""
    rng = np.random.default_rng(6)
    counts = np.concatenate([rng.permutation(np.arange(30, 245)), np.full(25, 70)])
    samples = np.zeros((240, 245), np.uint16)
    for row, count in zip(samples, counts, strict=True):
        row[:count] = rng.integers(3, 9, count)
        row[10:13] += np.array([60, 100, 60], np.uint16) * rng.integers(1, 5, dtype=np.uint16)
    np.savez(
        path,
        samples=samples,
        counts=counts,
        sampling_interval=1e-9,
        anchor=np.arange(240.0)[:, None] * [5.0, 3.0, 0.1],
        location=np.zeros(240),
        direction=np.tile([1e-5, 2e-5, 1.5e-4], (240, 1)),
    )
    return path


@pytest.mark.parametrize(
    ("make", "name", "ending"),
    [
        (las_scan, "a.las", "las"),
        (las_scan, "a.las", "laz"),
        (scan_of_many_lengths, "a.npz", "las"),
    ],
)
def test_joined_waveforms_have_the_bytes_of_a_single_run(
    tmp_path: Path, make: Callable[[Path], Path], name: str, ending: str
) -> None:
    scan, job = make(tmp_path / name), tmp_path / "job"
    options = ("--threshold", "20", "--block", "20", "--with-waveforms")
    call = ("plan", scan, "-o", job, *options, "--format", ending, "--blocks-per-part", "3")
    units = int(succeeded(*call, "--print-count"))
    assert units >= 4
    succeeded("run", job, "--units", f"0-{units - 1}")
    joined, single = tmp_path / f"joined.{ending}", tmp_path / f"single.{ending}"
    shown = succeeded("join", job, "-o", joined)
    expected = succeeded("extract", scan, "-o", single, *options)
    assert joined.read_bytes() == single.read_bytes()
    packets = joined.with_suffix(".wdp").read_bytes()
    assert packets == single.with_suffix(".wdp").read_bytes()
    assert len(packets) > 10_000
    assert notes_on_padding(shown) == notes_on_padding(expected)
    assert len(notes_on_padding(shown)) == (1 if name == "a.npz" else 0)


def notes_on_padding(shown: str) -> list[str]:
    return re.findall("[0-9,]+ waveforms? padded", shown)


def test_joined_packets_do_not_replace_others(tmp_path: Path) -> None:
    scan, job = las_scan(tmp_path / "scan.las", shots=30), tmp_path / "job"
    succeeded("plan", scan, "-o", job, "--with-waveforms", "--format", "las", "--threshold", "20")
    succeeded("run", job, "--unit", "0")
    out, packets = tmp_path / "joined.las", tmp_path / "joined.wdp"
    packets.write_bytes(b"other")
    call = ("join", job, "-o", out, "--overwrite")
    assert_error(run(*call), "joined.wdp exists and is not the waveforms of a LAS file of echoes")
    assert (out.exists(), packets.read_bytes()) == (False, b"other")


def test_parts_with_unknown_descriptors_are_not_joined(tmp_path: Path) -> None:
    scan, part = las_scan(tmp_path / "scan.las", shots=30), tmp_path / "part.las"
    succeeded("extract", scan, "-o", part, "--with-waveforms", "--threshold", "20")
    content = part.read_bytes()
    assert content.count(b"of descriptor 1 of the input") == 1
    part.write_bytes(content.replace(b"of descriptor 1 of", b"of another one as"))
    out = tmp_path / "joined.las"
    with pytest.raises(ValueError, match="does not say from which one of the input it comes"):
        join_echo_files([part], out, with_waveforms=True)
    assert not [name for name in names(tmp_path) if name.startswith((".", "joined"))]
