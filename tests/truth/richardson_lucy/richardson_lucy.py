"""Deconvolved waveforms, worked out without the library.

Writes `RichardsonLucyCases.h`: constructed records with known echoes, their deconvolved signal
and its peaks. The iteration is that of Richardson (1972) and Lucy (1974) with NumPy's FFT; its
kernel is skewed, so that a kernel that is not mirrored in the second convolution shows. Scenes are
drawn until every way in which the iteration ends has its records.

Run: python3 richardson_lucy.py, with NumPy
"""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

SAMPLING_TIME = 1e-9  # s
SIZE_SYS = 12  # samples
# exp(-t / 4 ns) (1 - cos(t / 2 ns)), a pulse that is not symmetric; exponents in 1/s.
COEFFICIENTS = np.array([1.0 + 0.0j, -0.5 + 0.0j, -0.5 + 0.0j])
EXPONENTS = np.array([-2.5e8 + 0.0j, -2.5e8 + 5e8j, -2.5e8 - 5e8j])


def shape(t: np.ndarray) -> np.ndarray:
    """The exponential sum at times t in s."""
    return (COEFFICIENTS[:, None] * np.exp(EXPONENTS[:, None] * t)).sum(axis=0).real


def system_wave(up: int) -> np.ndarray:
    """The pulse at the up-sampled step, largest value 1; shape [(SIZE_SYS - 1) * up + 1]."""
    wave = shape(np.arange((SIZE_SYS - 1) * up + 1) * (SAMPLING_TIME / up))
    return wave / wave.max()


def pulse(t: np.ndarray) -> np.ndarray:
    """The pulse at times t in samples after its start, 0 before it; the largest value is 1."""
    largest = shape(np.linspace(0, 12e-9, 100_001)).max()
    return np.where(t >= 0, shape(np.maximum(t, 0) * SAMPLING_TIME), 0.0) / largest


def convolved(x: np.ndarray, kernel: np.ndarray) -> np.ndarray:
    """Plain convolution, cut so that x[i] meets the kernel's index len // 2 - 1 at value i."""
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
    margin: float  # distance of the sums from where the iteration would have ended otherwise


def deconvolved(observed: np.ndarray, kernel: np.ndarray) -> Deconvolution:
    """At most 40 corrections; ends when their sum is settled or, after the sixth, rises."""
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
    """A record, what is known of its signal, and the expected result."""

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
    """The last sample not above the noise before the signal, and the first below it behind."""
    s = np.array(samples)
    above = np.flatnonzero(s > noise)
    first = int(above[0]) - 1
    last = int(above[-1] + np.flatnonzero(s[above[-1] :] < noise)[0])
    assert first > 0
    assert last < len(s) - 1
    return first, last


def peaks_of(counts: np.ndarray, noise: int, first: int, up: int) -> list[tuple[float, int]]:
    """Positions in samples and amplitudes of the local maxima of the deconvolved signal."""
    whole = np.trunc(counts).astype(np.int64) & 0xFFFF
    padded = np.concatenate([whole[:1], whole, whole[-1:]])
    rise = whole - padded[:-2]
    fall = whole - padded[2:]
    found = (rise > 0) & (fall >= 0) & (whole > noise) & ((rise >= 2) | (fall >= 2))
    where = np.flatnonzero(found)
    if len(where) == 0 and whole.max() > noise:
        where = np.array([whole.argmax()])
    place = where / up + (first - up * 0.5) if up > 1 else where + float(first)
    return [(float(p), int(a)) for p, a in zip(place, whole[where], strict=True)]


def work_out(case: Case) -> float:
    """Fills in the expected result; returns how far the iteration was from another ending."""
    s = np.array(case.samples, dtype=float)
    span = s[case.first : case.last + 1]
    count = (case.last - case.first) * case.up
    if case.up == 1:
        signal = np.maximum(span[:count] - case.noise, 0.0)
        largest = signal.max()
    else:
        raw = np.interp(np.arange(count) / case.up, np.arange(len(span)), span)
        signal = np.maximum(raw - case.noise, 0.0)
        largest = raw.max()
    result = deconvolved(signal / signal.max(), system_wave(case.up))
    estimate = result.estimate
    case.estimate = estimate * (largest - case.noise) / estimate[:-1].max() + case.noise
    case.iterations, case.ending = result.iterations, result.ending
    case.peaks = peaks_of(case.estimate, case.noise, case.first, case.up)
    return result.margin


def scene(rng: np.random.Generator, kind: str, echoes: int, up: int) -> Case:
    """A record of some echoes on a floor below the noise level of 20 counts."""
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


def drawn(rng: np.random.Generator) -> list[Case]:
    """Two records of every number of echoes, ending and up-sampling that comes up, far from doubt.

    A largest value that is scaled to a whole count may be truncated to the one below it.
    """
    wanted: dict[tuple[int, str, int], int] = {}
    cases: list[Case] = []
    for attempt in range(600):
        echoes = 1 + attempt % 3
        up = 1 if attempt % 4 == 0 else 5
        case = scene(rng, f"{echoes} echoes", echoes, up)
        if work_out(case) < 1e-4:
            continue
        key = (0 if case.ending != "limit" else echoes, case.ending, up)
        if wanted.get(key, 0) < 2:
            wanted[key] = wanted.get(key, 0) + 1
            cases.append(case)
    return cases


def numbers(values: np.ndarray) -> str:
    return "{" + ", ".join(repr(float(v)) for v in values) + "}"


def literal(case: Case) -> str:
    samples = "{" + ", ".join(map(str, case.samples)) + "}"
    peaks = "{" + ", ".join(f"{{{place!r}, {amplitude}}}" for place, amplitude in case.peaks) + "}"
    return (
        f'      {{"{case.kind}, {case.ending}", {samples}, {case.noise}, {case.first}, {case.last},'
        f" {case.up}, {case.iterations}, {numbers(case.estimate)}, {peaks}}},"
    )


def main() -> None:
    cases = drawn(np.random.default_rng(20240817))
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
