"""Limits and reasons of rejection that the readers of all formats share."""

from __future__ import annotations

import numpy as np

from fullwaveform.core.driver import MAX_COUNT
from fullwaveform.data.arrays import FloatArray, IntArray

MAX_SAMPLES = MAX_COUNT  # of a waveform
DEFAULT_MAX_SAMPLES = 8192  # of a readable waveform; damaged counts are mostly larger
BLOCK_SAMPLES = 1 << 22  # of a block, padding included: 8 MiB, which extraction multiplies
SURVEY_CHUNK = 1 << 17  # points, pulses or rows that are read at a time before the first block

NO_SAMPLES = "waveform without samples"
NO_TIME = "GPS time not finite"
OUTSIDE = "samples outside the file"


def too_long(max_samples: int) -> str:
    """The reason for a waveform with more samples than a reader accepts."""
    return f"waveform of more than {max_samples} samples (--max-samples)"


def checked_max_samples(value: int) -> int:
    """The largest number of samples of a readable waveform; ValueError if it is invalid."""
    is_integer = isinstance(value, int | np.integer) and not isinstance(value, bool)
    if not is_integer or not 1 <= value <= MAX_SAMPLES:
        raise ValueError(f"invalid max_samples {value!r}; expected an integer, 1 to {MAX_SAMPLES}")
    return int(value)


_FIRST_SHOT_KEY = -(2.0**52)  # far below any time; the 2**52 integers from it on are doubles


def numbered_shots(numbers: IntArray) -> FloatArray:
    """Shot times that identify shots by their numbers (n,), where times do not."""
    keys: FloatArray = numbers.astype(np.float64) + _FIRST_SHOT_KEY
    return keys
