"""Inputs of several blocks, and the tables to compare."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import numpy as np
import pyarrow as pa
import pyarrow.parquet

from fullwaveform.cluster import read_parts
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.join import collect
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import run
from ..support.compressed_scenes import Compression, write_compressed
from ..support.pulsewaves_scenes import Descriptor, Pulse, Sampling, Scene


def las_scan(path: Path, shots: int = 300, seed: int = 5) -> Path:
    """Two channels, empty shots, points without waveform."""
    return write_scan(simulate_scan(ScanSettings(shots=shots, seed=seed)), path).las


def pulsewaves_scan(path: Path, pulses: int = 150) -> Path:
    """Pulses of one to three segments with one echo each, every tenth flat."""
    return _pulses(pulses).write(path)


def compressed_scan(path: Path) -> Path:
    """The pulses of `pulsewaves_scan`, compressed in chunks of 30."""
    return write_compressed(_pulses(150), path, Compression(sizes=30))


def _pulses(pulses: int) -> Scene:
    rng = np.random.default_rng(3)
    sampling = Sampling(duration_bits=32, segment_bits=8, count_bits=8)
    time = np.arange(40)
    found = []
    for number in range(pulses):
        height = 0.0 if number % 10 == 0 else 150.0
        segments = []
        for segment in range(rng.integers(1, 4)):
            centre, width = rng.uniform(10.0, 30.0), rng.uniform(1.5, 3.0)
            pulse = 5.0 + height * np.exp(-0.5 * ((time - centre) / width) ** 2)
            noisy = np.rint(pulse + rng.uniform(-1.0, 1.0, len(time)))
            segments.append((100 * segment, noisy.astype(int).tolist()))
        found.append(Pulse([segments], time=1_000 * number, anchor=(number, 2 * number, 0)))
    return Scene([Descriptor(1, [sampling])], found)


def single_run(source: Path, output: Path, *options: str) -> pa.Table:
    """The table that extract writes, without a column of points."""
    result = run("extract", source, "-o", output, "-q", *options)
    assert result.exit_code == 0, result.output
    table = pyarrow.parquet.read_table(output)
    return table.drop_columns("geometry") if "geometry" in table.column_names else table


def parts_table(folder: Path) -> pa.Table:
    """The parts, concatenated."""
    return pa.concat_tables(read_parts(folder))


def manifest_of(folder: Path) -> dict[str, Any]:
    """The manifest as plain JSON."""
    content: dict[str, Any] = json.loads((folder / "manifest.json").read_text(encoding="utf-8"))
    return content


def states(folder: Path) -> dict[str, str]:
    """State of each part by the name of its file, also while the run goes on."""
    manifest = JobFolder(folder).read_manifest()
    collect(manifest.parts, JobFolder(folder))
    return {part.file: part.state for part in manifest.parts}


def done_parts(folder: Path) -> int:
    """Number of finished parts."""
    return list(states(folder).values()).count("done")


def times(folder: Path) -> dict[str, int]:
    """Modification time of each part."""
    found = folder.glob("*.part-*")
    return {path.name: path.stat().st_mtime_ns for path in found}


def table_lines(stdout: str) -> list[str]:
    """The rows of a summary without the time and without frames."""
    rows = [line.split("│") for line in stdout.splitlines() if line.count("│") == 4]
    cells = [[cell.strip() for cell in row[1:4]] for row in rows]
    return [" | ".join(row) for row in cells if row[0] != "time"]
