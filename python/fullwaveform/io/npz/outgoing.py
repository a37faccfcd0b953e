"""Outgoing pulses of NumPy archives."""

from __future__ import annotations

from pathlib import Path

import numpy as np

from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.array_reader import OutgoingArrays
from fullwaveform.io.limits import MAX_SAMPLES
from fullwaveform.io.npz.arrays import Arrays, load_arrays

OUTGOING_SAMPLES = "out_samples"
_COUNTS = ("out_counts", "out_count")
_DURATION, _INTERVAL, _SHOT_ID = "out_t0_s", "out_sampling_interval_s", "out_shot_id"
_KEYS = frozenset({OUTGOING_SAMPLES, *_COUNTS, _DURATION, _INTERVAL, _SHOT_ID})


def load_outgoing(
    path: Path, shot_ids: IntArray | None, intervals: FloatArray, memory_limit: int
) -> OutgoingArrays:
    """The outgoing pulse of each waveform.

    The rows of ``out_samples`` are those of the waveforms or, with ``out_shot_id``, one per shot.

    Parameters
    ----------
    path : of the archive
    shot_ids : (n,) number of the shot of each waveform; None if the archive has none
    intervals : (n,) sampling interval of each waveform, s; also that of its outgoing pulse, unless
        the archive has another one for these
    memory_limit : maximum size of the arrays in bytes

    Raises
    ------
    WaveformFileError
        If an array is invalid, or the pulses cannot be assigned to the waveforms.
    """
    arrays = load_arrays(path, _KEYS, memory_limit)
    samples = _samples(arrays, path)
    pulses, total = len(samples), len(intervals)
    row = _row_of_waveform(arrays, shot_ids, total, path)
    has_pulse = row >= 0
    name = next((key for key in _COUNTS if key in arrays), _COUNTS[0])
    counts = _column(arrays, name, pulses, samples.shape[1], path)
    if counts.dtype.kind not in "ui" or (counts.size and counts.min() < 0):
        raise WaveformFileError(f"{path}: {name} must be integers of at least 0")
    duration = _column(arrays, _DURATION, pulses, 0.0, path)
    own_interval = _column(arrays, _INTERVAL, pulses, np.nan, path)[row]
    return OutgoingArrays(
        samples=samples[row],
        counts=np.where(has_pulse, counts[row], 0),
        sampling_intervals=np.where(np.isnan(own_interval), intervals, own_interval),
        durations=duration[row].astype(np.float64),
    )


def _samples(arrays: Arrays, path: Path) -> AnyArray:
    samples = arrays[OUTGOING_SAMPLES]
    valid = samples.ndim == 2 and len(samples) > 0 and samples.dtype.kind in "ui"
    if not valid or samples.shape[1] > MAX_SAMPLES:
        raise WaveformFileError(
            f"{path}: invalid {OUTGOING_SAMPLES} of type {samples.dtype} and shape "
            f"{samples.shape}; must be integers of shape (n, width) with a width of at most "
            f"{MAX_SAMPLES}"
        )
    if samples.size and not (samples.min() >= 0 and samples.max() <= MAX_COUNT):
        raise WaveformFileError(
            f"{path}: {OUTGOING_SAMPLES} has values from {samples.min()} to {samples.max()}; must "
            f"be 0 to {MAX_COUNT}"
        )
    return samples.astype(np.uint16)


def _row_of_waveform(arrays: Arrays, shot_ids: IntArray | None, total: int, path: Path) -> IntArray:
    """Row of the outgoing pulse of each waveform, -1 without one."""
    pulses = len(arrays[OUTGOING_SAMPLES])
    if _SHOT_ID not in arrays or shot_ids is None:
        if pulses != total:
            raise WaveformFileError(
                f"{path}: {pulses} rows of {OUTGOING_SAMPLES} for {total} waveforms; must be "
                f"equal, or the archive must have shot_id and {_SHOT_ID}"
            )
        return np.arange(total)
    known = _column(arrays, _SHOT_ID, pulses, 0, path)
    shots, first = np.unique(known, return_index=True)
    at = np.minimum(np.searchsorted(shots, shot_ids), len(shots) - 1)
    return np.where(shots[at] == shot_ids, first[at], -1)


def _column(arrays: Arrays, key: str, pulses: int, missing: float, path: Path) -> AnyArray:
    """The array of a key, one number or one per pulse; `missing` without it."""
    array = arrays.get(key, np.asarray(missing))
    if array.shape not in ((), (pulses,)):
        raise WaveformFileError(
            f"{path}: {key} has shape {array.shape}; expected ({pulses},) for the {pulses} rows "
            f"of {OUTGOING_SAMPLES}"
        )
    return np.broadcast_to(array, (pulses,))
