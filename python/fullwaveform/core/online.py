"""Echoes that the scanner extracted on board, grouped by shot."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform import _core
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.checks import checked_column, checked_flags, checked_times
from fullwaveform.data.columns import Columns


def evaluate_online(
    scanner: Scanner,
    shot_times: npt.ArrayLike,
    ranges: npt.ArrayLike,
    amplitudes: npt.ArrayLike | None = None,
    channel_flags: npt.ArrayLike | None = None,
    reflectances: npt.ArrayLike | None = None,
) -> Columns:
    """Group on-board echoes by shot, in ascending shot time and nearest first.

    Parameters
    ----------
    scanner : supplies the group velocity
    shot_times : (n,) s; equal times make one shot
    ranges : (n,) m, one way
    amplitudes, reflectances : (n,), optional, rounded to single precision, otherwise unchanged.
        Default: NaN
    channel_flags : (n,) 0 or 1, optional; a shot has the flag of its nearest echo. Default: 1

    Returns
    -------
    Columns ``shotTime`` (s), ``isLowPower``, ``amplitude``, ``time`` (s, two-way travel time),
    ``type``, ``reflectance``

    Raises
    ------
    ValueError
        Wrong length or type, or a NaN time.
    """
    times = np.asarray(shot_times)
    rows = len(times) if times.ndim == 1 else 0
    raw = _core.evaluate_online(
        scanner.device(),
        checked_times(times, "shot_times", rows),
        checked_times(ranges, "ranges", rows),
        _single(amplitudes, "amplitudes", rows),
        checked_flags(np.ones(rows, np.uint8) if channel_flags is None else channel_flags, rows),
        _single(reflectances, "reflectances", rows),
    )
    forward_messages()
    return Columns(raw)


def _single(values: npt.ArrayLike | None, name: str, rows: int) -> npt.NDArray[np.float32]:
    array = checked_column(np.full(rows, np.nan) if values is None else values, name, rows)
    if array.dtype.kind not in "fiu":
        raise ValueError(f"{name} must be numbers, not {array.dtype}")
    return np.ascontiguousarray(array, dtype=np.float32)
