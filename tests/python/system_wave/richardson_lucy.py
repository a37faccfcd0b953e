"""Deconvolution of single waveforms in NumPy, independent of the compiled library.

The iteration is Richardson's and Lucy's (J. Opt. Soc. Am. 62, 1972; Astron. J. 79, 1974) on a
signal interpolated five times, with convolutions written as direct sums. Kernel, stopping rule,
shifts and the search for maxima follow the library's documented conventions.
"""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

FloatArray = npt.NDArray[np.float64]

UP_SAMPLING, WINDOW = 5, 12


def system_wave(
    coefficients: npt.ArrayLike, exponents: npt.ArrayLike, interval: float
) -> FloatArray:
    """The 56 values of the sum at fifths of a sample, their maximum 1."""
    time = np.arange((WINDOW - 1) * UP_SAMPLING + 1) * interval / UP_SAMPLING
    terms = np.exp(np.outer(time, np.asarray(exponents)))
    wave = (terms @ np.asarray(coefficients)).real
    return np.asarray(wave / wave.max())


def convolved(values: FloatArray, kernel: FloatArray) -> FloatArray:
    """The part of the full convolution that begins at half the kernel less one."""
    first = len(kernel) // 2 - 1
    return np.convolve(values, kernel)[first : first + len(values)]


def signal_range(samples: FloatArray, noise: float) -> tuple[int, int] | None:
    """Start of the first segment above the threshold and end of the last; None without one."""
    last = len(samples) - 2
    inside, start, ranges = bool(samples[0] > noise), 1, []
    for i in range(1, last + 1):
        if samples[i] > noise and not inside:
            start, inside = i - 1, True
        elif samples[i] < noise and inside:
            ranges.append((start, i))
            inside = False
    if inside:
        ranges.append((start, last))
    return (ranges[0][0], ranges[-1][1]) if ranges else None


def deconvolved(
    samples: FloatArray, noise: float, kernel: FloatArray, start: int, end: int
) -> FloatArray:
    """The deconvolved signal at fifths of a sample from `start` on."""
    length = (end - start) * UP_SAMPLING
    at = start + np.arange(length) / UP_SAMPLING
    interpolated = np.interp(at, np.arange(len(samples)), samples)
    observed = np.maximum(interpolated - noise, 0.0)
    observed = observed / observed.max()
    estimate, previous = observed.copy(), 0.0
    for k in range(40):
        blurred = convolved(estimate, kernel)
        ratio = np.divide(observed, blurred, out=np.zeros(length), where=blurred != 0.0)
        correction = convolved(ratio, kernel[::-1])
        estimate = estimate * correction
        total = correction.sum()
        if (total > previous and k >= 6) or abs(previous - total) < 0.02:
            break
        previous = total
    return np.asarray(estimate * (interpolated.max() - noise) / estimate[:-1].max() + noise)


def maxima(values: FloatArray, noise: float) -> list[int]:
    """Maxima above the threshold with a step of 2 counts next to them, or the largest value.

    A neighbour beyond the ends is taken to be as high as the end itself.
    """
    counts = np.trunc(values)
    rise = np.diff(counts, prepend=counts[0])
    fall = -np.diff(counts, append=counts[-1])
    found = np.flatnonzero(
        (rise > 0) & (fall >= 0) & (counts > noise) & (np.maximum(rise, fall) >= 2.0)
    ).tolist()
    return found if found or counts.max() <= noise else [int(np.argmax(counts))]


def echoes(samples: npt.ArrayLike, noise: float, kernel: FloatArray) -> list[tuple[float, float]]:
    """Position in samples and amplitude in counts of every echo of one waveform."""
    row = np.asarray(samples, dtype=np.float64)
    found = signal_range(row, noise)
    if found is None:
        return []
    start, end = found
    if end - start < 2:
        return []
    signal = deconvolved(row, noise, kernel, start, end)
    shift = start - 0.5 * UP_SAMPLING
    return [(i / UP_SAMPLING + shift, float(np.trunc(signal[i]))) for i in maxima(signal, noise)]
