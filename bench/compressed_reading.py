"""Time for reading a compressed PulseWaves file, and the uncompressed file of the same pulses.

    python bench/compressed_reading.py COMPRESSED UNCOMPRESSED [--runs N]

Reads all blocks of both files in turn, in one thread, and prints pulses per second and the ratio:
minimum processor time of the thread, opening and surveying included.
"""

from __future__ import annotations

import argparse
import time
from pathlib import Path

from fullwaveform.io.opening import open_waveforms


def seconds(path: Path) -> tuple[float, int]:
    """Processor time for reading the file, and its pulses."""
    started = time.thread_time()
    with open_waveforms(path) as reader:
        for _ in reader.blocks():
            pass
    return time.thread_time() - started, reader.point_count


def main() -> None:
    """Prints one line per file and the ratio."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", type=Path, nargs=2)
    parser.add_argument("--runs", type=int, default=30)
    options = parser.parse_args()
    times = [[seconds(path) for path in options.files] for _ in range(options.runs)]
    fastest = [min(column) for column in zip(*times, strict=True)]
    for path, (least, pulses) in zip(options.files, fastest, strict=True):
        print(f"{path.name:24} {1e3 * least:8.1f} ms {pulses / least:10,.0f} pulses/s")
    print(f"ratio {fastest[0][0] / fastest[1][0]:.2f}")


if __name__ == "__main__":
    main()
