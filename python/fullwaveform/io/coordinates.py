"""Coordinates stored as 32-bit multiples of a scale, relative to an offset."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import numpy.typing as npt

from fullwaveform.data.errors import WaveformFileError

_MAX_MULTIPLE = 2.0**31


def check_coordinates(scales: npt.ArrayLike, offsets: npt.ArrayLike, path: Path) -> None:
    """WaveformFileError unless scales are not 0 and every coordinate of the three axes finite."""
    scale, offset = np.asarray(scales, np.float64), np.asarray(offsets, np.float64)
    with np.errstate(over="ignore", invalid="ignore"):
        farthest = np.abs(scale) * _MAX_MULTIPLE + np.abs(offset)
    if not (np.isfinite(farthest) & (scale != 0)).all():
        raise WaveformFileError(
            f"{path}: invalid scales {scale} and offsets {offset} of the coordinates; scales must "
            "not be 0, and scale x 2^31 + offset must be finite"
        )
