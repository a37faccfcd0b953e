"""Heights of echoes above the baseline, whatever the amplitude of their method refers to."""

from __future__ import annotations

from collections.abc import Mapping

import numpy as np

from fullwaveform.core.constants import DECOMPOSED_TYPES, EchoType
from fullwaveform.data.arrays import AnyArray, FloatArray


def heights(peaks: Mapping[str, AnyArray], threshold: FloatArray) -> FloatArray:
    """Height (m,) of each echo above 0, in counts.

    Parameters
    ----------
    peaks : columns (m,) of `Result.peaks`
    threshold : (m,) counts, of the waveform of each echo
    """
    counts = peaks["amplitudeCounts"].astype(np.float64)
    # The decomposition fits what remains after subtracting the threshold.
    above_threshold = np.isin(peaks["type"], DECOMPOSED_TYPES)
    return np.where(above_threshold, counts + threshold, counts)


def with_unknown_values(peaks: Mapping[str, AnyArray]) -> dict[str, AnyArray]:
    """The columns with NaN where the driver has 0 for a value that the method does not measure."""
    has_width = peaks["type"] != EchoType.RICHARDSON_LUCY
    has_reflectance = peaks["type"] == EchoType.ONLINE_OWP
    return {
        **peaks,
        "std": np.where(has_width, peaks["std"], np.nan),
        "reflectance": np.where(has_reflectance, peaks["reflectance"], np.float32(np.nan)),
    }
