"""The smallest standard deviations that any fit can have: the Cramer-Rao bound with priors."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from scipy.special import log_ndtr

from accuracy.pulses import Floats, Pulse

QUANTISATION_VARIANCE = 1.0 / 12.0  # counts squared, of values rounded to counts
_PER_ECHO = 3  # position, height, variance
_STEPS = 20001  # of the integral over the prior


@dataclass(frozen=True)
class Priors:
    """What is known before the fit. The truth of a scene is drawn from it.

    baseline_spread : counts, standard deviation of the baseline
    variance_spread : samples squared, standard deviation of the scatter of pulse widths
    widening : samples squared, mean of the exponential widening that is added to it
    """

    baseline_spread: float
    variance_spread: float
    widening: float

    @property
    def variance_information(self) -> float:
        """Fisher information of the prior of the variance: the mean of (d ln p / dv)^2."""
        return location_information(self.variance_spread, self.widening)


@dataclass(frozen=True)
class Bound:
    """Standard deviations (n, echoes)."""

    position: Floats  # samples
    height: Floats  # counts
    fwhm: Floats  # samples


def location_information(spread: float, widening: float) -> float:
    """Fisher information of the location of a normal plus an exponential distribution."""
    x = np.linspace(-10.0 * spread, 10.0 * spread + 40.0 * widening, _STEPS)
    # The density is exp(-x / widening) Phi(a), up to a factor.
    a = x / spread - spread / widening
    logarithm = log_ndtr(a) - x / widening
    density = np.exp(logarithm - np.max(logarithm))
    ratio = np.exp(-0.5 * a**2 - log_ndtr(a)) / np.sqrt(2.0 * np.pi)
    score = ratio / spread - 1.0 / widening
    return float(np.sum(density * score**2) / np.sum(density))


def cramer_rao(
    pulse: Pulse,
    position: Floats,
    height: Floats,
    variance: Floats,
    *,
    noise_variance: float,
    priors: Priors,
    used: Floats,
) -> Bound:
    """The bound for waveforms of k echoes each, and a baseline.

    Free are the baseline and position, height and variance of every echo; priors add their
    information. Noise is white.

    position, height, variance : (n, k) true values
    noise_variance : counts squared, of one sample, with that of the rounding
    used : (n, width) 1 for samples that inform, 0 for clipped ones
    """
    rows, echoes = position.shape
    width = used.shape[1]
    size = 1 + _PER_ECHO * echoes
    slopes = np.empty((rows, size, width))
    slopes[:, 0] = 1.0
    for k in range(echoes):
        slopes[:, 1 + _PER_ECHO * k : 1 + _PER_ECHO * (k + 1)] = _slopes_of_echo(
            pulse, position[:, k], height[:, k], variance[:, k], width
        )
    weighted = slopes * (used[:, np.newaxis] / noise_variance)
    information = weighted @ slopes.transpose(0, 2, 1)
    information[:, 0, 0] += 1.0 / priors.baseline_spread**2
    for k in range(echoes):
        entry = _PER_ECHO * (k + 1)
        information[:, entry, entry] += priors.variance_information
    covariance = np.linalg.inv(information)
    deviation = np.sqrt(np.diagonal(covariance, axis1=1, axis2=2))[:, 1:]
    per_echo = deviation.reshape(rows, echoes, _PER_ECHO)
    widths = np.abs(pulse.slope_of("fwhm", variance.ravel())).reshape(variance.shape)
    return Bound(per_echo[..., 0], per_echo[..., 1], widths * per_echo[..., 2])


def _slopes_of_echo(
    pulse: Pulse, position: Floats, height: Floats, variance: Floats, width: int
) -> Floats:
    """Derivatives (n, 3, width) of an echo by position, height and variance."""
    value, first, second = (
        pulse.samples(position, variance, width, by_lag=order) for order in range(3)
    )
    top = pulse.height_at(variance)[:, np.newaxis]
    lowering = pulse.slope_of("height", variance)[:, np.newaxis] / top
    amplitude = height[:, np.newaxis] / top
    by_variance = amplitude * (0.5 * second - lowering * value)
    return np.stack([-amplitude * first, value / top, by_variance], axis=1)
