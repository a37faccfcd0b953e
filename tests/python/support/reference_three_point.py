"""The three-point road of one waveform, written down plainly: no speed, no library of ours.

Serves as the other side of a comparison; every step stands here as a person would compute it.
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field

import numpy as np

from fullwaveform.core.driver import Threshold

SYSTEM = np.array([[1, 0, 0], [1, 1, 1], [1, 2, 4]], dtype=np.float32)


@dataclass
class Echo:
    """Position in samples, amplitude in counts, standard deviation in samples."""

    idx: float
    amplitude: float
    std: float
    after_pulse: bool = False


@dataclass
class Wave:
    """Analysis values and echoes of one record."""

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
    """Noise level of a record, its low 16 bits."""
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


def analyse(samples: list[int], threshold: Threshold) -> Wave:
    """Strongest inner sample and the segments above the threshold."""
    wave = Wave(estimate(samples) if threshold == "estimate" else threshold)
    inside, start = samples[0] > wave.noise, 1
    for i in range(1, len(samples) - 1):
        if samples[i] > wave.max_amplitude:
            wave.max_amplitude, wave.idx_of_max = samples[i], i
        if samples[i] > wave.noise:
            if not inside:
                inside, start = True, i - 1
        elif samples[i] < wave.noise and inside:
            wave.segments[start] = i
            inside = False
    if inside:
        wave.segments[start] = len(samples) - 2
    return wave


def raw_maxima(samples: list[int], first: int, last: int, noise: int) -> list[int]:
    """Indices of the local maxima, or of the largest sample when there is none."""
    found, largest, at = [], 0, 0
    for i in range(first, last + 1):
        before, here, behind = samples[max(i - 1, 0)], samples[i], samples[i + 1]
        if here > largest:
            largest, at = here, i
        rise, fall = here - before, here - behind
        if rise == 0 or here <= noise or (rise < 2 and fall < 2) or rise < 0 or fall < 0:
            continue
        found.append(i)
    return found if found or noise >= largest else [at]


def fit(samples: list[int], k: int) -> Echo:
    """The Gaussian through a sample and its neighbours, in single precision."""
    triple = [math.log(max(samples[i], 1)) for i in (max(k - 1, 0), k, k + 1)]
    c = np.linalg.solve(SYSTEM, np.array(triple, dtype=np.float32))
    with np.errstate(all="ignore"):
        top = c[0] - np.float32(0.25) * c[1] * c[1] / c[2]
        vertex = np.float32(k - 1) - np.float32(0.5) * c[1] / c[2]
        std = np.sqrt(np.float32(-0.5) / c[2])
        return Echo(float(vertex), float(np.float32(np.exp(np.float64(top)))), float(std))


def is_bad(echo: Echo, wave: Wave) -> bool:
    """Outside the range, the amplitudes or the widths that an echo can have."""
    return (
        echo.idx < wave.start
        or echo.idx > wave.end
        or echo.amplitude > 4096.0
        or echo.amplitude < wave.noise
        or echo.std > 50.0
        or echo.std < 0.0
    )


def three_point_road(
    samples: list[int], threshold: Threshold, after_pulse: tuple[int, int] = (0, 2**31)
) -> Wave:
    """Everything that becomes of one record in mode 0; echoes in counts, none for a weak signal."""
    wave = analyse(samples, threshold)
    if wave.max_amplitude <= wave.noise or wave.end - wave.start < 3:
        return wave
    offset, width = after_pulse
    window_from = (wave.idx_of_max + offset - width) % 2**32
    for k in raw_maxima(samples, wave.start, wave.end, wave.noise):
        if wave.max_amplitude >= 800 and k >= window_from:
            continue  # the window ends far behind any record
        wave.echoes.append(fit(samples, k))
    wave.echoes = [echo for echo in wave.echoes if not is_bad(echo, wave)]
    return wave
