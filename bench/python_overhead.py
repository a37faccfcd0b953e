"""Python `apply` against C++ `apply` on the same waveforms, in turn, as ratios.

Usage: python_overhead.py MEASURE    (MEASURE: the program fullwaveform_measure of the bench build)
Both times hold the whole way from samples to released results.
"""

from __future__ import annotations

import sys
from functools import partial
from pathlib import Path

import numpy as np
from scenes import cpp_apply, fastest, waveforms

from fullwaveform import Driver, Scanner

ROWS = 4000


def main(program: Path) -> None:
    """Prints the ratios."""
    print("mode  samples  echoes  C++ us  Python us  ratio")
    for mode in (0, 1):
        for width, echoes in ((80, 2), (400, 6)):
            samples = waveforms(ROWS, width, echoes)
            driver = Driver(mode, Scanner.default(1e-9))
            flags = (np.arange(ROWS) % 2).astype(np.uint8)
            cpp = python = float("inf")
            for _ in range(8):
                cpp = min(cpp, cpp_apply(program, samples, mode, runs=3).with_release)
                python = min(python, fastest(partial(driver.apply, samples, channel_flags=flags)))
            print(
                f"{mode:4}  {width:7}  {echoes:6}  {cpp / ROWS * 1e6:6.3f}  "
                f"{python / ROWS * 1e6:9.3f}  {python / cpp:5.2f}"
            )


if __name__ == "__main__":
    main(Path(sys.argv[1]))
