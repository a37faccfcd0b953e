"""The largest count that a digitiser can store, from the waveforms that reach it."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import UInt16Array

# At this many samples an unclipped pulse differs by more than its rounding, unless it is very weak.
_RUN = 3
_MIN_BITS = 8  # of a digitiser


@dataclass(frozen=True, slots=True)
class TopSamples:
    """Largest sample of some waveforms, and how many of these waveforms stay at it."""

    largest: int  # counts
    flat_waveforms: int  # with at least three consecutive samples at it


def top_samples(samples: UInt16Array) -> TopSamples:
    """The largest of the samples (n, count), whose rows are valid over their whole length."""
    largest = int(samples.max(initial=0))
    rows = samples[(samples == largest).any(axis=1)] == largest
    runs = np.ones(rows.shape, np.bool_)[:, _RUN - 1 :]
    for step in range(_RUN):
        runs &= rows[:, step : step + runs.shape[1]]
    return TopSamples(largest, int(runs.any(axis=1).sum()))


def digitiser_limit(parts: Iterable[TopSamples]) -> int | None:
    """Count at which the waveforms of a receiver are clipped; None if none is.

    That is their largest sample, if at least two waveforms stay at it for three samples. One is
    enough if it is the largest number of 8 bits or more, where digitisers end.
    """
    known = list(parts)
    largest = max((part.largest for part in known), default=0)
    flat = sum(part.flat_waveforms for part in known if part.largest == largest)
    bits = (largest + 1).bit_length() - 1
    is_full_scale = largest + 1 == 1 << bits and bits >= _MIN_BITS
    return largest if flat >= (1 if is_full_scale else 2) else None
