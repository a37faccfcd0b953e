"""Time of Python `apply` relative to C++ `apply` on the same waveforms.

Usage: python_overhead.py MEASURE [FILE...]
MEASURE is the program fullwaveform_measure of the bench build; FILE is any file of waveforms, of
which those of the most frequent length are used. Without files, waveforms are constructed. Both
times include all steps from the samples to the release of the results.
"""

from __future__ import annotations

import sys
from functools import partial
from pathlib import Path

import numpy as np
from scenes import Samples, cpp_apply, fastest, scanner, waveforms

from fullwaveform import Driver
from fullwaveform.io.opening import open_waveforms

ROWS = 4000
THRESHOLD = {"constructed": 20, "file": 8}  # counts


def read_waveforms(path: Path) -> Samples:
    """At most `ROWS` waveforms of the most frequent length."""
    with open_waveforms(path) as reader:
        blocks = list(reader.blocks())
    counts = np.concatenate([block.counts for block in blocks])
    length = int(np.bincount(counts).argmax())
    rows = [block.samples[block.counts == length, :length] for block in blocks]
    return np.ascontiguousarray(np.concatenate(rows)[:ROWS])


def compare(program: Path, name: str, samples: Samples, threshold: int) -> None:
    """Print a line per mode."""
    rows, width = samples.shape
    flags = (np.arange(rows) % 2).astype(np.uint8)
    for mode in range(4):
        driver = Driver(mode, scanner(), longest_waveform=width)
        cpp = python = float("inf")
        for _ in range(8):
            measured = cpp_apply(program, samples, mode, threshold=threshold, runs=3)
            cpp = min(cpp, measured.with_release)
            work = partial(driver.apply, samples, channel_flags=flags, threshold=threshold)
            python = min(python, fastest(work))
        print(
            f"{name:24}  {mode:4}  {cpp / rows * 1e6:6.3f}  {python / rows * 1e6:9.3f}  "
            f"{python / cpp:5.2f}  {1e-3 * rows / python:21.1f}"
        )


def main(program: Path, files: list[Path]) -> None:
    """Print the ratios."""
    print("waveforms                 mode  C++ us  Python us  ratio  thousand/s with Python")
    for path in files:
        compare(program, path.name, read_waveforms(path), THRESHOLD["file"])
    if not files:
        for width, echoes in ((80, 2), (400, 6)):
            samples = waveforms(ROWS, width, echoes)
            name = f"{width} samples, {echoes} echoes"
            compare(program, name, samples, THRESHOLD["constructed"])


if __name__ == "__main__":
    main(Path(sys.argv[1]), [Path(name) for name in sys.argv[2:]])
