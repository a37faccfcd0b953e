"""Constructed waveforms with known echoes; equal seeds give equal waveforms."""

from __future__ import annotations

import zlib
from dataclasses import dataclass, replace

import numpy as np
import numpy.typing as npt

from accuracy.bound import QUANTISATION_VARIANCE, Bound, Priors, cramer_rao
from accuracy.pulses import Floats, Pulse

SEED = 20261122
WIDTH = 80  # samples
INTERVAL = 1e-9  # s
_BOUND_ROWS = 256  # waveforms whose bounds are averaged
_SATURATED_MARGIN = 4.0  # noise rms above the limit, where a sample is certainly clipped


@dataclass(frozen=True)
class Receiver:
    """A digitiser: levels in counts."""

    name: str
    limit: int
    baseline: float
    noise_rms: float  # before rounding

    @property
    def noise_variance(self) -> float:
        """Of a sample, with that of the rounding."""
        return self.noise_rms**2 + QUANTISATION_VARIANCE

    @property
    def sample_rms(self) -> float:
        """Noise rms of a sample, with that of the rounding."""
        return float(np.sqrt(self.noise_variance))

    @property
    def priors(self) -> Priors:
        """The priors of the pulse fit, from which the scenes are drawn."""
        return Priors(0.3 * self.sample_rms, variance_spread=0.05, widening=0.05)


EIGHT_BIT = Receiver("8 bit", 255, 10.0, 0.8)
TWELVE_BIT = Receiver("12 bit", 4095, 40.0, 2.0)


@dataclass(frozen=True)
class Truth:
    """Echoes of n waveforms, k each: (n, k)."""

    position: Floats  # samples
    height: Floats  # counts above the baseline
    variance: Floats  # samples squared, by which the pulse is widened

    @classmethod
    def none(cls, rows: int) -> Truth:
        """Waveforms without echoes."""
        return cls(*(np.empty((rows, 0)) for _ in range(3)))


@dataclass(frozen=True)
class Scene:
    """Waveforms, what is known of them before a fit, and their echoes."""

    name: str
    samples: npt.NDArray[np.uint16]  # (n, WIDTH)
    pulse: Pulse
    receiver: Receiver
    truth: Truth
    priors: Priors  # from which baseline and widths are drawn
    noise_correlation: float = 1.0

    def bound(self) -> Bound:
        """Root mean squares of the Cramer-Rao bounds of some of the waveforms: (1, k)."""
        truth = self.truth
        rows = slice(0, _BOUND_ROWS)
        position, height, variance = truth.position[rows], truth.height[rows], truth.variance[rows]
        signal = self.receiver.baseline + signal_of(self.pulse, Truth(position, height, variance))
        limit = self.receiver.limit + _SATURATED_MARGIN * self.receiver.sample_rms
        bounds = cramer_rao(
            self.pulse,
            position,
            height,
            variance,
            noise_variance=self.receiver.noise_variance,
            priors=self.priors,
            used=(signal < limit).astype(np.float64),
        )
        return Bound(
            *(
                np.sqrt(np.mean(part**2, axis=0, keepdims=True))
                for part in (bounds.position, bounds.height, bounds.fwhm)
            )
        )


def generator(name: str) -> np.random.Generator:
    """Random numbers that depend on the name only."""
    return np.random.default_rng([SEED, zlib.crc32(name.encode())])


def signal_of(pulse: Pulse, truth: Truth) -> Floats:
    """Light of the echoes above the baseline, (n, WIDTH) in counts."""
    rows, echoes = truth.position.shape
    signal = np.zeros((rows, WIDTH))
    for k in range(echoes):
        variance = truth.variance[:, k]
        amplitude = truth.height[:, k] / pulse.height_at(variance)
        signal += amplitude[:, np.newaxis] * pulse.samples(truth.position[:, k], variance, WIDTH)
    return signal


def drawn_variance(priors: Priors, shape: tuple[int, int], rng: np.random.Generator) -> Floats:
    """Widening of echoes, from the prior; not below the narrowest pulse of the fit."""
    scatter = rng.normal(0.0, priors.variance_spread, shape)
    return np.maximum(scatter + rng.exponential(priors.widening, shape), -0.4)


def digitised(
    signal: Floats, receiver: Receiver, rng: np.random.Generator, taps: Floats | None = None
) -> npt.NDArray[np.uint16]:
    """Samples of a signal: with noise, a baseline from its prior, rounded and clipped.

    taps : white noise is convolved with them; their squares sum to 1
    """
    rows, width = signal.shape
    taps = np.ones(1) if taps is None else taps
    white = rng.normal(0.0, receiver.noise_rms, (rows, width + len(taps) - 1))
    values = signal + sum(tap * white[:, k : k + width] for k, tap in enumerate(taps))
    values += receiver.baseline + rng.normal(0.0, receiver.priors.baseline_spread, (rows, 1))
    counts: npt.NDArray[np.uint16] = np.clip(np.rint(values), 0, receiver.limit).astype(np.uint16)
    return counts


def scene_of(
    name: str,
    pulse: Pulse,
    receiver: Receiver,
    position: Floats,
    height: Floats,
    widening: float = 1.0,
) -> Scene:
    """Waveforms with echoes at (n, k) positions and of (n, k) heights; widths from the prior.

    widening : factor of the mean widening of the prior
    """
    rng = generator(name)
    priors = replace(receiver.priors, widening=widening * receiver.priors.widening)
    truth = Truth(position, height, drawn_variance(priors, position.shape, rng))
    samples = digitised(signal_of(pulse, truth), receiver, rng)
    return Scene(name, samples, pulse, receiver, truth, priors)


def isolated_scene(pulse: Pulse, receiver: Receiver, snr: float, rows: int) -> Scene:
    """One echo per waveform, at any position within a sample; SNR is height over noise rms."""
    name = f"isolated {pulse.name} {receiver.name} {snr:g}"
    position = generator(name + " positions").uniform(28.0, 32.0, (rows, 1))
    height = np.full((rows, 1), snr * receiver.sample_rms)
    return scene_of(name, pulse, receiver, position, height)


def pair_scene(
    pulse: Pulse,
    receiver: Receiver,
    separation: float,
    heights: tuple[float, float],
    rows: int,
    widening: float = 1.0,
) -> Scene:
    """Two echoes per waveform: separation in FWHM of the pulse, heights in noise rms."""
    numbers = f"{separation:g} {heights[0]:g} {heights[1]:g} {widening:g}"
    name = f"pair {pulse.name} {receiver.name} {numbers}"
    first = generator(name + " positions").uniform(26.0, 30.0, (rows, 1))
    position = np.hstack([first, first + separation * pulse.fwhm])
    height = np.tile(np.array(heights) * receiver.sample_rms, (rows, 1))
    return scene_of(name, pulse, receiver, position, height, widening)


def noise_scene(name: str, pulse: Pulse, receiver: Receiver, rows: int, mixing: float) -> Scene:
    """Waveforms without echoes.

    mixing : -0.5 to 0.5: share of the neighbours in the noise of a sample; 0 is white noise
    """
    taps = np.array([mixing, 1.0, mixing]) / np.sqrt(1.0 + 2.0 * mixing**2)
    samples = digitised(np.zeros((rows, WIDTH)), receiver, generator(name), taps)
    correlation = _noise_correlation(pulse, receiver, taps)
    return Scene(name, samples, pulse, receiver, Truth.none(rows), receiver.priors, correlation)


def _noise_correlation(pulse: Pulse, receiver: Receiver, taps: Floats) -> float:
    """Noise that a matched filter sees, relative to that of white noise of the same rms."""
    core = pulse.samples(np.array([8.0]), np.zeros(1), 17)[0]
    coloured = np.sum(np.convolve(core, taps) ** 2) * receiver.noise_rms**2
    white = np.sum(core**2)
    total = coloured + QUANTISATION_VARIANCE * white
    return float(np.sqrt(total / (white * receiver.noise_variance)))
