"""Mode 0 for one waveform in plain Python, without the library, as a reference for comparison."""

from __future__ import annotations

import math
from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from fullwaveform.core.driver import Threshold

Matrix = npt.NDArray[np.float32]

SYSTEM: Matrix = np.array([[1, 0, 0], [1, 1, 1], [1, 2, 4]], dtype=np.float32)


@dataclass
class Echo:
    """Position in samples, amplitude in counts, standard deviation in samples."""

    idx: float
    amplitude: float
    std: float
    after_pulse: bool = False


@dataclass
class Waveform:
    """Analysis values and echoes of a waveform."""

    noise: int
    max_amplitude: int = 0
    idx_of_max: int = 0
    segments: dict[int, int] = field(default_factory=dict)
    echoes: list[Echo] = field(default_factory=list)

    @property
    def start(self) -> int:
        return min(self.segments)

    @property
    def end(self) -> int:
        return self.segments[max(self.segments)]


def estimate(samples: list[int]) -> int:
    """Estimated threshold of a waveform, its low 16 bits."""
    collected = [float(s) for s in samples if s > 10]
    if len(collected) < 2:
        return 180
    m = len(collected)
    k = min(max(int(m * 0.1), 1), 10)
    if k == 1:
        return 0  # a line through one value
    values = collected[:k] if samples[-1] >= samples[0] else collected[-k:]
    sum_x, sum_y = float(sum(range(k))), sum(values)
    sum_xx, sum_xy = float(sum(x * x for x in range(k))), sum(x * y for x, y in enumerate(values))
    slope = (k * sum_xy - sum_x * sum_y) / (k * sum_xx - sum_x * sum_x)
    intercept = (sum_y - slope * sum_x) / k
    residuals = [y - intercept - slope * x for x, y in enumerate(values)]
    noise = (max(residuals) - min(residuals)) * 5.0 + sorted(collected)[int(0.05 * m)]
    if max(samples[0], max(collected)) > 1800:
        noise *= 2.0
    return int(noise) & 0xFFFF


def analyse(samples: list[int], threshold: Threshold) -> Waveform:
    """Largest inner sample and the segments above the threshold."""
    waveform = Waveform(estimate(samples) if threshold == "estimate" else threshold)
    inside, start = samples[0] > waveform.noise, 1
    for i in range(1, len(samples) - 1):
        if samples[i] > waveform.max_amplitude:
            waveform.max_amplitude, waveform.idx_of_max = samples[i], i
        if samples[i] > waveform.noise:
            if not inside:
                inside, start = True, i - 1
        elif samples[i] < waveform.noise and inside:
            waveform.segments[start] = i
            inside = False
    if inside:
        waveform.segments[start] = len(samples) - 2
    return waveform


def raw_maxima(samples: list[int], first: int, last: int, noise: int) -> list[int]:
    """Indices of the local maxima, or of the largest sample if there are none."""
    found, largest, at = [], 0, 0
    for i in range(first, last + 1):
        before, here, after = samples[max(i - 1, 0)], samples[i], samples[i + 1]
        if here > largest:
            largest, at = here, i
        rise, fall = here - before, here - after
        if rise == 0 or here <= noise or (rise < 2 and fall < 2) or rise < 0 or fall < 0:
            continue
        found.append(i)
    return found if found or noise >= largest else [at]


def solve(system: Matrix, right: Matrix) -> Matrix:
    """Solution of a linear system in single precision, by LU decomposition with partial pivoting.

    As in the triangular solver of the reference BLAS, components of zero are skipped. The curvature
    of equal samples thus is +0, not 0 / -1 = -0, and their width is NaN, not infinite.
    """
    lu, x = system.copy(), right.copy()
    n = len(x)
    for j in range(n):
        pivot = j + int(np.argmax(np.abs(lu[j:, j])))
        lu[[j, pivot]], x[[j, pivot]] = lu[[pivot, j]], x[[pivot, j]]
        for i in range(j + 1, n):
            factor = lu[i, j] / lu[j, j]
            lu[i, j:] -= factor * lu[j, j:]
            x[i] -= factor * x[j]
    for j in reversed(range(n)):
        if x[j] != 0:
            x[j] /= lu[j, j]
            x[:j] -= lu[:j, j] * x[j]
    return x


def fit(samples: list[int], k: int) -> Echo:
    """The Gaussian through a sample and its neighbours, in single precision."""
    triple = [math.log(max(samples[i], 1)) for i in (max(k - 1, 0), k, k + 1)]
    c = solve(SYSTEM, np.array(triple, dtype=np.float32))
    with np.errstate(all="ignore"):
        top = c[0] - np.float32(0.25) * c[1] * c[1] / c[2]
        vertex = np.float32(k - 1) - np.float32(0.5) * c[1] / c[2]
        std = np.sqrt(np.float32(-0.5) / c[2])
        return Echo(float(vertex), float(np.float32(np.exp(np.float64(top)))), float(std))


def is_bad(echo: Echo, waveform: Waveform) -> bool:
    """Whether position, amplitude or width is not possible for an echo."""
    return (
        echo.idx < waveform.start
        or echo.idx > waveform.end
        or echo.amplitude > 4096.0
        or echo.amplitude < waveform.noise
        or echo.std > 50.0
        or echo.std < 0.0
    )


def three_point_echoes(
    samples: list[int], threshold: Threshold, after_pulse: tuple[int, int] = (0, 2**31)
) -> Waveform:
    """Analysis and echoes of a waveform in mode 0."""
    waveform = analyse(samples, threshold)
    if waveform.max_amplitude <= waveform.noise or waveform.end - waveform.start < 3:
        return waveform
    offset, width = after_pulse
    window_from = (waveform.idx_of_max + offset - width) % 2**32
    for k in raw_maxima(samples, waveform.start, waveform.end, waveform.noise):
        if waveform.max_amplitude >= 800 and k >= window_from:
            continue  # the window ends after any waveform
        waveform.echoes.append(fit(samples, k))
    waveform.echoes = [echo for echo in waveform.echoes if not is_bad(echo, waveform)]
    return waveform
