"""Gap probability, plant area and their profiles, from the energy above the ground's return."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import Float32Array, FloatArray, IntArray
from fullwaveform.waveform_metrics.ground_return import GroundReturns
from fullwaveform.waveform_metrics.settings import MetricsSettings
from fullwaveform.waveform_metrics.signal_bounds import PER_SAMPLE


@dataclass(frozen=True, slots=True)
class Canopies:
    """Canopies of waveforms, one entry per waveform."""

    energy: FloatArray  # counts, sum over the samples
    cover: FloatArray  # 1
    gap_profile: FloatArray  # (n, heights), 1: probability of a gap above each height
    area_profile: FloatArray  # (n, heights), m2 per m2: plant area index above each height
    diversity: FloatArray  # 1: foliage height diversity

    @property
    def gap(self) -> FloatArray:
        """Probability of a gap through the whole canopy."""
        return self.gap_profile[:, 0]

    @property
    def plant_area(self) -> FloatArray:
        """Plant area index, m2 per m2."""
        return self.area_profile[:, 0]


def canopies(
    values: Float32Array,
    top: IntArray,
    ground: IntArray,
    returns: GroundReturns,
    sample_height: FloatArray,
    cosine: FloatArray,
    settings: MetricsSettings,
) -> Canopies:
    """Canopies of waveforms (n, width), counts above the baseline.

    Parameters
    ----------
    top, ground
        (n,) places of the top of the signal and of the ground, quarters of a sample.
    sample_height
        (n,) m between the heights of two samples.
    cosine
        (n,) of the angle between the pulse and the vertical.
    """
    above = _energy_above(values, top // PER_SAMPLE, returns)
    place = ground / PER_SAMPLE
    energy = _at(above, place, sample_height, np.zeros(1))[:, 0]
    weight = energy + settings.reflectance_ratio * returns.energy
    weight = np.where(weight > 0.0, weight, np.nan)

    def gaps(heights: FloatArray) -> FloatArray:
        return 1.0 - _at(above, place, sample_height, heights) / weight[:, np.newaxis]

    def area(gap: FloatArray) -> FloatArray:
        with np.errstate(divide="ignore"):  # no ground at all: an infinite index
            depth = -np.log(gap)
        scale = cosine / (settings.projection * settings.clumping)
        return depth * scale[:, np.newaxis] + 0.0  # no negative zeros

    profile = gaps(settings.profile_heights)
    used = _used(settings.diversity_heights, place - top / PER_SAMPLE, sample_height)
    diversity = _entropy(area(gaps(used)))
    cover = cosine * (1.0 - profile[:, 0])
    return Canopies(energy, cover, profile, area(profile), diversity)


def _used(heights: FloatArray, samples: FloatArray, sample_height: FloatArray) -> FloatArray:
    """The heights up to the first three above all canopies; above them there is no plant area."""
    highest = float(np.nanmax(samples * sample_height, initial=0.0))
    return heights[: max(int(np.searchsorted(heights, highest)) + 3, 3)]


def _energy_above(values: Float32Array, top: IntArray, returns: GroundReturns) -> FloatArray:
    """Sums (n, width + 1) of the canopy's samples before each sample, and of all of them."""
    rows = np.arange(len(values))[:, np.newaxis]
    index = np.arange(values.shape[1])
    inside = (index >= top[:, np.newaxis]) & (index <= returns.last[:, np.newaxis])
    left = values * inside
    steps = np.arange(1 - returns.values.shape[1], 1)
    at = returns.last[:, np.newaxis] + steps
    subtracted = np.where((at >= top[:, np.newaxis]) & (at >= 0), returns.values, np.float32(0.0))
    # Indices before the record come first, so that they do not undo the value at its first sample.
    left[rows, np.clip(at, 0, values.shape[1] - 1)] -= subtracted
    np.maximum(left, 0.0, out=left)
    sums = np.zeros((len(values), values.shape[1] + 1))
    np.cumsum(left, axis=1, dtype=np.float64, out=sums[:, 1:])
    return sums


def _at(
    above: FloatArray, ground: FloatArray, sample_height: FloatArray, heights: FloatArray
) -> FloatArray:
    """Energy (n, heights) above heights over the ground; half a sample belongs to either side."""
    width = above.shape[1] - 1
    place = ground[:, np.newaxis] - heights / sample_height[:, np.newaxis] + 0.5
    # Unknown heights give NaN.
    known = np.clip(np.nan_to_num(place), 0.0, float(width))
    lower = np.minimum(known.astype(np.int64), width - 1)
    rows = np.arange(len(above))[:, np.newaxis]
    before = above[rows, lower]
    found: FloatArray = before + (above[rows, lower + 1] - before) * (known - lower)
    found[np.isnan(place)] = np.nan
    return found


def _entropy(area: FloatArray) -> FloatArray:
    """Shannon's entropy (n,) of the shares of the plant area density at the heights."""
    with np.errstate(invalid="ignore"):
        density = np.maximum(-np.gradient(area, axis=1), 0.0)
    # Cumulative sums: heights without plant area at the end leave the last bit as it is.
    total = np.cumsum(density, axis=1)[:, -1:]
    with np.errstate(divide="ignore", invalid="ignore"):
        share = density / total
        terms = share * np.log(np.where(share > 0.0, share, 1.0))
    entropy = 0.0 - np.cumsum(terms, axis=1)[:, -1]
    return np.where(total[:, 0] > 0.0, entropy, np.where(np.isnan(total[:, 0]), np.nan, 0.0))
