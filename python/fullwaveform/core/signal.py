"""Intermediate signals of the methods, for one waveform."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform import _core
from fullwaveform.core.driver import Threshold, noise_argument
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray

#: Counts that the library estimates for a waveform with fewer than two samples above 10.
NO_SIGNAL_THRESHOLD = 180


def estimated_threshold(samples: npt.NDArray[np.uint16]) -> int:
    """Threshold in counts that the library estimates for a waveform."""
    return _core.estimate_noise(np.ascontiguousarray(samples))


def deconvolved_signal(
    samples: npt.NDArray[np.uint16], scanner: Scanner, threshold: Threshold
) -> FloatArray:
    """Position (samples) and height (counts) of the deconvolved signal, (k, 2).

    Its maxima are the echoes of mode 2, before the position offset of the scanner description is
    subtracted. Empty if no sample is above the threshold.
    """
    values, first, step = _core.deconvolved_signal(
        np.ascontiguousarray(samples), scanner.device(), noise_argument(threshold)
    )
    forward_messages()
    return np.column_stack([first + np.arange(len(values)) * step, values])[np.isfinite(values)]
