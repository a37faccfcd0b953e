"""No space for an output: a message with its name, and no file left."""

from __future__ import annotations

import os
import resource
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS

from ..support.command_line import names, run
from .processes import assert_error_line, finished

Call = tuple[str | Path, ...]

THRESHOLD = ("--threshold", "20")
#: Output and the call that writes it from the scan.
OUTPUTS: dict[str, tuple[str, ...]] = {
    **{f"echoes{ending}": ("extract", *THRESHOLD, "--block", "100") for ending in ECHO_ENDINGS},
    "scan.h5": ("convert",),
    **{
        f"metrics{ending}": ("metrics", "--block", "100", "--smoothing", "2")
        for ending in (".csv", ".parquet", ".h5")
    },
    "pulses.parquet": ("pulses", "--block", "100"),
    "report.txt": ("report", "--waveform", "2"),
    "scanner.toml": ("system-wave", *THRESHOLD),
    "picture.png": ("plot", "--waveform", "2"),
    "picture.pdf": ("plot", "--waveform", "2"),
    "picture.svg": ("plot", "--waveform", "2"),
}
#: 10 kB and more.
LARGE = [name for name in OUTPUTS if name.startswith(("echoes", "metrics", "pulses", "scan.h5"))]


def call_of(scan: Path, output: Path) -> Call:
    command, *options = OUTPUTS[output.name]
    placed = (output,) if command == "convert" else ("-o", output)
    return (command, scan, *placed, *options)


def files_end_at(size: int) -> Callable[[], None]:
    """Limits the size of files, in bytes."""
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, resource.RLIM_INFINITY))


@pytest.mark.parametrize("name", OUTPUTS)
def test_output_above_the_file_size_limit_is_reported(
    scan: Path, tmp_path: Path, name: str
) -> None:
    output = tmp_path / name
    assert run(*call_of(scan, output)).exit_code == 0
    older = {path: path.read_bytes() for path in tmp_path.iterdir()}
    done = finished(*call_of(scan, output), "--overwrite", before=files_end_at(0))
    assert_error_line(done, *(f"cannot write {path}: File too large" for path in older))
    assert {path: path.read_bytes() for path in tmp_path.iterdir()} == older


@pytest.mark.parametrize("size", [0, 20_000])
def test_simulated_scan_above_the_file_size_limit_is_reported(tmp_path: Path, size: int) -> None:
    done = finished("simulate", tmp_path / "new.las", "--shots", "200", before=files_end_at(size))
    assert_error_line(done, f"cannot write {tmp_path / 'new.wdp'}: File too large")
    assert names(tmp_path) == []


@pytest.fixture
def small_disk(tmp_path: Path) -> Iterator[Path]:
    """A file system of 64 kB."""
    folder = tmp_path / "disk"
    folder.mkdir()
    if os.geteuid() != 0:
        pytest.skip("mounting needs root")
    mount = ["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", str(folder)]
    done = subprocess.run(mount, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        pytest.skip(f"cannot mount a file system: {done.stderr.strip()}")
    try:
        yield folder
    finally:
        subprocess.run(["umount", str(folder)], check=True)


def fill(disk: Path) -> None:
    with (disk / "filler").open("wb", buffering=0) as file:
        try:
            while file.write(b"x" * 4096):
                pass
        except OSError:
            return


@pytest.mark.parametrize("name", [name for name in OUTPUTS if name not in LARGE])
def test_full_disk_before_the_first_byte_is_reported(
    scan: Path, small_disk: Path, name: str
) -> None:
    fill(small_disk)
    output = small_disk / name
    done = finished(*call_of(scan, output))
    assert_error_line(done, f"cannot write {output}: No space left on device")
    assert names(small_disk) == ["filler"]


@pytest.mark.parametrize("name", LARGE)
def test_disk_full_during_the_run_is_reported(scan: Path, small_disk: Path, name: str) -> None:
    (small_disk / "filler").write_bytes(b"x" * 57_344)
    output = small_disk / name
    done = finished(*call_of(scan, output))
    assert_error_line(done, f"cannot write {output}: No space left on device")
    assert names(small_disk) == ["filler"]


def test_disk_full_during_a_simulation_is_reported(small_disk: Path) -> None:
    done = finished("simulate", small_disk / "new.las", "--shots", "200")
    assert_error_line(done, f"cannot write {small_disk / 'new.wdp'}: No space left on device")
    assert names(small_disk) == []


@pytest.mark.skipif(not Path("/dev/full").exists(), reason="no /dev/full")
@pytest.mark.parametrize(
    "call",
    [
        ("info", "SCAN"),
        ("report", "SCAN", "--waveform", "2"),
        ("extract", "SCAN", "-o", "OUT/echoes.csv"),
        ("simulate", "OUT/new.las", "--shots", "20"),
        ("convert", "SCAN", "OUT/scan.h5"),
        ("plot", "SCAN", "-o", "OUT/picture.png", "--waveform", "2"),
        ("--help",),
    ],
)
def test_full_standard_output_is_reported(
    scan: Path, tmp_path: Path, call: tuple[str, ...]
) -> None:
    placed = [word.replace("SCAN", str(scan)).replace("OUT", str(tmp_path)) for word in call]
    with Path("/dev/full").open("w", encoding="ascii") as full:
        done = finished(*placed, stdout=full)
    why = "No space left on device"
    assert_error_line(done, why, f"standard output: {why}")


@pytest.mark.parametrize(("name", "share"), [("a.zarr", 0.0), ("a.tif", 0.0), ("a.tif", 0.99)])
def test_volume_above_the_file_size_limit_is_reported(
    scan: Path, tmp_path: Path, name: str, share: float
) -> None:
    """The last part of a GeoTIFF is written when it is closed."""
    output = tmp_path / name
    call = ("voxels", scan, "-o", output, "--size", "1")
    assert run(*call).exit_code == 0
    before = {path: path.stat().st_mtime_ns for path in tmp_path.rglob("*")}
    limit = int(share * output.stat().st_size)
    done = finished(*call, "--overwrite", before=files_end_at(limit))
    assert done.returncode == 1
    assert done.stderr.splitlines()[-1].startswith(f"fullwaveform: cannot write {output}: ")
    assert {path: path.stat().st_mtime_ns for path in tmp_path.rglob("*")} == before
