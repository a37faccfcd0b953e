"""Deconvolved waveforms, calculated without the library.

Writes `RichardsonLucyCases.h`: constructed waveforms with known echoes, their deconvolved signal
and its peaks. The correction step is that of Richardson (1972) and Lucy (1974), with NumPy's FFT;
the end of the iteration, the scaling and the peak rule are those of the library. The kernel is
skewed, so that a missing mirror in the second convolution is detected. Scenes are drawn until every
way in which the iteration ends has waveforms.

Run: python3 richardson_lucy.py, with NumPy
"""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

SAMPLING_TIME = 1e-9  # s
SIZE_SYS = 12  # samples
# Asymmetric pulse exp(-t / 4 ns) (1 - cos(t / 2 ns)); exponents in 1/s.
COEFFICIENTS = np.array([1.0 + 0.0j, -0.5 + 0.0j, -0.5 + 0.0j])
EXPONENTS = np.array([-2.5e8 + 0.0j, -2.5e8 + 5e8j, -2.5e8 - 5e8j])


def shape(t: np.ndarray) -> np.ndarray:
    """The exponential sum at times t in s."""
    return (COEFFICIENTS[:, None] * np.exp(EXPONENTS[:, None] * t)).sum(axis=0).real


def system_wave(up: int) -> np.ndarray:
    """The pulse at the up-sampled step, maximum 1; shape [(SIZE_SYS - 1) * up + 1]."""
    wave = shape(np.arange((SIZE_SYS - 1) * up + 1) * (SAMPLING_TIME / up))
    return wave / wave.max()


def pulse(t: np.ndarray) -> np.ndarray:
    """The pulse at times t in samples after its start, 0 before it; maximum 1."""
    maximum = shape(np.linspace(0, 12e-9, 100_001)).max()
    return np.where(t >= 0, shape(np.maximum(t, 0) * SAMPLING_TIME), 0.0) / maximum


def convolved(x: np.ndarray, kernel: np.ndarray) -> np.ndarray:
    """Full convolution, cropped so that index len(kernel) // 2 - 1 of the kernel is its centre."""
    length = len(x) + len(kernel) - 1
    full = np.fft.irfft(np.fft.rfft(x, length) * np.fft.rfft(kernel, length), length)
    middle = len(kernel) // 2 - 1
    return full[middle : middle + len(x)]


@dataclass
class Deconvolution:
    """A deconvolved signal and how its iteration ended."""

    estimate: np.ndarray
    iterations: int
    ending: str
    margin: float  # difference of the sums that would have changed the end of the iteration


def deconvolved(observed: np.ndarray, kernel: np.ndarray) -> Deconvolution:
    """At most 40 corrections; ends when their sum settles or, after the sixth, rises."""
    estimate = observed.copy()
    previous = 0.0
    margin = np.inf
    for k in range(40):
        blurred = convolved(estimate, kernel)
        ratio = np.divide(observed, blurred, out=np.zeros_like(blurred), where=blurred != 0)
        correction = convolved(ratio, kernel[::-1])
        estimate = estimate * correction
        total = correction.sum()
        change = abs(previous - total)
        margin = min(margin, abs(change - 0.02), abs(previous - total) if k >= 6 else np.inf)
        if total > previous and k >= 6:
            return Deconvolution(estimate, k + 1, "rise", margin)
        if change < 0.02:
            return Deconvolution(estimate, k + 1, "settled", margin)
        previous = total
    return Deconvolution(estimate, 40, "limit", margin)


@dataclass
class Case:
    """A waveform, its range, and the expected result."""

    kind: str
    samples: list[int]
    noise: int
    first: int
    last: int
    up: int
    iterations: int = 0
    ending: str = ""
    estimate: np.ndarray = field(default_factory=lambda: np.empty(0))
    peaks: list[tuple[float, int]] = field(default_factory=list)


def signal_range(samples: list[int], noise: int) -> tuple[int, int]:
    """The last sample not above the noise before the signal, and the first below it after."""
    s = np.array(samples)
    above = np.flatnonzero(s > noise)
    first = int(above[0]) - 1
    last = int(above[-1] + np.flatnonzero(s[above[-1] :] < noise)[0])
    assert first > 0
    assert last < len(s) - 1
    return first, last


def peaks_of(counts: np.ndarray, noise: int, first: int, up: int) -> list[tuple[float, int]]:
    """Positions (samples) and amplitudes (counts) of the maxima of the deconvolved signal."""
    integers = np.trunc(counts).astype(np.int64) & 0xFFFF
    padded = np.concatenate([integers[:1], integers, integers[-1:]])
    rise = integers - padded[:-2]
    fall = integers - padded[2:]
    found = (rise > 0) & (fall >= 0) & (integers > noise) & ((rise >= 2) | (fall >= 2))
    indices = np.flatnonzero(found)
    if len(indices) == 0 and integers.max() > noise:
        indices = np.array([integers.argmax()])
    position = indices / up + (first - up * 0.5) if up > 1 else indices + float(first)
    return [(float(p), int(a)) for p, a in zip(position, integers[indices], strict=True)]


def calculate(case: Case) -> float:
    """Fill in the expected result; return the margin of the iteration's end."""
    s = np.array(case.samples, dtype=float)
    span = s[case.first : case.last + 1]
    count = (case.last - case.first) * case.up
    if case.up == 1:
        signal = np.maximum(span[:count] - case.noise, 0.0)
        maximum = signal.max()
    else:
        raw = np.interp(np.arange(count) / case.up, np.arange(len(span)), span)
        signal = np.maximum(raw - case.noise, 0.0)
        maximum = raw.max()
    result = deconvolved(signal / signal.max(), system_wave(case.up))
    estimate = result.estimate
    case.estimate = estimate * (maximum - case.noise) / estimate[:-1].max() + case.noise
    case.iterations, case.ending = result.iterations, result.ending
    case.peaks = peaks_of(case.estimate, case.noise, case.first, case.up)
    return result.margin


def scene(rng: np.random.Generator, kind: str, echoes: int, up: int) -> Case:
    """A waveform of some echoes on a baseline below the threshold of 20 counts."""
    length = int(rng.integers(55, 65))
    t = np.arange(length, dtype=float)
    signal = rng.uniform(2, 14, length)
    start = rng.uniform(6, 10)
    for _ in range(echoes):
        signal += pulse(t - start) * rng.uniform(60, 900)
        start += rng.uniform(2.5, 7)
    samples = [int(v) for v in np.rint(signal)]
    first, last = signal_range(samples, 20)
    return Case(kind, samples, 20, first, last, up)


def draw_cases(rng: np.random.Generator) -> list[Case]:
    """Two waveforms of every number of echoes, ending and up-sampling that occurs.

    Waveforms for which rounding may decide the end are discarded.
    """
    counts: dict[tuple[int, str, int], int] = {}
    cases: list[Case] = []
    for attempt in range(600):
        echoes = 1 + attempt % 3
        up = 1 if attempt % 4 == 0 else 5
        case = scene(rng, f"{echoes} echoes", echoes, up)
        if calculate(case) < 1e-4:
            continue
        key = (0 if case.ending != "limit" else echoes, case.ending, up)
        if counts.get(key, 0) < 2:
            counts[key] = counts.get(key, 0) + 1
            cases.append(case)
    return cases


def numbers(values: np.ndarray) -> str:
    return "{" + ", ".join(repr(float(v)) for v in values) + "}"


def literal(case: Case) -> str:
    samples = "{" + ", ".join(map(str, case.samples)) + "}"
    peaks = (
        "{"
        + ", ".join(f"{{{position!r}, {amplitude}}}" for position, amplitude in case.peaks)
        + "}"
    )
    return (
        f'      {{"{case.kind}, {case.ending}", {samples}, {case.noise}, {case.first}, {case.last},'
        f" {case.up}, {case.iterations}, {numbers(case.estimate)}, {peaks}}},"
    )


def main() -> None:
    cases = draw_cases(np.random.default_rng(20240817))
    for case in cases:
        print(case.kind, case.ending, case.up, case.iterations, len(case.estimate), case.peaks)
    head = """#pragma once

// Made by richardson_lucy.py; not edited by hand.

#include <cstdint>
#include <vector>

namespace FullWaveform::Testing {

struct DeconvolvedPeak {
  double idx;
  double amplitude;
};

struct RichardsonLucyCase {
  char const* kind;
  std::vector<unsigned short> samples;
  unsigned short noise;
  std::uint32_t globalStart;
  std::uint32_t globalEnd;
  std::uint32_t upSampling;
  int iterations;
  std::vector<double> estimate;  // counts
  std::vector<DeconvolvedPeak> peaks;
};

inline std::vector<RichardsonLucyCase> richardsonLucyCases() {
  return {
"""
    tail = "\n  };\n}\n\n}  // namespace FullWaveform::Testing\n"
    path = Path(__file__).with_name("RichardsonLucyCases.h")
    path.write_text(head + "\n".join(literal(case) for case in cases) + tail)


if __name__ == "__main__":
    main()
