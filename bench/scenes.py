"""Waveforms for the Python benchmarks, and the C++ driver on the same waveforms."""

from __future__ import annotations

import subprocess
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt

from fullwaveform import Scanner

Samples = npt.NDArray[np.uint16]


def waveforms(rows: int, samples: int, echoes: int, seed: int = 1) -> Samples:
    """Evenly spread echoes of 60 to 460 counts on a baseline of 14 counts: (rows, samples)."""
    rng = np.random.default_rng(seed)
    x = np.arange(samples)
    signal = 14.0 + rng.normal(0, 1, (rows, samples))
    for echo in range(echoes):
        centre = (echo + 0.5 + 0.3 * rng.uniform(-0.5, 0.5, (rows, 1))) * samples / echoes
        amplitude, width = rng.uniform(60, 460, (rows, 1)), rng.uniform(2, 3, (rows, 1))
        signal += amplitude * np.exp(-0.5 * ((x - centre) / width) ** 2)
    return np.clip(np.rint(signal), 0, 4095).astype(np.uint16)


def scanner() -> Scanner:
    """The scanner of the C++ programs: its pulse is exp(-t/4) (1 - cos(t/2)), t in ns."""
    attributes = {
        **Scanner.default(1e-9).attributes,
        "a_real": [1.0, -0.5, -0.5],
        "a_imag": [0.0, 0.0, 0.0],
        "b_real": [-0.25e9] * 3,
        "b_imag": [0.0, 0.5e9, -0.5e9],
    }
    return Scanner(attributes)


@dataclass(frozen=True)
class Measured:
    """C++ `apply`: minimum thread time in s, mean wall time in s, memory in bytes."""

    apply: float
    with_release: float
    memory: float  # heap memory of the result
    wall: float  # with release


def cpp_apply(
    program: Path,
    samples: Samples,
    mode: int,
    *,
    per_shot: int = 1,
    threshold: int = -1,
    runs: int = 5,
    threads: int = 1,
    processes: int = 1,
) -> Measured:
    """Run the C++ driver on the samples, in separate processes.

    Processes run concurrently; returns the one with the longest wall time.
    """
    with tempfile.NamedTemporaryFile() as file:
        samples.tofile(file.name)
        numbers = (*samples.shape, per_shot, mode, threshold, runs, threads)
        command = [program, file.name, *map(str, numbers)]
        running = [
            subprocess.Popen(command, stdout=subprocess.PIPE, text=True) for _ in range(processes)
        ]
        outputs = [process.communicate()[0] for process in running]
    for process in running:
        if process.returncode != 0:
            raise subprocess.CalledProcessError(process.returncode, command)
    return max(
        (Measured(*map(float, text.split())) for text in outputs),
        key=lambda measured: measured.wall,
    )


def fastest(work: Callable[[], object], runs: int = 5) -> float:
    """Minimum thread time in seconds; other programs do not affect it."""
    times = []
    for _ in range(runs):
        start = time.thread_time()
        work()
        times.append(time.thread_time() - start)
    return min(times)
