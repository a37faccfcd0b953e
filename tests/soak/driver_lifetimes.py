"""Heap in use after creating, using and destroying drivers.

Usage: driver_lifetimes.py ROUNDS    (prints the bytes in use after each round, one per line)
"""

from __future__ import annotations

import ctypes
import gc
import sys

import numpy as np

from fullwaveform import Driver, Scanner
from fullwaveform.core.driver import DRIVER_MODES

# Samples; every round creates a driver per mode and length, each with its own transforms.
LENGTHS = tuple(range(100, 1100, 50))
DRIVERS_PER_ROUND = len(DRIVER_MODES) * len(LENGTHS)
SAMPLING_INTERVAL = 1e-9  # s


class _HeapState(ctypes.Structure):
    """Heap statistics of the C library."""

    _fields_ = tuple(
        (name, ctypes.c_size_t)
        for name in (
            *("arena", "ordblks", "smblks", "hblks", "hblkhd"),
            *("usmblks", "fsmblks", "uordblks", "fordblks", "keepcost"),
        )
    )


def heap_in_use() -> int:
    """Allocated bytes, including large blocks."""
    mallinfo = ctypes.CDLL(None).mallinfo2
    mallinfo.restype = _HeapState
    state = mallinfo()
    return int(state.uordblks + state.hblkhd)


def scanner() -> Scanner:
    """A scanner whose pulse ends within the twelve samples of the window."""
    decay, frequency = 0.5 / SAMPLING_INTERVAL, 1.0 / (1.5 * SAMPLING_INTERVAL)  # 1/s
    wave = {
        "a_real": [1.0, -0.5, -0.5],
        "a_imag": [0.0, 0.0, 0.0],
        "b_real": [-decay, -decay, -decay],
        "b_imag": [0.0, frequency, -frequency],
    }
    plain = Scanner.default(SAMPLING_INTERVAL)
    return Scanner({**plain.attributes, **wave}, plain.after_pulse)


def waveforms(length: int) -> np.ndarray:
    """Two waveforms with an echo of 400 counts on a baseline of 20 counts, (2, length)."""
    position = np.array([[0.3], [0.6]]) * length
    echo = 400.0 * np.exp(-0.5 * ((np.arange(length) - position) / 2.0) ** 2)
    return np.rint(20.0 + echo).astype(np.uint16)


def use_drivers(description: Scanner) -> None:
    """Create, use and destroy a driver of every mode for every length."""
    for length in LENGTHS:
        for mode in DRIVER_MODES:
            driver = Driver(mode, description, longest_waveform=length)
            driver.apply(waveforms(length), threshold=20)


def main(rounds: int) -> None:
    """Print the heap in use after each round."""
    description = scanner()
    for _ in range(rounds):
        use_drivers(description)
        gc.collect()
        print(heap_in_use(), flush=True)


if __name__ == "__main__":
    main(int(sys.argv[1]))
