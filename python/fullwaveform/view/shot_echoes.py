"""Echoes per shot."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import AnyArray

_LARGEST = 255
_CHUNK = 1 << 20  # echoes of which intermediate results are in memory


def echoes_of_shots(waveforms: AnyArray, shots: AnyArray) -> tuple[AnyArray, AnyArray]:
    """Echoes of each shot (k,), and of the shot of each echo (n,); uint8, limited to 255.

    waveforms : (n,) waveform of each echo; from m on it is unknown, with 0 echoes in its shot
    shots : (m,) shot of each waveform, from 0 to k - 1
    """
    counts = np.zeros(int(shots[-1]) + 1 if len(shots) else 0, np.uint32)
    np.add.at(counts, shots, occurrences(waveforms, len(shots)))
    of_shots = np.minimum(counts, _LARGEST).astype(np.uint8)
    of_echoes = np.zeros(len(waveforms), np.uint8)
    for start in range(0, len(waveforms), _CHUNK):
        part = waveforms[start : start + _CHUNK]
        known = np.flatnonzero(part < len(shots))
        of_echoes[start + known] = of_shots[shots[part[known]]]
    return of_shots, of_echoes


def occurrences(numbers: AnyArray, count: int) -> AnyArray:
    """How often each number below `count` occurs (count,), uint32; others are not counted."""
    found = np.zeros(count, np.uint32)
    for start in range(0, len(numbers), _CHUNK):
        part = numbers[start : start + _CHUNK]
        np.add.at(found, part[part < count], np.uint32(1))
    return found
