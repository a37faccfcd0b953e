"""Parameters of the metrics of waveforms."""

from __future__ import annotations

import math
from dataclasses import dataclass, fields

import numpy as np

from fullwaveform.data.arrays import FloatArray

_MAX_LEVELS = 1000  # of a profile


@dataclass(frozen=True, slots=True)
class MetricsSettings:
    """Parameters of the metrics; docs/metrics.md has the formula in which each occurs.

    The defaults suit large footprints (GEDI, LVIS). For airborne scanners with pulses of a few
    nanoseconds set `smoothing` to about half the width (FWHM) of their pulses.

    Raises
    ------
    ValueError
        If a value is outside its range.
    """

    smoothing: float = 5.76  # ns, standard deviation of the smoothing kernel; 0: none
    front_threshold: float = 3.0  # noise rms above the baseline, at the top of the canopy
    back_threshold: float = 6.0  # noise rms above the baseline, of modes and the end of the signal
    reflectance_ratio: float = 1.5  # of vegetation to ground, rho_v / rho_g
    projection: float = 0.5  # G: mean projection of the leaves along the beam
    clumping: float = 1.0  # Omega: 1 for leaves at random places
    profile_step: float = 5.0  # m between the heights of the profiles
    profile_top: float = 150.0  # m; the profiles end below it
    diversity_step: float = 1.0  # m between the heights of the foliage height diversity

    def __post_init__(self) -> None:
        for field in fields(self):
            value = getattr(self, field.name)
            is_number = isinstance(value, int | float) and not isinstance(value, bool)
            may_be_zero = field.name == "smoothing"
            if not is_number or not math.isfinite(value) or value < 0.0:
                raise ValueError(f"{field.name} {value!r} must be a finite number, not negative")
            if value == 0.0 and not may_be_zero:
                raise ValueError(f"{field.name} {value!r} must be above 0")
        for name in ("profile_step", "diversity_step"):
            levels = self.profile_top / getattr(self, name)
            if levels > _MAX_LEVELS:
                raise ValueError(
                    f"{name} {getattr(self, name)!r} m divides profile_top {self.profile_top!r} m "
                    f"into {levels:.0f} levels; at most {_MAX_LEVELS} are allowed"
                )

    @property
    def profile_heights(self) -> FloatArray:
        """Heights of the profiles above the ground, m, from 0."""
        return self._heights(self.profile_step)

    @property
    def diversity_heights(self) -> FloatArray:
        """Heights of the foliage height diversity above the ground, m, from 0."""
        return self._heights(self.diversity_step)

    def _heights(self, step: float) -> FloatArray:
        count = max(math.ceil(self.profile_top / step - 1e-9), 2)
        return step * np.arange(count, dtype=np.float64)
