"""Uses the installed package on every format, in every mode and by every command.

Usage: every_format.py FOLDER    (an empty folder; `support` of the Python tests can be imported)

Needs the packages of all extras and, intentionally, no compiler, FFTW or test runner: it runs where
a wheel was installed.
"""

from __future__ import annotations

import ctypes.util
import json
import shutil
import signal
import subprocess
import sys
from collections.abc import Sequence
from dataclasses import replace
from pathlib import Path
from urllib.request import urlopen

import numpy as np
import pyarrow.parquet as pq

import fullwaveform as fw
from fullwaveform.data.columns import take_rows
from support.compressed_scenes import Compression, write_compressed
from support.hdf5_scenes import as_gedi, as_lvis
from support.las_scenes import compressed
from support.pulsewaves_scenes import of_waveforms
from support.row_scenes import arrays_of
from support.web_server import ServedFile, serving

PROGRAM = Path(sys.executable).with_name("fullwaveform")
MODES = ("three-point", "decomposition", "deconvolution", "hybrid", "pulse-fit")
OUTPUTS = ("las", "laz", "parquet", "csv", "h5", "txt")
HIGH = ("--channel", "2=high")


def run(*call: str | Path) -> str:
    """Call the installed command and return what it prints; end if it fails."""
    words = [str(PROGRAM), *map(str, call)]
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(f"{' '.join(words)}\n{done.stdout}{done.stderr}")
    return done.stdout


def echoes_of(scan: Path, *options: str | Path, output: str = "parquet") -> Path:
    """Extract the echoes of a file to a new file."""
    target = scan.with_name(f"{scan.stem}_{scan.suffix[1:]}_{len(list(scan.parent.iterdir()))}")
    target = target.with_suffix(f".{output}")
    summary = json.loads(run("extract", scan, "-o", target, "--json", *options))
    assert target.stat().st_size > 0
    assert summary["written"] > 100, summary
    return target


def positions(path: Path) -> list[float]:
    """Column of a Parquet file of echoes, in order."""
    return sorted(pq.read_table(path)["position"].to_pylist())


def write_scans(folder: Path) -> tuple[list[Path], list[Path]]:
    """One scan of two channels in three formats, and its low channel in all that have one."""
    las = folder / "scan.las"
    run("simulate", las, "--shots", "200", "--seed", "4", "--point-format", "4")
    run("convert", las, folder / "scan.h5", *HIGH)
    both = [las, compressed(las, folder / "packed.laz"), folder / "scan.h5"]

    with fw.open(las, channel_flags={1: 1, 2: 0}) as reader:
        (block,) = reader.blocks()
    block = take_rows(replace(block, returns=None), np.flatnonzero(block.channel_flags == 1))
    times = 198_800_018.0 + np.arange(len(block)) / 256.0
    block = replace(block, attributes=replace(block.attributes, gps_time=times), shot_times=times)
    np.savez(folder / "low.npz", **arrays_of(block))
    np.save(folder / "low.npy", block.samples)
    halves = [take_rows(block, half) for half in np.array_split(np.arange(len(block)), 2)]
    single = [
        folder / "low.npz",
        folder / "low.npy",
        of_waveforms(block).write(folder / "low.pls"),
        write_compressed(of_waveforms(block), folder / "packed_pulses.plz", Compression(sizes=30)),
        as_gedi(halves, folder / "gedi.h5", ["BEAM0001", "BEAM1000"]),
        as_lvis(halves, folder / "lvis.h5"),
    ]
    return both, single


def check_inputs(both: Sequence[Path], single: Sequence[Path]) -> None:
    """The same waveforms give the same echoes from every format."""
    expected = positions(echoes_of(both[0], *HIGH))
    for scan in both[1:]:
        options = () if scan.suffix == ".h5" else HIGH
        assert positions(echoes_of(scan, *options)) == expected, scan
    options = ("--threshold", "20", "--smoothing", "0")  # GEDI is smoothed by default
    expected = positions(echoes_of(single[0], *options))
    for scan in single[1:]:
        interval = ("--interval", "1") if scan.suffix == ".npy" else ()
        found = positions(echoes_of(scan, *options, *interval))
        assert found == expected, scan
    for scan in (*both, *single):
        run("info", scan, *(("--interval", "1") if scan.suffix == ".npy" else ()))


def check_modes_and_outputs(scan: Path) -> None:
    """Every mode, with a measured system wave and pulse, and every format of echoes."""
    folder = scan.parent
    wave, pulse = folder / "wave.toml", folder / "pulse.toml"
    run("system-wave", scan, "-o", wave, "--plot", folder / "wave.pdf")
    run("pulse-model", scan, "-o", pulse, *HIGH)
    for mode in MODES:
        description = pulse if mode == "pulse-fit" else wave
        echoes_of(scan, "--mode", mode, "--scanner", description, *HIGH)
    for output in OUTPUTS:
        found = echoes_of(scan, *HIGH, "--workers", "2", output=output)
        if output != "txt":
            run("compare", scan, found)
    plots = [word for mode in MODES[:4] for word in ("--mode", mode)]
    for ending in ("png", "pdf", "svg"):
        output = folder / f"plot.{ending}"
        run("plot", scan, "--waveform", "2", "-o", output, "--scanner", wave, *plots)
        assert output.stat().st_size > 1000
    assert "Peaks: " in run("report", scan, "--waveform", "2")


def check_other_commands(scan: Path) -> None:
    """Tables, volumes and the cluster."""
    folder = scan.parent
    for ending in ("parquet", "csv", "h5"):
        run("metrics", scan, "-o", folder / f"metrics.{ending}", "--smoothing", "2", *HIGH)
    run("pulses", scan, "-o", folder / "pulses.parquet", *HIGH)
    run("voxels", scan, "-o", folder / "volume.zarr", "--size", "2", *HIGH)
    run("voxels", scan, "-o", folder / "volume.tif", "--size", "2", *HIGH)
    parts = folder / "parts"
    run("cluster", scan, "-o", parts, "--scheduler", "local", "--workers", "2", *HIGH)
    whole = positions(echoes_of(scan, *HIGH))
    in_parts = [one for part in parts.glob("*.parquet") for one in positions(part)]
    assert sorted(in_parts) == whole


def check_remote(scan: Path) -> None:
    """A scan and its samples at a web server."""
    target = scan.with_name("remote.parquet")
    with serving() as server:
        for path in (scan, scan.with_suffix(".wdp")):
            server.files[path.name] = ServedFile.of(path.read_bytes())
        run("extract", server.url(scan.name), "-o", target, *HIGH)
    assert positions(target) == positions(echoes_of(scan, *HIGH))


def check_view(scan: Path) -> None:
    """The viewer serves its page until it is ended."""
    call = [PROGRAM, "view", scan, *HIGH, "--no-browser"]
    with subprocess.Popen(
        call, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    ) as viewer:
        assert viewer.stdout is not None
        try:
            with urlopen(viewer.stdout.readline().strip(), timeout=60.0) as answer:
                assert answer.status == 200
        finally:
            viewer.terminate()  # in the background of a shell SIGINT is ignored
            try:
                _, errors = viewer.communicate(timeout=60.0)
            except subprocess.TimeoutExpired:
                viewer.kill()
                raise
    assert viewer.returncode == 128 + signal.SIGTERM, errors


def check_python(scan: Path) -> None:
    """The Python interface, on a file and on arrays."""
    found = fw.extract(scan, mode=1, channel_flags={1: 1, 2: 0})
    assert len(found.to_pandas()) == len(found.to_arrow()) > 100
    samples = np.full((2, 80), 5, np.uint16)
    samples[0, 30:33] = 40, 80, 40
    samples[1, 50:53] = 40, 80, 80
    driver = fw.Driver(fw.Mode.THREE_POINT, fw.Scanner.default(sampling_interval=1e-9))
    # 40, 80, 40 peaks on its middle sample, and 40, 80, 80 half-way between the equal ones.
    assert driver.apply(samples, threshold=10).peaks["idx"].tolist() == [31.0, 51.5]


def check_machine() -> None:
    """Neither compilers nor the libraries that the wheel contains or leaves out are installed."""
    for program in ("cc", "gcc", "g++", "c++", "clang", "cmake"):
        assert shutil.which(program) is None, program
    for library in ("fftw3", "cairo"):
        assert ctypes.util.find_library(library) is None, library


def main() -> None:
    """Run all checks in the folder of the call."""
    folder = Path(sys.argv[1])
    check_machine()
    both, single = write_scans(folder)
    check_inputs(both, single)
    check_modes_and_outputs(both[0])
    check_other_commands(both[0])
    check_remote(both[0])
    check_view(both[0])
    check_python(both[0])
    print(f"{len(both) + len(single)} inputs, {len(OUTPUTS)} outputs, {len(MODES)} modes: passed")


if __name__ == "__main__":
    main()
