"""Shots per second of the metrics, on one core, with and without reading the file.

python bench/waveform_metrics.py
"""

from __future__ import annotations

import argparse
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.data.blocks import (
    OutgoingPulses,
    PulseGeometry,
    ShotAttributes,
    WaveformBlock,
)
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.opening import open_waveforms
from fullwaveform.waveform_metrics.pipeline import block_metrics, measured_run
from fullwaveform.waveform_metrics.settings import MetricsSettings
from fullwaveform.waveform_metrics.table import MetricsRun, MetricsTable

_OUTGOING = 64  # samples
_REPEATS = 3


def scene(shots: int, width: int, with_outgoing: bool) -> WaveformBlock:
    """Ground and a canopy 10 to 25 samples above it, on a baseline of 200 counts with noise."""
    random = np.random.default_rng(1)
    x = np.arange(width)
    ground = 0.6 * width + random.uniform(-5.0, 5.0, (shots, 1))
    canopy = ground - random.uniform(10.0, 25.0, (shots, 1))
    samples = 200.0 + random.normal(0.0, 2.0, (shots, width))
    samples += 300.0 * np.exp(-0.5 * ((x - ground) / 6.0) ** 2)
    samples += random.uniform(20.0, 150.0, (shots, 1)) * np.exp(-0.5 * ((x - canopy) / 7.0) ** 2)
    zero, byte = np.zeros(shots), np.zeros(shots, np.uint8)
    interval = np.full(shots, 1e-9)
    outgoing = None
    if with_outgoing:
        place = 25.0 + random.uniform(-1.0, 1.0, (shots, 1))
        pulses = 20.0 + 600.0 * np.exp(-0.5 * ((np.arange(_OUTGOING) - place) / 5.0) ** 2)
        counts = np.full(shots, _OUTGOING, np.uint16)
        outgoing = OutgoingPulses(np.rint(pulses).astype(np.uint16), counts, interval, zero)
    direction = np.tile([0.0, 0.0, 0.00015], (shots, 1))
    return WaveformBlock(
        samples=np.rint(samples).astype(np.uint16),
        counts=np.full(shots, width, np.uint16),
        shot_times=np.arange(shots, dtype=np.float64),
        sbl_times=zero,
        channel_flags=byte,
        sampling_intervals=interval,
        geometry=PulseGeometry(np.zeros((shots, 3)), zero, direction),
        attributes=ShotAttributes(
            zero, zero.astype(np.float32), byte, byte, byte, zero.astype(np.uint16)
        ),
        waveform_numbers=np.arange(shots),
        outgoing=outgoing,
    )


def best_time(work: Callable[[], object]) -> float:
    """Shortest processor time of some calls, s."""
    work()  # fills the tables of shapes
    times = []
    for _ in range(_REPEATS):
        start = time.process_time()
        work()
        times.append(time.process_time() - start)
    return min(times)


def from_file(path: Path) -> None:
    """Read a file and compute its metrics."""
    with open_waveforms(path) as reader:
        run = measured_run(reader, MetricsSettings())
        for _ in block_metrics(reader.blocks(), run):
            pass


def main() -> None:
    """Print a row for each length of waveforms."""
    argparse.ArgumentParser(description=__doc__).parse_args()
    print("samples  outgoing  shots/s computed  shots/s with reading")
    for width, shots in ((100, 40_000), (1000, 5_000)):
        for with_outgoing in (False, True):
            block = scene(shots, width, with_outgoing)
            run = MetricsRun(MetricsSettings(), Calibration(measure_levels([block])))
            computed = best_time(lambda block=block, run=run: MetricsTable.of(block, run))
            with tempfile.TemporaryDirectory() as folder:
                path = Path(folder) / "scan.h5"
                with ScanContainerWriter(path, None, None) as writer:
                    writer.write(block)
                read = best_time(lambda path=path: from_file(path))
            rates = f"{shots / computed:16,.0f}  {shots / read:20,.0f}"
            print(f"{width:7}  {with_outgoing!s:8}  {rates}")


if __name__ == "__main__":
    main()
