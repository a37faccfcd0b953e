"""Coordinates stored as 32-bit numbers of steps from an offset."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import numpy.typing as npt

from fullwaveform.data.errors import WaveformFileError

_MOST_STEPS = 2.0**31


def check_coordinates(scales: npt.ArrayLike, offsets: npt.ArrayLike, path: Path) -> None:
    """WaveformFileError if a scale is 0 or not all coordinates, three axes each, are finite."""
    scale, offset = np.asarray(scales, np.float64), np.asarray(offsets, np.float64)
    with np.errstate(over="ignore", invalid="ignore"):
        farthest = np.abs(scale) * _MOST_STEPS + np.abs(offset)
    if not (np.isfinite(farthest) & (scale != 0)).all():
        raise WaveformFileError(
            f"{path}: scales {scale} and offsets {offset} of the coordinates must be finite, "
            "scales not 0, and so must be what they make of 32-bit numbers"
        )
