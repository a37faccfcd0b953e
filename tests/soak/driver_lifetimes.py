"""Drivers that are built, work and go: what memory they leave behind.

Usage: driver_lifetimes.py ROUNDS    (prints bytes of the heap in use after each round, one a line)
"""

from __future__ import annotations

import ctypes
import gc
import sys

import numpy as np

from fullwaveform import Driver, Mode, Scanner

# Samples; every round has a driver of every mode for each, and each plans its own transforms.
LENGTHS = tuple(range(100, 1100, 50))
DRIVERS_OF_A_ROUND = len(Mode) * len(LENGTHS)
SAMPLING_INTERVAL = 1e-9  # s


class _HeapState(ctypes.Structure):
    """The C library's account of its heap."""

    _fields_ = tuple(
        (name, ctypes.c_size_t)
        for name in (
            *("arena", "ordblks", "smblks", "hblks", "hblkhd"),
            *("usmblks", "fsmblks", "uordblks", "fordblks", "keepcost"),
        )
    )


def heap_in_use() -> int:
    """Bytes that are allocated and not freed, large blocks included."""
    account = ctypes.CDLL(None).mallinfo2
    account.restype = _HeapState
    state = account()
    return int(state.uordblks + state.hblkhd)


def scanner() -> Scanner:
    """A scanner whose pulse is over within the twelve samples of the window."""
    decay, turn = 0.5 / SAMPLING_INTERVAL, 1.0 / (1.5 * SAMPLING_INTERVAL)  # 1/s
    wave = {
        "a_real": [1.0, -0.5, -0.5],
        "a_imag": [0.0, 0.0, 0.0],
        "b_real": [-decay, -decay, -decay],
        "b_imag": [0.0, turn, -turn],
    }
    plain = Scanner.default(SAMPLING_INTERVAL)
    return Scanner({**plain.attributes, **wave}, plain.after_pulse)


def records(length: int) -> np.ndarray:
    """Two records with an echo of 400 counts on 20 counts, (2, length)."""
    place = np.array([[0.3], [0.6]]) * length
    echo = 400.0 * np.exp(-0.5 * ((np.arange(length) - place) / 2.0) ** 2)
    return np.rint(20.0 + echo).astype(np.uint16)


def use_drivers(described: Scanner) -> None:
    """Build a driver of every mode for every length, have it work, and let it go."""
    for length in LENGTHS:
        for mode in Mode:
            driver = Driver(mode, described, longest_waveform=length)
            driver.apply(records(length), threshold=20)


def main(rounds: int) -> None:
    """Print the heap in use after each round."""
    described = scanner()
    for _ in range(rounds):
        use_drivers(described)
        gc.collect()
        print(heap_in_use(), flush=True)


if __name__ == "__main__":
    main(int(sys.argv[1]))
